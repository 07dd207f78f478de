// What tests ask of the operating system beside the library; one source file per system.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

namespace support {

// The id of a process that was started and has ended.
std::uint32_t endedProcessId();

// While it lives no one else can read, write or remove the file, as if another program had opened it for itself.
class HeldFile {
 public:
  explicit HeldFile(const std::filesystem::path& path);
  ~HeldFile();
  HeldFile(const HeldFile&) = delete;
  HeldFile& operator=(const HeldFile&) = delete;

 private:
  struct Handle;
  std::unique_ptr<Handle> handle_;
};

// Whether this process has the file open.
bool isOpen(const std::filesystem::path& path);

// Whether memory can be found at the address.
bool isMapped(const void* address);

// Makes a file that holds `bytes` zero bytes and takes hardly any room.
void makeSparseFile(const std::filesystem::path& path, std::uint64_t bytes);

// The bytes of a text file whose lines are those of `text`.
std::string asStoredText(const std::string& text);

// A folder on another disk than the one for temporary files.
std::filesystem::path folderOnAnotherDisk();

}  // namespace support
