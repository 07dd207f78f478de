#include "resize/resize_engine.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <mutex>
#include <span>
#include <thread>
#include <utility>
#include <vector>

#include "base/log.h"
#include "base/process_values.h"

namespace resize {
namespace {

using core::Direction;
using core::TileImage;

constexpr const char* kScale = "ResizeEngine::scale";
constexpr const char* kScaleSection = "ResizeEngine::scaleSection";
constexpr std::uint64_t kFewestSamplesForThreads = 0x4000000;
constexpr std::uint32_t kFewestRowsForThreads = 4096;
constexpr std::uint64_t kSectionUnit = 1024;
constexpr std::uint64_t kFewestRowsPerSection = 2048;
constexpr std::uint64_t kMostRowsWithoutThread = 512;

// Tells an image that a thread begins, and that it is done with it, whatever happens in between.
class ThreadIO {
 public:
  explicit ThreadIO(TileImage& image) : image_(image) { image_.beginCurrentThreadIO(); }
  ~ThreadIO() { image_.endCurrentThreadIO(); }
  ThreadIO(const ThreadIO&) = delete;
  ThreadIO& operator=(const ThreadIO&) = delete;

 private:
  TileImage& image_;
};

// The image that sections write into. They write the same rows, so that each row has to be written by one at a time.
class SharedDestination {
 public:
  explicit SharedDestination(TileImage& image) : image_(image) {}

  TileImage& image() { return image_; }

  bool write(std::uint32_t row, std::span<std::uint8_t> bytes) {
    const std::lock_guard lock(mutex_);
    return image_.copyRowData(row, 0, image_.width(), bytes.data(), bytes.size(), Direction::set);
  }

 private:
  TileImage& image_;
  std::mutex mutex_;
};

// Rows [0, dstY2): every section begins with the first row, and writes what the sections before it write once more,
// with the same bytes. Kept, as callers rely on it.
bool scaleSection(TileImage& source, SharedDestination& destination, ScanlineResizeEngine& engine,
                  std::uint32_t dstY2) {
  base::logger().log(ember_logger::trace, "[%s] thread! dstY1 - dstY2:[%u , %u)", kScaleSection, 0U, dstY2);
  const ThreadIO reading(source);
  const ThreadIO writing(destination.image());
  for (std::uint32_t row = 0; row < dstY2; ++row) {
    if (!engine.scaleRow(row)) {
      base::logger().log(ember_logger::error, "[%s] scaleRow failed!", kScaleSection);
      return false;
    }
    if (!destination.write(row, engine.row())) {
      base::logger().log(ember_logger::error, "[%s] dstImage setRowData failed!", kScaleSection);
      return false;
    }
  }
  base::logger().log(ember_logger::trace, "[%s] last row of the section is finished :%u", kScaleSection, dstY2 - 1);
  return true;
}

// One section and the thread that works on it.
class Worker {
 public:
  Worker(TileImage& source, SharedDestination& destination, std::shared_ptr<ScanlineResizeEngine> engine,
         std::uint32_t dstY2)
      : engine_(std::move(engine)), thread_([this, &source, &destination, dstY2] {
          try {
            succeeded_ = scaleSection(source, destination, *engine_, dstY2);
          } catch (const std::exception& exception) {
            base::logger().log(ember_logger::error, "[%s] throw exception:%s!", kScaleSection, exception.what());
          }
        }) {}
  ~Worker() { join(); }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  bool join() {
    if (thread_.joinable()) {
      thread_.join();
    }
    return succeeded_;
  }

 private:
  std::shared_ptr<ScanlineResizeEngine> engine_;
  bool succeeded_ = false;  // written by the thread, read when it is gone
  std::thread thread_;
};

bool scaleOnThreads(TileImage& source, SharedDestination& destination, std::shared_ptr<ScanlineResizeEngine> engine,
                    const Sections& sections) {
  std::vector<std::shared_ptr<ScanlineResizeEngine>> engines{std::move(engine)};
  while (engines.size() < sections.threadCount) {
    engines.push_back(engines.front()->clone());
    if (engines.back() == nullptr) {
      return false;
    }
  }
  std::vector<std::unique_ptr<Worker>> workers;
  for (std::uint32_t section = 0; section < sections.threadCount; ++section) {
    workers.push_back(std::make_unique<Worker>(source, destination, std::move(engines[section]),
                                               sections.endRow(section, destination.image().height())));
  }
  bool succeeded = true;
  for (const auto& worker : workers) {
    succeeded = worker->join() && succeeded;
  }
  return succeeded;
}

bool sameLayout(const TileImage& source, const TileImage& destination) {
  if (source.format().samplesPerPixel == destination.format().samplesPerPixel &&
      source.format().bitsPerSample == destination.format().bitsPerSample) {
    return true;
  }
  base::logger().log(ember_logger::error, "[%s] the images have different formats", kScale);
  return false;
}

}  // namespace

Sections Sections::of(std::uint32_t dstHeight, std::uint32_t processors) {
  const std::uint64_t perProcessor = (std::uint64_t{dstHeight} + processors - 1) / processors;
  const std::uint64_t rows =
      (std::max(perProcessor, kFewestRowsPerSection) + kSectionUnit - 1) / kSectionUnit * kSectionUnit;
  std::uint64_t threads = (dstHeight + rows - 1) / rows;
  const std::uint64_t rest = dstHeight % rows;
  if (rest != 0 && threads >= 2 && rest <= kMostRowsWithoutThread) {
    --threads;
  }
  return {static_cast<std::uint32_t>(threads), static_cast<std::uint32_t>(std::min<std::uint64_t>(rows, UINT32_MAX))};
}

bool ResizeEngine::usesThreads(const core::PixelFormat& format, const Rectangle& source) {
  const std::uint64_t samples =
      std::uint64_t{format.bitsPerPixel} * source.height() * source.width() / format.bitsPerSample;
  return samples >= kFewestSamplesForThreads && source.height() >= kFewestRowsForThreads;
}

bool ResizeEngine::scale(TileImage& srcImage, const Rectangle& source, TileImage& dstImage, std::uint32_t filter) {
  auto engine = ScanlineResizeEngine::__create(srcImage, source, dstImage.width(), dstImage.height(), filter);
  if (engine == nullptr || !sameLayout(srcImage, dstImage)) {
    return false;
  }
  SharedDestination destination(dstImage);
  const Sections sections = Sections::of(dstImage.height(), base::processorCount());
  try {
    if (!usesThreads(srcImage.format(), source) || sections.threadCount == 1) {
      base::logger().log(ember_logger::info, "[%s] no use multi thread", kScale);
      return scaleSection(srcImage, destination, *engine, dstImage.height());
    }
    base::logger().log(ember_logger::info, "[%s] use multi thread. thread count:%u! rowsPerSection:%u", kScale,
                       sections.threadCount, sections.rowsPerSection);
    return scaleOnThreads(srcImage, destination, std::move(engine), sections);
  } catch (const std::exception& exception) {
    base::logger().log(ember_logger::error, "[%s] throw exception:%s!", kScale, exception.what());
    return false;
  }
}

}  // namespace resize
