// An image larger than memory, written by rows and read by columns: as tiles in files, or in one row-major
// memory-mapped file, which is what a program would do without this library. scripts/bench-out-of-core runs both under
// one limit.
//
//   bench_out_of_core tiles|row-major|row-major-advised WIDTH HEIGHT SAMPLES COLUMNS
//
// row-major-advised tells the system before the columns are read that it need not read ahead (MADV_RANDOM).
// 8-bit samples; COLUMNS columns, evenly spread in runs of 16, are read and compared (0: all).
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "kvtileimage/KvTileImage.h"

namespace {

constexpr std::uint32_t kRun = 16;  // neighbouring columns that are read together

struct Shape {
  std::uint32_t width;
  std::uint32_t height;
  std::uint32_t samples;

  std::uint64_t rowBytes() const { return std::uint64_t{width} * samples; }
  std::uint64_t bytes() const { return rowBytes() * height; }
};

std::uint8_t valueAt(std::uint64_t byteOfRow, std::uint32_t y) {
  return static_cast<std::uint8_t>(byteOfRow * 31 + y * 17);
}

class Store {
 public:
  Store() = default;
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;
  virtual ~Store() = default;
  virtual bool setRow(std::uint32_t y, const std::uint8_t* row) = 0;
  virtual bool getColumn(std::uint32_t x, std::uint8_t* column) = 0;
  virtual void expectColumns() {}
};

class Tiles final : public Store {
 public:
  explicit Tiles(const Shape& shape)
      : shape_(shape),
        image_(KvTileImage_Alloc(shape.width, shape.height, shape.samples, 8, KVTI_SAMPLEFORMAT_UINT, 1)) {
    if (image_ == nullptr) {
      throw std::runtime_error("the image cannot be made");
    }
  }
  bool setRow(std::uint32_t y, const std::uint8_t* row) override {
    return KvTileImage_SetFullRowData(image_.get(), y, row, shape_.rowBytes());
  }
  bool getColumn(std::uint32_t x, std::uint8_t* column) override {
    return KvTileImage_GetFullColData(image_.get(), x, column, std::uint64_t{shape_.height} * shape_.samples);
  }

 private:
  struct Unload {
    void operator()(TileImageHandle* image) const { KvTileImage_Unload(image); }
  };

