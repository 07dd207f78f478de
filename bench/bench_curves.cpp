// Tone curves in place, beside a plain loop over one flat buffer and OpenCV's LUT, in the same run.
//
// Every benchmark changes all samples of one image, so "bytes_per_second" compares across the lines of a format. Run it
// with --benchmark_repetitions=5 --benchmark_report_aggregates_only=true and read the medians.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <opencv2/core.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "kvtileimage/KvTileImage.h"

namespace {

constexpr std::uint32_t kWidth = 12000;
constexpr std::uint32_t kHeight = 8000;
constexpr std::uint32_t kSamples = 3;
constexpr std::size_t kRowSamples = std::size_t{kWidth} * kSamples;
constexpr std::size_t kImageSamples = kRowSamples * kHeight;

template <typename Sample>
constexpr std::uint32_t kBits = sizeof(Sample) * 8;

struct Unload {
  void operator()(TileImageHandle* image) const { KvTileImage_Unload(image); }
};
using Image = std::unique_ptr<TileImageHandle, Unload>;

struct Destroy {
  void operator()(LookupTableHandle* table) const { KvTileImage_DestroyLookupTable(table); }
};
using Table = std::unique_ptr<LookupTableHandle, Destroy>;

// What a sample starts as: all values, in no order that a processor could learn.
template <typename Sample>
Sample noise(std::size_t index) {
  return static_cast<Sample>((index * 0x9E3779B97F4A7C15U) >> 40);
}

// A curve that changes every value, so that no run finds its work done by the one before.
template <typename Sample>
std::vector<Sample> curveEntries() {
  std::vector<Sample> entries(std::size_t{1} << kBits<Sample>);
  for (std::size_t i = 0; i < entries.size(); ++i) {
    entries[i] = static_cast<Sample>(i * 167 + 13);
  }
  return entries;
}

template <typename Sample>
Table curveTable() {
  const std::vector<Sample> entries = curveEntries<Sample>();
  return Table(KvTileImage_CreateLookupTable_ByteStream(
      kBits<Sample>, reinterpret_cast<const std::uint8_t*>(entries.data()), entries.size() * sizeof(Sample)));
}

template <typename Sample>
std::vector<Sample> filledBuffer() {
  std::vector<Sample> samples(kImageSamples);
  for (std::size_t i = 0; i < samples.size(); ++i) {
    samples[i] = noise<Sample>(i);
  }
  return samples;
}

template <typename Sample>
Image filledImage() {
  KvTileImage_SetMaxMemoryStorageBytes(~std::uint64_t{0});
  Image image(KvTileImage_Alloc(kWidth, kHeight, kSamples, kBits<Sample>, KVTI_SAMPLEFORMAT_UINT, 0));
  if (image == nullptr) {
    throw std::runtime_error("no memory for the image");
  }
  std::vector<Sample> row(kRowSamples);
  for (std::uint32_t y = 0; y < kHeight; ++y) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      row[i] = noise<Sample>(y * kRowSamples + i);
    }
    KvTileImage_SetFullRowData(image.get(), y, reinterpret_cast<const std::uint8_t*>(row.data()),
                               row.size() * sizeof(Sample));
  }
  return image;
}

template <typename Sample>
void finish(benchmark::State& state) {
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kImageSamples * sizeof(Sample)));
  state.SetLabel("12000 x 8000, 3 x " + std::to_string(kBits<Sample>) + " bits");
}

// The limit: every row to a row buffer and back.
template <typename Sample>
void copyRows(benchmark::State& state) {
  const Image image = filledImage<Sample>();
  std::vector<std::uint8_t> row(kRowSamples * sizeof(Sample));
  bool moved = true;
  for (auto _ : state) {
    for (std::uint32_t y = 0; y < kHeight; ++y) {
      moved = moved && KvTileImage_GetFullRowData(image.get(), y, row.data(), row.size()) &&
              KvTileImage_SetFullRowData(image.get(), y, row.data(), row.size());
    }
  }
  if (!moved) {
    state.SkipWithError("a transfer was refused");
  }
  finish<Sample>(state);
}

template <typename Sample>
void allChannels(benchmark::State& state) {
  const Image image = filledImage<Sample>();
  const Table table = curveTable<Sample>();
  bool adjusted = true;
  for (auto _ : state) {
    adjusted = adjusted && KvTileImage_AdjustCurveOfAllChannels(image.get(), table.get(), nullptr);
  }
  if (!adjusted) {
    state.SkipWithError("the curve was refused");
  }
  finish<Sample>(state);
}

// A table for each of the first `state.range(0)` channels.
template <typename Sample>
void someChannels(benchmark::State& state) {
  const Image image = filledImage<Sample>();
  const Table table = curveTable<Sample>();
  const Table map(KvTileImage_CreateLookupTableMap(kBits<Sample>));
  for (std::uint32_t channel = 0; channel < static_cast<std::uint32_t>(state.range(0)); ++channel) {
    KvTileImage_InsertLookupTable(map.get(), table.get(), channel);
  }
  bool adjusted = true;
  for (auto _ : state) {
    adjusted = adjusted && KvTileImage_AdjustCurveOfSomeChannels(image.get(), map.get(), nullptr);
  }
  if (!adjusted) {
    state.SkipWithError("the curves were refused");
  }
  finish<Sample>(state);
}

template <typename Sample>
void plainLoop(benchmark::State& state) {
  std::vector<Sample> samples = filledBuffer<Sample>();
  const std::vector<Sample> entries = curveEntries<Sample>();
  for (auto _ : state) {
    for (Sample& sample : samples) {
      sample = entries[sample];
    }
    benchmark::DoNotOptimize(samples.data());
    benchmark::ClobberMemory();
  }
  finish<Sample>(state);
}

// OpenCV has no table for 16-bit samples. `state.range(0)` threads.
void openCvLut(benchmark::State& state) {
  cv::setNumThreads(static_cast<int>(state.range(0)));
  std::vector<std::uint8_t> samples = filledBuffer<std::uint8_t>();
  std::vector<std::uint8_t> entries = curveEntries<std::uint8_t>();
  cv::Mat image(static_cast<int>(kHeight), static_cast<int>(kWidth), CV_8UC3, samples.data());
  const cv::Mat table(1, 256, CV_8U, entries.data());
  for (auto _ : state) {
    cv::LUT(image, table, image);
    benchmark::ClobberMemory();
  }
  finish<std::uint8_t>(state);
}

BENCHMARK_TEMPLATE(copyRows, std::uint8_t)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(allChannels, std::uint8_t)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(someChannels, std::uint8_t)->DenseRange(1, 3)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(plainLoop, std::uint8_t)->Unit(benchmark::kMillisecond);
BENCHMARK(openCvLut)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_TEMPLATE(copyRows, std::uint16_t)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(allChannels, std::uint16_t)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(someChannels, std::uint16_t)->DenseRange(1, 3)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(plainLoop, std::uint16_t)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
