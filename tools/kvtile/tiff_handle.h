// libtiff on a File of ours, its messages kept from the user's eyes until they are needed.
#ifndef KVTILE_TIFF_HANDLE_H
#define KVTILE_TIFF_HANDLE_H

#include <tiffio.h>

#include <array>
#include <cstdarg>
#include <cstdint>
#include <memory>
#include <string>

#include "console.h"
#include "file.h"

namespace kvtile {

class TiffHandle {
 public:
  // `mode` as for TIFFOpen. `file` has to outlive the handle. get() is null if libtiff refuses the file.
  // `largestAllocation` bounds each single buffer that libtiff makes, 0 for no bound.
  TiffHandle(File& file, const std::string& name, const char* mode, std::uint64_t largestAllocation, Console& console);
  TiffHandle(const TiffHandle&) = delete;
  TiffHandle& operator=(const TiffHandle&) = delete;

  TIFF* get() const { return tiff_.get(); }

  // True once libtiff has reported an error since the last forget(), or a warning that means that pixels were lost:
  // some decoders carry on with invented pixels.
  bool failed() const { return failed_; }
  void forget() {
    failed_ = false;
    reason_.fill('\0');
  }

  // What libtiff said first, " (...)" to be appended to a sentence, or nothing.
  std::string reason() const;

  // Writes what is still in memory and releases the handle. False if anything has failed.
  bool close();

 private:
  struct Closer {
    void operator()(TIFF* tiff) const noexcept { TIFFClose(tiff); }
  };

  static int onError(TIFF*, void* self, const char* module, const char* format, va_list arguments);
  static int onWarning(TIFF*, void* self, const char* module, const char* format, va_list arguments);
  void fail(const char* text) noexcept;
  void detail(const char* text) noexcept;

  Console& console_;
  bool failed_ = false;
  std::array<char, 200> reason_ = {};  // filled from C code, where no exception may pass
  std::unique_ptr<TIFF, Closer> tiff_;
};

}  // namespace kvtile

#endif
