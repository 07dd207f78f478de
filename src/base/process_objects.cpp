// The objects that exist before the first call, made in the order in which they stand here.
#include <cstdint>

#include "base/log.h"
#include "base/process_values.h"
#include "platform/process_start.h"
#include "platform/system_info.h"

namespace base {
namespace {

constexpr std::uint32_t kReservedLogBytes = 0x100000;

[[maybe_unused]] const bool processPrepared = platform::prepareProcess();
const std::uint32_t processorsAtLoad = platform::processorCount();
const std::uint64_t granularityAtLoad = platform::allocationGranularity();
const std::uint64_t memoryAtLoad = platform::totalMemoryBytes();
ember_logger::Logger processLogger("KvTileImage", nullptr, ember_logger::error, false, false, false, true,
                                   kReservedLogBytes, nullptr, nullptr, nullptr);

}  // namespace

std::uint32_t processorCount() noexcept { return processorsAtLoad; }

std::uint64_t allocationGranularity() noexcept {
  return granularityAtLoad != 0 ? granularityAtLoad : platform::allocationGranularity();
}

std::uint64_t totalMemoryBytes() noexcept { return memoryAtLoad; }

ember_logger::Logger& logger() noexcept { return processLogger; }

}  // namespace base
