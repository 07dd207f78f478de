#include "pngs.h"

#include <csetjmp>
#include <cstdio>
#include <fstream>
#include <memory>
#include <stdexcept>

namespace support {
namespace {

struct Close {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, Close>;

File open(const std::string& path, const char* mode) {
  File file(std::fopen(path.c_str(), mode));
  if (file == nullptr) {
    throw std::runtime_error("cannot open " + path);
  }
  return file;
}

// No object with a destructor may be made from here down to libpng: it leaves by longjmp.
void setDescription(png_structp png, png_infop info, const Png& in) {
  if (in.icc.empty() && in.srgbIntent) {
    png_set_sRGB(png, info, *in.srgbIntent);
  }
  if (!in.icc.empty()) {
    png_set_iCCP(png, info, "profile", 0, reinterpret_cast<png_const_bytep>(in.icc.data()),
                 static_cast<png_uint_32>(in.icc.size()));
  }
  if (in.gamma) {
    png_set_gAMA_fixed(png, info, *in.gamma);
  }
  if (in.chromaticities) {
    const auto& c = *in.chromaticities;
    png_set_cHRM_fixed(png, info, c[0], c[1], c[2], c[3], c[4], c[5], c[6], c[7]);
  }
  if (in.physical) {
    png_set_pHYs(png, info, in.physical->x, in.physical->y, in.physical->unit);
  }
  if (!in.palette.empty()) {
    png_color colours[256];
    for (std::size_t i = 0; i < in.palette.size(); ++i) {
      colours[i] = {in.palette[i][0], in.palette[i][1], in.palette[i][2]};
    }
    png_set_PLTE(png, info, colours, static_cast<int>(in.palette.size()));
  }
  if (!in.paletteAlpha.empty()) {
    png_set_tRNS(png, info, in.paletteAlpha.data(), static_cast<int>(in.paletteAlpha.size()), nullptr);
  }
  if (in.colourKey) {
    const auto& key = *in.colourKey;
    const png_color_16 values = {0, key[0], key[1], key[2], key[0]};
    png_set_tRNS(png, info, nullptr, 0, &values);
  }
}

bool writeAll(png_structp png, png_infop info, const Png& in, png_bytepp rows) {
  if (setjmp(png_jmpbuf(png)) != 0) {
    return false;
  }
  png_set_IHDR(png, info, in.raster.width, in.raster.height, static_cast<int>(in.raster.bits), in.colourType,
               in.interlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  setDescription(png, info, in);
  png_write_info(png, info);
  png_set_swap(png);
  png_write_image(png, rows);
  png_write_end(png, info);
  return true;
}

bool readInfo(png_structp png, png_infop info) {
  if (setjmp(png_jmpbuf(png)) != 0) {
    return false;
  }
  png_read_info(png, info);
  png_set_swap(png);
  png_set_interlace_handling(png);
  png_read_update_info(png, info);
  return true;
}

bool readPixels(png_structp png, png_bytepp rows) {
  if (setjmp(png_jmpbuf(png)) != 0) {
    return false;
  }
  png_read_image(png, rows);
  png_read_end(png, nullptr);
  return true;
}

void describe(png_structp png, png_infop info, Png& out) {
  out.colourType = png_get_color_type(png, info);
  out.interlaced = png_get_interlace_type(png, info) == PNG_INTERLACE_ADAM7;
  png_colorp colours = nullptr;
  int count = 0;
  if (png_get_PLTE(png, info, &colours, &count) != 0) {
    for (int i = 0; i < count; ++i) {
      out.palette.push_back({colours[i].red, colours[i].green, colours[i].blue});
    }
  }
  png_bytep alpha = nullptr;
  png_color_16p key = nullptr;
  if (png_get_tRNS(png, info, &alpha, &count, &key) != 0) {
    if (out.colourType == PNG_COLOR_TYPE_PALETTE) {
      out.paletteAlpha.assign(alpha, alpha + count);
    } else if (out.colourType == PNG_COLOR_TYPE_GRAY) {
      out.colourKey = {key->gray, key->gray, key->gray};
    } else {
      out.colourKey = {key->red, key->green, key->blue};
    }
  }
  png_uint_32 x = 0;
  png_uint_32 y = 0;
  int unit = 0;
  if (png_get_pHYs(png, info, &x, &y, &unit) != 0) {
    out.physical = PngPhysical{x, y, unit};
  }
  png_charp name = nullptr;
  png_bytep profile = nullptr;
  png_uint_32 bytes = 0;
  int method = 0;
  if (png_get_iCCP(png, info, &name, &method, &profile, &bytes) != 0) {
    out.icc.assign(reinterpret_cast<const char*>(profile), bytes);
  }
  int intent = 0;
  if (png_get_sRGB(png, info, &intent) != 0) {
    out.srgbIntent = intent;
  }
  png_fixed_point gamma = 0;
  if (png_get_gAMA_fixed(png, info, &gamma) != 0) {
    out.gamma = gamma;
  }
  std::array<png_fixed_point, 8> c = {};
  if (png_get_cHRM_fixed(png, info, &c[0], &c[1], &c[2], &c[3], &c[4], &c[5], &c[6], &c[7]) != 0) {
    out.chromaticities = c;
  }
}

// A row pointer for each row of `rows`.
std::vector<png_bytep> pointers(std::vector<std::vector<std::uint8_t>>& rows) {
  std::vector<png_bytep> result;
  for (auto& row : rows) {
    result.push_back(row.data());
  }
  return result;
}

}  // namespace

Png pngOf(const Raster& raster) {
  constexpr int kTypes[] = {PNG_COLOR_TYPE_GRAY, PNG_COLOR_TYPE_GRAY_ALPHA, PNG_COLOR_TYPE_RGB,
                            PNG_COLOR_TYPE_RGB_ALPHA};
  Png png;
  png.raster = raster;
  png.colourType = kTypes[raster.samples - 1];
  return png;
}

Png palettePng(const Raster& indices) {
  Png png;
  png.raster = indices;
  png.colourType = PNG_COLOR_TYPE_PALETTE;
  for (std::uint64_t i = 0; i <= indices.highest(); ++i) {
    png.palette.push_back({static_cast<std::uint8_t>(i * 11 + 3), static_cast<std::uint8_t>(255 - i),
                           static_cast<std::uint8_t>(i * i + 1)});
  }
  return png;
}

void writePng(const std::string& path, const Png& in) {
  const File file = open(path, "wb");
  std::vector<std::vector<std::uint8_t>> rows;
  for (std::uint32_t y = 0; y < in.raster.height; ++y) {
    rows.push_back(packRow(in.raster, y, 0, in.raster.width));
  }
  std::vector<png_bytep> rowPointers = pointers(rows);
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  png_init_io(png, file.get());
  // Tests wait for these files, not for their size.
  png_set_compression_level(png, 1);
  png_set_filter(png, 0, PNG_FILTER_NONE);
  png_set_benign_errors(png, 1);  // profiles of photographs in use are not all flawless
  const bool good = writeAll(png, info, in, rowPointers.data());
  png_destroy_write_struct(&png, &info);
  if (!good) {
    throw std::runtime_error("libpng: cannot write " + path);
  }
}

Png readPng(const std::string& path) {
  const File file = open(path, "rb");
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  png_init_io(png, file.get());
  Png out;
  bool good = readInfo(png, info);
  if (good) {
    describe(png, info, out);
    out.raster = Raster(png_get_image_width(png, info), png_get_image_height(png, info), png_get_channels(png, info),
                        png_get_bit_depth(png, info));
    std::vector<std::vector<std::uint8_t>> rows(out.raster.height,
                                                std::vector<std::uint8_t>(png_get_rowbytes(png, info)));
    std::vector<png_bytep> rowPointers = pointers(rows);
    good = readPixels(png, rowPointers.data());
    for (std::uint32_t y = 0; good && y < out.raster.height; ++y) {
      unpackRow(rows[y], y, out.raster);
    }
  }
  png_destroy_read_struct(&png, &info, nullptr);
  if (!good) {
    throw std::runtime_error("libpng: cannot read " + path);
  }
  return out;
}

void fixChecksum(std::string& file, std::size_t chunk) {
  const std::size_t bytes = png_get_uint_32(reinterpret_cast<png_const_bytep>(&file[chunk]));
  // It is over the name and the data.
  const std::size_t end = chunk + 8 + bytes;
  std::uint32_t crc = 0xffffffff;
  for (std::size_t i = chunk + 4; i < end; ++i) {
    crc ^= static_cast<unsigned char>(file[i]);
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320U : 0);
    }
  }
  png_save_uint_32(reinterpret_cast<png_bytep>(&file[end]), ~crc);
}

std::vector<std::string> chunkNames(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  file.seekg(8);
  std::vector<std::string> names;
  std::array<unsigned char, 8> head = {};
  while (file.read(reinterpret_cast<char*>(head.data()), head.size())) {
    names.emplace_back(head.begin() + 4, head.end());
    const std::uint32_t length = png_get_uint_32(head.data());
    file.seekg(length + 4, std::ios::cur);
  }
  return names;
}

}  // namespace support
