// A file of the user's, read or written through 64-bit positions, with the reason of the first failure kept.
#ifndef KVTILE_FILE_H
#define KVTILE_FILE_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

namespace kvtile {

// Made for the callbacks of the codecs, which are C: past construction nothing throws, failures show in the results
// and stay in error().
class File {
 public:
  // Throws a Failure that names `path` where there is no such file, where it is not an ordinary file, or where it may
  // not be read.
  static File openForReading(const std::string& path);

  // For reading and writing; throws a Failure that calls the file `shownAs`.
  static File createExclusively(const std::string& path, const std::string& shownAs);

  // Bytes read: fewer than `bytes` at the end of the file or after an error. Stops early, as by an error, when the
  // program is asked to stop.
  std::size_t read(void* data, std::size_t bytes) noexcept;

  // Reads from `offset` on; moves the position like read().
  std::size_t readAt(std::uint64_t offset, void* data, std::size_t bytes) noexcept;

  // True if all bytes were taken.
  bool write(const void* data, std::size_t bytes) noexcept;

  // `whence` as for fseek. The new position, or -1.
  std::int64_t seek(std::int64_t offset, int whence) noexcept;

  // Bytes from the start to the end, or 0.
  std::uint64_t size() noexcept;

  bool flush() noexcept;

  // Flushes and waits for the disk.
  bool sync() noexcept;

  // True if everything that was written has been taken by the system.
  bool close() noexcept;

  // The errno value of the first failure, else 0.
  int error() const noexcept { return error_; }

  std::FILE* stream() noexcept { return stream_.get(); }

 private:
  struct Closer {
    void operator()(std::FILE* stream) const noexcept { std::fclose(stream); }
  };
  enum class LastUse { None, Read, Write };

  explicit File(std::FILE* stream) : stream_(stream) {}

  // C streams want a seek between reading and writing.
  bool prepareFor(LastUse use) noexcept;
  void keepError() noexcept;

  std::unique_ptr<std::FILE, Closer> stream_;
  LastUse lastUse_ = LastUse::None;
  int error_ = 0;
};

}  // namespace kvtile

#endif
