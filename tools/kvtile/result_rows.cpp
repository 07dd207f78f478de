#include "result_rows.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <semaphore>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "errors.h"
#include "progress.h"

namespace kvtile {
namespace {

// What a band may take. Each band begins by reading the rows under its kernel that the band before it has read too, so
// that narrow ones would read much twice.
constexpr std::uint64_t kBandBytes = std::uint64_t{4} << 20;
constexpr std::uint64_t kFewestBandRows = 16;
constexpr std::uint32_t kBandsPerThread = 2;         // one is written while the other is made
constexpr std::chrono::milliseconds kPatience(100);  // between looks at whether to stop

// The pixels of the area as they are.
class CroppedRows : public ResultRows {
 public:
  CroppedRows(Image& image, const Resizing& resizing)
      : image_(image), area_(resizing.area), row_(resizing.picture.rowBytes()), y_(area_.y) {}

  std::span<std::uint8_t> next() override {
    image_.getRow(y_++, area_.x, area_.x + area_.width, row_);
    return row_;
  }

 private:
  Image& image_;
  Area area_;
  std::vector<std::uint8_t> row_;
  std::uint32_t y_;
};

class RescaledRows : public ResultRows {
 public:
  RescaledRows(Image& image, const Resizing& resizing) : scaler_(image, resizing), row_(resizing.picture.rowBytes()) {}

  std::span<std::uint8_t> next() override {
    scaler_.getRow(y_++, row_);
    return row_;
  }

 private:
  RowScaler scaler_;
  std::vector<std::uint8_t> row_;
  std::uint32_t y_ = 0;
};

// How the rows of the result are cut into bands.
struct Bands {
  std::uint64_t rowBytes;
  std::uint32_t rows;  // of the result
  std::uint32_t rowsPerBand;

  Bands(const Picture& picture, std::uint32_t threads) : rowBytes(picture.rowBytes()), rows(picture.height) {
    const std::uint64_t share = (std::uint64_t{rows} + threads - 1) / threads;
    rowsPerBand = static_cast<std::uint32_t>(std::min(std::max(kBandBytes / rowBytes, kFewestBandRows), share));
  }

  std::uint32_t count() const {
    return static_cast<std::uint32_t>((std::uint64_t{rows} + rowsPerBand - 1) / rowsPerBand);
  }
  std::uint32_t begin(std::uint32_t band) const { return band * rowsPerBand; }
  std::uint32_t end(std::uint32_t band) const {
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(rows, (std::uint64_t{band} + 1) * rowsPerBand));
  }
};

// Makes every `step`-th band, from band `first` on, on a thread of its own.
class BandMaker {
 public:
  BandMaker(Image& image, const Resizing& resizing, const Bands& bands, std::uint32_t first, std::uint32_t step)
      : image_(image), bands_(bands), scaler_(image, resizing), thread_([this, first, step] { work(first, step); }) {}

  ~BandMaker() {
    stopped_ = true;
    free_.release();
    thread_.join();
  }
  BandMaker(const BandMaker&) = delete;
  BandMaker& operator=(const BandMaker&) = delete;

  // The next of the bands, when it is made. Throws what its making threw.
  std::span<std::uint8_t> take() {
    while (!made_.try_acquire_for(kPatience)) {
      Progress::check();
    }
    if (failed_) {
      std::rethrow_exception(failure_);
    }
    return buffers_[taken_++ % kBandsPerThread];
  }

  // The band that was taken last is no longer wanted.
  void giveBack() { free_.release(); }

 private:
  void work(std::uint32_t first, std::uint32_t step) noexcept {
    try {
      std::uint32_t made = 0;
      for (std::uint64_t band = first; band < bands_.count(); band += step) {
        free_.acquire();
        make(static_cast<std::uint32_t>(band), buffers_[made++ % kBandsPerThread]);
        if (stopped_) {
          break;
        }
        made_.release();
      }
    } catch (...) {
      failure_ = std::current_exception();
      failed_ = true;
      made_.release();
    }
    image_.endThread();
  }

  void make(std::uint32_t band, std::vector<std::uint8_t>& buffer) {
    buffer.resize(bands_.rowBytes * bands_.rowsPerBand);
    std::span<std::uint8_t> rest(buffer);
    for (std::uint32_t y = bands_.begin(band); y < bands_.end(band) && !stopped_; ++y) {
      scaler_.getRow(y, rest.first(bands_.rowBytes));
      rest = rest.subspan(bands_.rowBytes);
    }
  }

  Image& image_;
  const Bands& bands_;
  RowScaler scaler_;
  std::vector<std::uint8_t> buffers_[kBandsPerThread];
  std::uint32_t taken_ = 0;
  std::exception_ptr failure_;  // set before failed_ tells of it
  std::atomic<bool> failed_ = false;
  std::atomic<bool> stopped_ = false;
  std::counting_semaphore<> free_{kBandsPerThread};
  std::counting_semaphore<> made_{0};
  std::thread thread_;
};

// Bands are made by threads in turn and handed out in order.
class ParallelRows : public ResultRows {
 public:
  ParallelRows(Image& image, const Resizing& resizing) : bands_(resizing.picture, resizing.threads) {
    const std::uint32_t makers = std::min(resizing.threads, bands_.count());
    for (std::uint32_t i = 0; i < makers; ++i) {
      Progress::check();
      makers_.push_back(std::make_unique<BandMaker>(image, resizing, bands_, i, makers));
    }
  }

  std::span<std::uint8_t> next() override {
    if (rest_.empty()) {
      takeBand();
    }
    const std::span<std::uint8_t> row = rest_.first(bands_.rowBytes);
    rest_ = rest_.subspan(bands_.rowBytes);
    return row;
  }

 private:
  void takeBand() {
    if (band_ > 0) {
      maker(band_ - 1).giveBack();
    }
    const std::uint64_t bytes = bands_.rowBytes * (bands_.end(band_) - bands_.begin(band_));
    rest_ = maker(band_++).take().first(bytes);
  }

  BandMaker& maker(std::uint32_t band) { return *makers_[band % makers_.size()]; }

  Bands bands_;
  std::vector<std::unique_ptr<BandMaker>> makers_;
  std::uint32_t band_ = 0;  // the next one
  std::span<std::uint8_t> rest_;
};

}  // namespace

std::unique_ptr<ResultRows> makeResultRows(Image& image, const Resizing& resizing) {
  if (!resizing.scales) {
    return std::make_unique<CroppedRows>(image, resizing);
  }
  if (resizing.threads == 1) {
    return std::make_unique<RescaledRows>(image, resizing);
  }
  try {
    return std::make_unique<ParallelRows>(image, resizing);
  } catch (const std::system_error&) {
    throw Failure(image.file(), "the system starts no more threads", "run again with fewer --threads");
  }
}

}  // namespace kvtile
