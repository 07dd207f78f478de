// The application of tables to images.
#include <exception>
#include <new>
#include <stdexcept>
#include <vector>

#include "base/log.h"
#include "curve/curve_engine.h"
#include "curve/lookup_kernels.h"

namespace curve {
namespace {

using core::Direction;
using core::ProgressCallback;
using core::TileImage;

// Whether a table or a map of `tableBits`, which messages call `what`, can be applied from one image to the other.
bool fitEachOther(const TileImage& source, const TileImage& destination, std::uint32_t tableBits, const char* what,
                  const char* function) {
  const std::uint32_t imageBits = source.format().bitsPerSample;
  if (tableBits != imageBits) {
    base::logger().log(ember_logger::error,
                       "[%s] bitsPerSample[%s]:%u bitsPerSample[tileImage]:%u is not same, please check your code.",
                       function, what, tableBits, imageBits);
    return false;
  }
  if (imageBits != 8 && imageBits != 16) {
    base::logger().log(ember_logger::error, "[%s] not support bitsPerSample:%u", function, imageBits);
    return false;
  }
  if (&source == &destination) {
    base::logger().log(ember_logger::debug, "[%s] srcImage is the same as dstImage", function);
    return true;
  }
  if (source.width() != destination.width() || source.height() != destination.height() ||
      source.format().samplesPerPixel != destination.format().samplesPerPixel ||
      imageBits != destination.format().bitsPerSample || source.sampleformat() != destination.sampleformat()) {
    base::logger().log(ember_logger::error, "[%s] check your code", function);
    return false;
  }
  return true;
}

// Moves every row from one image to the other, changed by `change(row)`.
template <typename Change>
bool transferRows(TileImage& source, TileImage& destination, const char* function, ProgressCallback progress,
                  Change change) {
  std::vector<std::uint8_t> row(source.format().suitableBytes(source.width()));
  for (std::uint32_t y = 0; y < source.height(); ++y) {
    if (!source.copyRowData(y, 0, source.width(), row.data(), row.size(), Direction::get)) {
      base::logger().log(ember_logger::error, "[%s] getRowData failed.", function);
      return false;
    }
    change(row);
    if (!destination.copyRowData(y, 0, source.width(), row.data(), row.size(), Direction::set)) {
      base::logger().log(ember_logger::error, "[%s] setRowData failed.", function);
      return false;
    }
    if (progress != nullptr) {
      progress(y, source.height());
    }
  }
  return true;
}

// What `work` returns, or false, with a logged reason, if it throws.
template <typename Work>
bool withoutExceptions(const char* function, Work work) {
  try {
    return work();
  } catch (const std::bad_alloc&) {
    base::logger().log(ember_logger::error, "[%s] there is no memory for a row of the image", function);
  } catch (const std::length_error&) {
    base::logger().log(ember_logger::error, "[%s] a row of the image is larger than any memory", function);
  } catch (...) {
    base::logger().log(ember_logger::error, "[%s] stopped by an exception of the progress callback", function);
  }
  return false;
}

// A table of one depth, ready for rows of it.
class RowCurve {
 public:
  explicit RowCurve(const LookupTable& table)
      : table_(table.buffer()), bytesPerSample_(table.bitsPerSample() / 8), kernels8_(kernels8()) {}

  void apply(std::vector<std::uint8_t>& row) const {
    if (bytesPerSample_ == 1) {
      kernels8_.lookUp(row.data(), row.size(), table_);
    } else {
      lookUp16(row.data(), row.size() / 2, table_);
    }
  }

  void applyToChannel(std::vector<std::uint8_t>& row, std::uint32_t samplesPerPixel, std::uint32_t channel) const {
    const std::uint64_t pixels = row.size() / bytesPerSample_ / samplesPerPixel;
    if (bytesPerSample_ == 1) {
      kernels8_.lookUpChannel(row.data(), pixels, samplesPerPixel, channel, table_);
    } else {
      lookUpChannel16(row.data(), pixels, samplesPerPixel, channel, table_);
    }
  }

 private:
  const std::uint8_t* table_;
  std::uint32_t bytesPerSample_;
  const LookupKernels8& kernels8_;
};

// The tables of a map for the channels that an image has, held while they are used: the map may change meanwhile.
class ChannelCurves {
 public:
  ChannelCurves(const LookupTableMap& map, std::uint32_t samplesPerPixel) : samplesPerPixel_(samplesPerPixel) {
    for (const auto& [channel, table] : map.tables()) {
      if (channel < samplesPerPixel) {
        channels_.push_back({channel, table, RowCurve(*table)});
      }
    }
  }

  void apply(std::vector<std::uint8_t>& row) const {
    for (const Channel& channel : channels_) {
      channel.curve.applyToChannel(row, samplesPerPixel_, channel.index);
    }
  }

 private:
  struct Channel {
    std::uint32_t index;
    LookupTablePointer table;
    RowCurve curve;
  };

  std::uint32_t samplesPerPixel_;
  std::vector<Channel> channels_;
};

}  // namespace

bool CurveEngine::adjustCurveOfAllChannels(TileImage& srcImage, TileImage& dstImage, const LookupTablePointer& table,
                                           ProgressCallback progress) {
  constexpr const char* kName = "CurveEngine::adjustCurveOfAllChannels";
  if (table == nullptr || !fitEachOther(srcImage, dstImage, table->bitsPerSample(), "lookupTable", kName)) {
    return false;
  }
  return withoutExceptions(kName, [&] {
    const RowCurve curve(*table);
    return transferRows(srcImage, dstImage, kName, progress,
                        [&curve](std::vector<std::uint8_t>& row) { curve.apply(row); });
  });
}

bool CurveEngine::adjustCurveOfSomeChannels(TileImage& srcImage, TileImage& dstImage,
                                            const std::shared_ptr<const LookupTableMap>& map,
                                            ProgressCallback progress) {
  constexpr const char* kName = "CurveEngine::adjustCurveOfSomeChannels";
  if (map == nullptr || !fitEachOther(srcImage, dstImage, map->bitsPerSample(), "lookupTableMap", kName)) {
    return false;
  }
  if (&srcImage == &dstImage && map->tables().empty()) {
    base::logger().log(ember_logger::warning, "[%s] lookupTableMap is empty, no need adjust curve.", kName);
    return true;
  }
  return withoutExceptions(kName, [&] {
    const ChannelCurves curves(*map, srcImage.format().samplesPerPixel);
    return transferRows(srcImage, dstImage, kName, progress,
                        [&curves](std::vector<std::uint8_t>& row) { curves.apply(row); });
  });
}

}  // namespace curve
