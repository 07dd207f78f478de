// Which tables are for which channels.
#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "curve/lookup_table.h"

namespace curve {

// At most one table for each channel, the index of a sample in its pixel; all of one depth. Inserting must not overlap
// another use of the map.
class LookupTableMap {
 public:
  using Tables = std::map<std::uint32_t, std::shared_ptr<const LookupTable>>;

  // An empty map for tables of 8 or 16 bits. Null for other depths, and, with a logged reason, without memory.
  static std::shared_ptr<LookupTableMap> create(std::uint32_t bitsPerSample);

  std::uint32_t bitsPerSample() const { return bitsPerSample_; }

  // Puts `table` in the place of the one that the channel has, if any. False, with a logged reason and nothing changed,
  // if it is null or of another depth, or if there is no memory.
  bool insert(std::uint32_t channel, std::shared_ptr<const LookupTable> table);

  // By ascending channel; none of them is null.
  const Tables& tables() const { return tables_; }

 private:
  explicit LookupTableMap(std::uint32_t bitsPerSample) : bitsPerSample_(bitsPerSample) {}

  std::uint32_t bitsPerSample_;
  Tables tables_;
};

}  // namespace curve
