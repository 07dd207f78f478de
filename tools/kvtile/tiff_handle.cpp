#include "tiff_handle.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace kvtile {
namespace {

File& fileOf(thandle_t handle) { return *static_cast<File*>(handle); }

tmsize_t readFile(thandle_t handle, void* data, tmsize_t bytes) {
  return static_cast<tmsize_t>(fileOf(handle).read(data, static_cast<std::size_t>(bytes)));
}

tmsize_t writeFile(thandle_t handle, void* data, tmsize_t bytes) {
  return fileOf(handle).write(data, static_cast<std::size_t>(bytes)) ? bytes : -1;
}

toff_t seekFile(thandle_t handle, toff_t offset, int whence) {
  return static_cast<toff_t>(fileOf(handle).seek(static_cast<std::int64_t>(offset), whence));
}

// The File belongs to the caller.
int closeFile(thandle_t) { return 0; }

toff_t fileSize(thandle_t handle) { return fileOf(handle).size(); }

// Mapped pages would count as this process's memory, and a file that shrinks would end the process.
int mapNothing(thandle_t, void**, toff_t*) { return 0; }

void unmapNothing(thandle_t, void*, toff_t) {}

// Texts with which decoders say in a warning that they made pixels up.
bool tellsOfLostPixels(std::string_view text) {
  constexpr std::string_view kSigns[] = {"remature", "Corrupt", "corrupt", "Bad code", "ine length mismatch"};
  return std::any_of(std::begin(kSigns), std::end(kSigns),
                     [text](std::string_view sign) { return text.find(sign) != std::string_view::npos; });
}

struct FreeOptions {
  void operator()(TIFFOpenOptions* options) const noexcept { TIFFOpenOptionsFree(options); }
};

}  // namespace

TiffHandle::TiffHandle(File& file, const std::string& name, const char* mode, std::uint64_t largestAllocation,
                       Console& console)
    : console_(console) {
  const std::unique_ptr<TIFFOpenOptions, FreeOptions> options(TIFFOpenOptionsAlloc());
  if (options == nullptr) {
    return;
  }
  TIFFOpenOptionsSetErrorHandlerExtR(options.get(), &TiffHandle::onError, this);
  TIFFOpenOptionsSetWarningHandlerExtR(options.get(), &TiffHandle::onWarning, this);
  TIFFOpenOptionsSetMaxSingleMemAlloc(options.get(),
                                      static_cast<tmsize_t>(std::min<std::uint64_t>(largestAllocation, INT64_MAX)));
  tiff_.reset(TIFFClientOpenExt(name.c_str(), mode, &file, readFile, writeFile, seekFile, closeFile, fileSize,
                                mapNothing, unmapNothing, options.get()));
}

std::string TiffHandle::reason() const {
  std::string text(reason_.data());
  if (text.empty()) {
    return text;
  }
  // The line has one semicolon, before the advice.
  std::replace(text.begin(), text.end(), ';', ',');
  while (!text.empty() && (text.back() == '.' || text.back() == '\n' || text.back() == ' ')) {
    text.pop_back();
  }
  return " (" + text + ")";
}

bool TiffHandle::close() {
  const bool flushed = tiff_ == nullptr || TIFFFlush(tiff_.get()) != 0;
  tiff_.reset();
  return flushed && !failed_;
}

int TiffHandle::onError(TIFF*, void* self, const char*, const char* format, va_list arguments) {
  std::array<char, 200> text = {};
  std::vsnprintf(text.data(), text.size(), format, arguments);
  static_cast<TiffHandle*>(self)->fail(text.data());
  return 1;
}

int TiffHandle::onWarning(TIFF*, void* self, const char*, const char* format, va_list arguments) {
  std::array<char, 200> text = {};
  std::vsnprintf(text.data(), text.size(), format, arguments);
  if (tellsOfLostPixels(text.data())) {
    static_cast<TiffHandle*>(self)->fail(text.data());
  } else {
    static_cast<TiffHandle*>(self)->detail(text.data());
  }
  return 1;
}

void TiffHandle::fail(const char* text) noexcept {
  if (reason_[0] == '\0') {
    // The last byte stays zero.
    std::copy_n(text, std::min(std::strlen(text), reason_.size() - 1), reason_.begin());
  }
  failed_ = true;
  detail(text);
}

void TiffHandle::detail(const char* text) noexcept {
  try {
    console_.detail(std::string("libtiff: ") + text);
  } catch (...) {
    // A detail that finds no memory is not worth a failure.
  }
}

}  // namespace kvtile
