// Throughput of row and column transfers of images in memory, beside memcpy of the same bytes in the same run.
//
// Every benchmark moves the pixels of one whole image, so "bytes_per_second" compares across the lines; divide by the
// line of memcpy. Run it with --benchmark_repetitions=5 --benchmark_report_aggregates_only=true and read the medians.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "kvtileimage/KvTileImage.h"

namespace {

struct Unload {
  void operator()(TileImageHandle* image) const { KvTileImage_Unload(image); }
};
using Image = std::unique_ptr<TileImageHandle, Unload>;

// Samples and bits of a pixel, and an image of about 96 MB.
struct Format {
  std::uint32_t samples;
  std::uint32_t bits;
  std::uint32_t width;
  std::uint32_t height;
};

constexpr Format kFormats[] = {{1, 8, 12000, 8000}, {3, 8, 8000, 4000},   {1, 16, 8000, 6000},
                               {4, 16, 4000, 3000}, {1, 1, 32000, 24000}, {1, 4, 16000, 12000}};

Format formatOf(const benchmark::State& state) { return kFormats[state.range(0)]; }

// A filled image: no page of it is touched for the first time while the clock runs.
Image filled(const Format& format) {
  KvTileImage_SetMaxMemoryStorageBytes(~std::uint64_t{0});
  Image image(KvTileImage_Alloc(format.width, format.height, format.samples, format.bits, KVTI_SAMPLEFORMAT_UINT, 0));
  if (image == nullptr) {
    throw std::runtime_error("no memory for the image");
  }
  const std::vector<std::uint8_t> row(KvTileImage_GetRowScanlineSuitableBytes(image.get()), 0x5A);
  for (std::uint32_t y = 0; y < format.height; ++y) {
    KvTileImage_SetFullRowData(image.get(), y, row.data(), row.size());
  }
  return image;
}

void finish(benchmark::State& state, const Format& format, bool moved) {
  if (!moved) {
    state.SkipWithError("a transfer was refused");
    return;
  }
  const std::uint64_t bytes = std::uint64_t{format.width} * format.height * format.samples * format.bits / 8;
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
  state.SetLabel(std::to_string(format.width) + " x " + std::to_string(format.height) + ", " +
                 std::to_string(format.samples) + " x " + std::to_string(format.bits) + " bits");
}

// The limit for rows: each row of one flat buffer to a row buffer.
void memcpyRows(benchmark::State& state) {
  const Format format = formatOf(state);
  const std::size_t rowBytes = std::size_t{format.width} * format.samples * format.bits / 8;
  const std::vector<std::uint8_t> source(rowBytes * format.height, 0x5A);
  std::vector<std::uint8_t> row(rowBytes);
  for (auto _ : state) {
    for (std::size_t y = 0; y < format.height; ++y) {
      std::memcpy(row.data(), source.data() + y * rowBytes, rowBytes);
      benchmark::DoNotOptimize(row.data());
      benchmark::ClobberMemory();
    }
  }
  finish(state, format, true);
}

enum class Scanline { row, column };

// Calls `move(image, index, buffer, bytes)` for every row or column of an image, with a buffer of a whole one.
template <class Move>
void everyScanline(benchmark::State& state, Scanline scanline, Move move) {
  const Format format = formatOf(state);
  const Image image = filled(format);
  const bool rows = scanline == Scanline::row;
  std::vector<std::uint8_t> buffer(rows ? KvTileImage_GetRowScanlineSuitableBytes(image.get())
                                        : KvTileImage_GetColScanlineSuitableBytes(image.get()));
  bool moved = true;
  for (auto _ : state) {
    for (std::uint32_t index = 0; index < (rows ? format.height : format.width); ++index) {
      moved = moved && move(image.get(), index, buffer.data(), buffer.size());
    }
  }
  finish(state, format, moved);
}

void getRows(benchmark::State& state) { everyScanline(state, Scanline::row, &KvTileImage_GetFullRowData); }
void setRows(benchmark::State& state) { everyScanline(state, Scanline::row, &KvTileImage_SetFullRowData); }
void getColumns(benchmark::State& state) { everyScanline(state, Scanline::column, &KvTileImage_GetFullColData); }
void setColumns(benchmark::State& state) { everyScanline(state, Scanline::column, &KvTileImage_SetFullColData); }

// Row runs that start at pixel 3: packed formats shift every bit.
void getShiftedRows(benchmark::State& state) {
  const std::uint32_t width = formatOf(state).width;
  everyScanline(state, Scanline::row,
                [width](TileImageHandle* image, std::uint32_t y, std::uint8_t* buffer, std::uint64_t bytes) {
                  return KvTileImage_GetRowData(image, y, 3, width, buffer, bytes);
                });
}

void allFormats(benchmark::internal::Benchmark* benchmark) {
  benchmark->DenseRange(0, static_cast<int>(std::size(kFormats)) - 1)->Unit(benchmark::kMillisecond);
}

BENCHMARK(memcpyRows)->Apply(allFormats);
BENCHMARK(getRows)->Apply(allFormats);
BENCHMARK(setRows)->Apply(allFormats);
BENCHMARK(getShiftedRows)->Apply(allFormats);
BENCHMARK(getColumns)->Apply(allFormats);
BENCHMARK(setColumns)->Apply(allFormats);

}  // namespace

BENCHMARK_MAIN();
