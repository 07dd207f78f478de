#include "png_handle.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace kvtile {

PngHandle::PngHandle(File& file, Use use, Console& console) : file_(file), console_(console), use_(use) {
  if (use_ == Use::Read) {
    png_ = png_create_read_struct(PNG_LIBPNG_VER_STRING, this, onError, onWarning);
  } else {
    png_ = png_create_write_struct(PNG_LIBPNG_VER_STRING, this, onError, onWarning);
  }
  info_ = png_ == nullptr ? nullptr : png_create_info_struct(png_);
  if (info_ == nullptr) {
    png_destroy_read_struct(&png_, nullptr, nullptr);
    throw std::bad_alloc();
  }
  if (use_ == Use::Read) {
    png_set_read_fn(png_, &file_, readFile);
  } else {
    png_set_write_fn(png_, &file_, writeFile, flushFile);
  }
  // Sizes are bounded by what the file and the memory budget allow, not by a number.
  png_set_user_limits(png_, PNG_UINT_31_MAX, PNG_UINT_31_MAX);
  png_set_benign_errors(png_, 1);
}

PngHandle::~PngHandle() {
  if (use_ == Use::Read) {
    png_destroy_read_struct(&png_, &info_, nullptr);
  } else {
    png_destroy_write_struct(&png_, &info_);
  }
}

std::string PngHandle::reason() const {
  std::string text(reason_.data());
  // The line has one semicolon, before the advice.
  std::replace(text.begin(), text.end(), ';', ',');
  return text.empty() ? text : " (" + text + ")";
}

void PngHandle::onError(png_structp png, png_const_charp text) {
  auto& self = *static_cast<PngHandle*>(png_get_error_ptr(png));
  // The last byte stays zero.
  std::copy_n(text, std::min(std::strlen(text), self.reason_.size() - 1), self.reason_.begin());
  png_longjmp(png, 1);
}

void PngHandle::onWarning(png_structp png, png_const_charp text) {
  auto& self = *static_cast<PngHandle*>(png_get_error_ptr(png));
  try {
    self.console_.detail(std::string("libpng: ") + text);
  } catch (...) {
    // A detail that finds no memory is not worth a failure.
  }
}

void PngHandle::readFile(png_structp png, png_bytep data, std::size_t bytes) {
  if (static_cast<File*>(png_get_io_ptr(png))->read(data, bytes) != bytes) {
    png_error(png, "it ends too early");
  }
}

void PngHandle::writeFile(png_structp png, png_bytep data, std::size_t bytes) {
  if (!static_cast<File*>(png_get_io_ptr(png))->write(data, bytes)) {
    png_error(png, "it cannot be written");
  }
}

void PngHandle::flushFile(png_structp png) {
  if (!static_cast<File*>(png_get_io_ptr(png))->flush()) {
    png_error(png, "it cannot be written");
  }
}

}  // namespace kvtile
