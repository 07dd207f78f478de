// libpng's structures and its way of failing, made safe for C++.
#ifndef KVTILE_PNG_HANDLE_H
#define KVTILE_PNG_HANDLE_H

#include <png.h>

#include <array>
#include <csetjmp>
#include <string>

#include "console.h"
#include "file.h"

namespace kvtile {

class PngHandle {
 public:
  enum class Use { Read, Write };

  // Throws std::bad_alloc. `file` has to outlive the handle.
  PngHandle(File& file, Use use, Console& console);
  ~PngHandle();
  PngHandle(const PngHandle&) = delete;
  PngHandle& operator=(const PngHandle&) = delete;

  png_structp png() const { return png_; }
  png_infop info() const { return info_; }

  // Runs `call`, which calls libpng; false if libpng failed.
  //
  // libpng leaves a failed call by longjmp. An exception would have to pass libpng's own frames, and whether they let
  // it through is decided by how libpng was compiled. A jump always gets here, but runs no destructors on its way:
  // `call` may capture references and numbers and must make no object that needs a destructor.
  template <typename Call>
  [[nodiscard]] bool attempt(const Call& call) {
    if (setjmp(png_jmpbuf(png_)) != 0) {
      return false;
    }
    call();
    return true;
  }

  // What libpng said when it failed, " (...)" to be appended to a sentence, or nothing.
  std::string reason() const;

 private:
  static void onError(png_structp png, png_const_charp text);
  static void onWarning(png_structp png, png_const_charp text);
  static void readFile(png_structp png, png_bytep data, std::size_t bytes);
  static void writeFile(png_structp png, png_bytep data, std::size_t bytes);
  static void flushFile(png_structp png);

  File& file_;
  Console& console_;
  Use use_;
  png_structp png_ = nullptr;
  png_infop info_ = nullptr;
  std::array<char, 200> reason_ = {};
};

}  // namespace kvtile

#endif
