#include "curve/lookup_table_map.h"

#include <new>
#include <utility>

#include "base/log.h"

namespace curve {

std::shared_ptr<LookupTableMap> LookupTableMap::create(std::uint32_t bitsPerSample) {
  if (bitsPerSample != 8 && bitsPerSample != 16) {
    return nullptr;
  }
  try {
    return std::shared_ptr<LookupTableMap>(new LookupTableMap(bitsPerSample));
  } catch (const std::bad_alloc&) {
    base::logger().log(ember_logger::error, "[%s] there is no memory for a map", "LookupTableMap::create");
    return nullptr;
  }
}

bool LookupTableMap::insert(std::uint32_t channel, std::shared_ptr<const LookupTable> table) {
  constexpr const char* kName = "LookupTableMap::insert";
  if (table == nullptr || table->bitsPerSample() != bitsPerSample_) {
    base::logger().log(ember_logger::error, "[%s] !lookupTable || lookupTable->bitsPerSample() != bitsPerSample_",
                       kName);
    return false;
  }
  try {
    tables_.insert_or_assign(channel, std::move(table));
    return true;
  } catch (const std::bad_alloc&) {
    base::logger().log(ember_logger::error, "[%s] there is no memory for a table of channel %u", kName, channel);
    return false;
  }
}

}  // namespace curve
