// Rescaling whole images in memory on one thread, streamed row by row as a caller does.
//
// "MAdd/s" counts the multiplications and additions of the sums that define the samples, one of each for every source
// sample under a kernel: what the same work costs by another method compares in time. Run it with
// --benchmark_repetitions=5 --benchmark_report_aggregates_only=true and read the medians.
#include <benchmark/benchmark.h>

#include <cstdint>
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

struct Job {
  const char* name;
  std::uint32_t samples;
  std::uint32_t bits;
  std::uint32_t from;  // both sides, in pixels
  std::uint32_t to;
};

constexpr Job kJobs[] = {{"RGB8", 3, 8, 8000, 2000},
                         {"RGB8", 3, 8, 2000, 8000},
                         {"Gray16", 1, 16, 8000, 2000},
                         {"Gray16", 1, 16, 2000, 8000}};

struct Filter {
  const char* name;
  double width;
};

// By their codes.
constexpr Filter kFilters[] = {{"box", 0.5},      {"bicubic", 2.0},     {"bilinear", 1.0},
                               {"B-spline", 2.0}, {"Catmull-Rom", 2.0}, {"Lanczos-3", 3.0}};

Image noise(const Job& job) {
  KvTileImage_SetMaxMemoryStorageBytes(~std::uint64_t{0});
  Image image(KvTileImage_Alloc(job.from, job.from, job.samples, job.bits, KVTI_SAMPLEFORMAT_UINT, 0));
  if (image == nullptr) {
    throw std::runtime_error("no memory for the image");
  }
  std::vector<std::uint8_t> row(KvTileImage_GetRowScanlineSuitableBytes(image.get()));
  std::uint64_t place = 0;
  for (std::uint32_t y = 0; y < job.from; ++y) {
    for (std::uint8_t& byte : row) {
      byte = static_cast<std::uint8_t>(++place * 0x9E3779B97F4A7C15U >> 56);
    }
    KvTileImage_SetFullRowData(image.get(), y, row.data(), row.size());
  }
  return image;
}

// `state.range`: the job and the filter.
void streamRows(benchmark::State& state) {
  const Job& job = kJobs[state.range(0)];
  const auto filter = static_cast<std::uint32_t>(state.range(1));
  const Image image = noise(job);
  std::vector<std::uint8_t> row(std::size_t{job.to} * job.samples * job.bits / 8);
  bool computed = true;
  for (auto _ : state) {
    computed =
        computed && KvTileImage_BeginRescaleRowScanline(image.get(), 0, 0, job.from, job.from, job.to, job.to, filter);
    for (std::uint32_t y = 0; y < job.to; ++y) {
      computed = computed && KvTileImage_RescaleRowScanline(image.get(), y, row.data(), row.size());
    }
    KvTileImage_EndRescaleRowScanline(image.get());
  }
  if (!computed) {
    state.SkipWithError("a row was refused");
    return;
  }
  // Source pixels under the kernel in one direction, the edges of the image aside.
  const double taps = 2 * kFilters[filter].width * (job.from > job.to ? job.from / job.to : 1);
  const double samples = static_cast<double>(job.to) * job.to * job.samples;
  state.counters["MAdd/s"] =
      benchmark::Counter(samples * taps * taps * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.SetLabel(std::string(job.name) + " " + std::to_string(job.from) + " to " + std::to_string(job.to) + ", " +
                 kFilters[filter].name);
}

BENCHMARK(streamRows)->ArgsProduct({{0, 1, 2, 3}, {0, 1, 2, 3, 4, 5}})->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