  Shape shape_;
  std::unique_ptr<TileImageHandle, Unload> image_;
};

class RowMajorFile final : public Store {
 public:
  RowMajorFile(const Shape& shape, bool advised) : shape_(shape), advised_(advised) {
    char name[] = "/var/tmp/row-major-XXXXXX";
    const int file = mkstemp(name);
    unlink(name);
    if (file < 0 || fallocate(file, 0, 0, static_cast<off_t>(shape.bytes())) != 0) {
      throw std::runtime_error("/var/tmp has no room for the file");
    }
    bytes_ = static_cast<std::uint8_t*>(mmap(nullptr, shape.bytes(), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
    close(file);
    if (bytes_ == MAP_FAILED) {
      throw std::runtime_error("the file cannot be mapped");
    }
  }
  ~RowMajorFile() override { munmap(bytes_, shape_.bytes()); }

  bool setRow(std::uint32_t y, const std::uint8_t* row) override {
    std::memcpy(bytes_ + y * shape_.rowBytes(), row, shape_.rowBytes());
    return true;
  }
  bool getColumn(std::uint32_t x, std::uint8_t* column) override {
    const std::uint8_t* pixel = bytes_ + std::uint64_t{x} * shape_.samples;
    for (std::uint32_t y = 0; y < shape_.height; ++y) {
      column = std::copy_n(pixel, shape_.samples, column);
      pixel += shape_.rowBytes();
    }
    return true;
  }
  void expectColumns() override {
    if (advised_) {
      madvise(bytes_, shape_.bytes(), MADV_RANDOM);
    }
  }

 private:
  Shape shape_;
  bool advised_;
  std::uint8_t* bytes_;
};

void writeRows(Store& store, const Shape& shape) {
  std::vector<std::uint8_t> row(shape.rowBytes());
  for (std::uint32_t y = 0; y < shape.height; ++y) {
    for (std::uint64_t i = 0; i < row.size(); ++i) {
      row[i] = valueAt(i, y);
    }
    if (!store.setRow(y, row.data())) {
      throw std::runtime_error("row " + std::to_string(y) + " cannot be written");
    }
  }
}

void readColumn(Store& store, const Shape& shape, std::uint32_t x, std::vector<std::uint8_t>& column) {
  if (!store.getColumn(x, column.data())) {
    throw std::runtime_error("column " + std::to_string(x) + " cannot be read");
  }
  const std::uint8_t* sample = column.data();
  for (std::uint32_t y = 0; y < shape.height; ++y) {
    for (std::uint32_t channel = 0; channel < shape.samples; ++channel, ++sample) {
      if (*sample != valueAt(std::uint64_t{x} * shape.samples + channel, y)) {
        throw std::runtime_error("pixel " + std::to_string(x) + ", " + std::to_string(y) + " is not what was written");
      }
    }
  }
}

// The number of columns read.
std::uint32_t readColumns(Store& store, const Shape& shape, std::uint32_t columns) {
  std::vector<std::uint8_t> column(std::uint64_t{shape.height} * shape.samples);
  const bool all = columns == 0 || columns >= shape.width;
  const std::uint32_t runs = all ? 1 : std::max(columns / kRun, 1U);
  const std::uint32_t length = all ? shape.width : std::min(kRun, shape.width);
  std::uint32_t read = 0;
  for (std::uint64_t run = 0; run < runs; ++run) {
    const auto begin = static_cast<std::uint32_t>(run * (shape.width - length) / std::max(runs - 1, 1U));
    for (std::uint32_t x = begin; x < begin + length; ++x, ++read) {
      readColumn(store, shape, x, column);
    }
  }
  return read;
}

class Stopwatch {
 public:
  double seconds() {
    const auto now = std::chrono::steady_clock::now();
    const std::chrono::duration<double> passed = now - begin_;
    begin_ = now;
    return passed.count();
  }

 private:
  std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

std::uint32_t number(const char* text) { return static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10)); }

void run(const std::string& kind, const Shape& shape, std::uint32_t columns) {
  Stopwatch watch;
  std::unique_ptr<Store> store;
  if (kind == "tiles") {
    store = std::make_unique<Tiles>(shape);
  } else {
    store = std::make_unique<RowMajorFile>(shape, kind == "row-major-advised");
  }
  const double made = watch.seconds();
  writeRows(*store, shape);
  const double written = watch.seconds();
  store->expectColumns();
  const std::uint32_t read = readColumns(*store, shape, columns);
  const double readSeconds = watch.seconds();
  struct rusage usage {};
  getrusage(RUSAGE_SELF, &usage);
  std::printf(
      "%-17s %u x %u x %u: made in %.1f s, rows written in %.1f s, %u columns read in %.1f s (%.2f ms each); "
      "peak resident %.0f MB of %.0f MB, %ld faults read from disk\n",
      kind.c_str(), shape.width, shape.height, shape.samples, made, written, read, readSeconds,
      readSeconds * 1000 / read, static_cast<double>(usage.ru_maxrss) * 1024 / 1e6,
      static_cast<double>(shape.bytes()) / 1e6, usage.ru_majflt);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string kind = argc == 6 ? argv[1] : "";
  if (kind != "tiles" && kind != "row-major" && kind != "row-major-advised") {
    std::fprintf(stderr, "usage: bench_out_of_core tiles|row-major|row-major-advised WIDTH HEIGHT SAMPLES COLUMNS\n");
    return 2;
  }
  const Shape shape{number(argv[2]), number(argv[3]), number(argv[4])};
  if (shape.bytes() == 0) {
    std::fprintf(stderr, "bench_out_of_core: the sizes must be 1 or more\n");
    return 2;
  }
  try {
    run(kind, shape, number(argv[5]));
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench_out_of_core: %s\n", error.what());
    return 1;
  }
}
