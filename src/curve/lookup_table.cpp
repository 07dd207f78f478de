#include "curve/lookup_table.h"

#include <exception>
#include <limits>

#include "base/log.h"

namespace curve {

LookupTable::LookupTable(std::uint32_t bitsPerSample, std::uint64_t entryCount)
    : bitsPerSample_(bitsPerSample), buffer_(entryCount * (bitsPerSample / 8)), entryCount_(entryCount) {}

std::shared_ptr<LookupTable> LookupTable::create(std::uint32_t bitsPerSample) {
  constexpr std::uint32_t kCountBits = std::numeric_limits<std::uint64_t>::digits;
  if ((bitsPerSample & 7) != 0 || bitsPerSample >= kCountBits) {
    return nullptr;
  }
  try {
    return std::shared_ptr<LookupTable>(new LookupTable(bitsPerSample, std::uint64_t{1} << bitsPerSample));
  } catch (const std::exception& exception) {
    base::logger().log(ember_logger::error, "[%s] there is no memory for a table of %u bits:%s", "LookupTable::create",
                       bitsPerSample, exception.what());
    return nullptr;
  }
}

}  // namespace curve
