#include "storage/file_mapping_block.h"

#include <exception>
#include <string>
#include <system_error>

#include "base/log.h"
#include "storage/file_mapping_storage_strategy.h"

namespace storage {

using base::ull;

namespace {

constexpr const char* kEnsureValidAndUse = "FileMappingBlock::ensureValidAndUse";

void logFailedMapping(const std::exception& exception) {
  base::logger().log(ember_logger::error, "[%s] ensureValid failed [reason: exception %s]", kEnsureValidAndUse,
                     exception.what());
}

// What the system says; left out where there is no memory for it.
void logSystemsReason(const std::string& file, std::uint64_t bytes, std::uint32_t errorCode) noexcept {
  try {
    const std::string reason = std::system_category().message(static_cast<int>(errorCode));
    base::logger().log(ember_logger::error, "[%s] %llu bytes of %s cannot be mapped: %s", kEnsureValidAndUse,
                       ull{bytes}, file.c_str(), reason.c_str());
  } catch (const std::exception&) {
  }
}

}  // namespace

std::uint8_t* FileMappingBlock::load() {
  constexpr const char* kName = "FileMappingBlock::load";
  std::uint8_t* const bytes = buf_;
  if (useCount_ == 0) {
    base::logger().log(ember_logger::error,
                       "[%s] useCount_ is zero, buf addr is %p check your code! rowIndex:%llu colIndex:%llu", kName,
                       static_cast<const void*>(bytes), ull{rowIndex_}, ull{colIndex_});
    return nullptr;
  }
  if (bytes == nullptr) {
    base::logger().log(ember_logger::error, "[%s] buf_ is nullptr, check your code! rowIndex:%llu colIndex:%llu", kName,
                       ull{rowIndex_}, ull{colIndex_});
  }
  return bytes;
}

bool FileMappingBlock::map() {
  try {
    region_ = std::make_shared<win_interprocess::mapped_region>(owner_.file(fileIndex_), win_interprocess::kReadWrite,
                                                                offset_, size());
    buf_ = region_->address();
    return true;
  } catch (const win_interprocess::interprocess_exception& exception) {
    logFailedMapping(exception);
    logSystemsReason(owner_.file(fileIndex_).name(), size(), exception.error_code());
  } catch (const std::exception& exception) {
    logFailedMapping(exception);
  }
  return false;
}

bool FileMappingBlock::ensureValidAndUse(bool bWrite) {
  const std::lock_guard lock(mutex_);
  if (region_ == nullptr && !map()) {
    return false;
  }
  write_ = write_ || bWrite;
  ++useCount_;
  return true;
}

bool FileMappingBlock::tryFlushAndResetMappedRegion() {
  const std::lock_guard lock(mutex_);
  if (useCount_ == 0) {
    base::logger().log(ember_logger::warning, "[%s] block is already flushed and reset,check your code",
                       "FileMappingBlock::tryFlushAndResetMappedRegion");
    return true;
  }
  if (--useCount_ > 0) {
    return false;
  }
  if (region_ == nullptr) {
    return false;
  }
  if (write_) {
    owner_.flusher().flush(region_, rowIndex_, colIndex_);
    write_ = false;
  }
  buf_ = nullptr;
  region_.reset();
  return true;
}

}  // namespace storage
