// Files mapped into memory: an existing file, and views of it. Every failure throws interprocess_exception; nothing is
// logged here. Objects take no lock: whoever shares one serialises its use.
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <string>

namespace win_interprocess {

class interprocess_exception : public std::exception {
 public:
  explicit interprocess_exception(std::string message) : interprocess_exception(std::move(message), 0) {}
  interprocess_exception(std::string message, std::uint32_t errorCode)
      : message_(std::move(message)), errorCode_(errorCode) {}

  const char* what() const noexcept override { return message_.c_str(); }

  // The system's number for what went wrong; 0 if it was not the system that refused.
  std::uint32_t error_code() const noexcept { return errorCode_; }

 private:
  std::string message_;
  std::uint32_t errorCode_;
};

// How a file is mapped.
inline constexpr std::uint32_t kReadOnly = 0;
inline constexpr std::uint32_t kReadWrite = 1;
inline constexpr std::uint32_t kCopyOnWrite = 2;  // what is written to a view stays in that view

// What stands for an open file or mapping. Where views need no open file, it only tells which file is meant, so that
// any number of files can be mapped.
struct HandleDeleter {
  void operator()(void* handle) const noexcept;
};
using shared_handle = std::shared_ptr<void>;

// A file that views can be made of. It must exist with its final size, at least one byte: nothing here makes, grows or
// truncates a file.
class file_mapping {
 public:
  // `fileName` is a narrow path (platform::narrowPath).
  file_mapping(const std::string& fileName, std::uint32_t mode);

  const std::string& name() const { return fileName_; }
  std::uint32_t mode() const { return mode_; }

  // Bytes of the file.
  std::int64_t size() const { return size_; }

  const shared_handle& file_handle() const { return fileHandle_; }
  const shared_handle& mapping_handle() const { return mappingHandle_; }

 private:
  std::string fileName_;
  std::uint32_t mode_;
  std::int64_t size_ = 0;
  shared_handle fileHandle_;
  shared_handle mappingHandle_;
};

// A view of a part of a file. It may outlive its file_mapping.
class mapped_region {
 public:
  // Bytes [offset, offset + size) of the file; a size of 0 means to its end. The offset may be any.
  mapped_region(const file_mapping& mapping, std::uint32_t mode, std::uint64_t offset, std::uint64_t size);
  ~mapped_region();
  mapped_region(const mapped_region&) = delete;
  mapped_region& operator=(const mapped_region&) = delete;

  // The first byte that was asked for.
  std::uint8_t* address() const { return address_; }

  // The bytes that were asked for.
  std::uint64_t size() const { return size_; }

  // Bytes that the view begins before `address`.
  std::uint64_t page_offset() const { return pageOffset_; }

  std::uint32_t mode() const { return mode_; }

  // Asks the system to write the view's changed bytes to the file. What it answers does not matter: readers of the file
  // see them already, and they are written at the latest after the view is gone.
  void flush() const noexcept;

 private:
  std::uint8_t* address_ = nullptr;
  std::uint64_t size_ = 0;
  std::uint64_t pageOffset_ = 0;
  std::uint64_t viewStart_ = 0;  // of the view, in the file
  std::uint32_t mode_;
  std::string fileName_;
  shared_handle fileHandle_;
};

}  // namespace win_interprocess
