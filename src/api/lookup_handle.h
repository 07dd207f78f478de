// The handles of lookup tables and of maps of them: cells of one form, so that one function releases both.
#pragma once

#include <memory>
#include <variant>

#include "base/log.h"
#include "curve/lookup_table.h"
#include "curve/lookup_table_map.h"

// A heap cell of one shared reference.
struct LookupHandle {
  std::variant<std::shared_ptr<const curve::LookupTable>, std::shared_ptr<curve::LookupTableMap>> reference;
};

namespace api {

// The table or the map of `handle`; null, with a line logged for `function`, if the handle holds the other kind, and
// without one if it is null.
template <typename Reference>
Reference referenceIn(const LookupHandle* handle, const char* function) {
  if (handle == nullptr) {
    return nullptr;
  }
  if (const auto* reference = std::get_if<Reference>(&handle->reference)) {
    return *reference;
  }
  base::logger().log(ember_logger::error, "[%s] the handle is that of a %s", function,
                     handle->reference.index() == 0 ? "lookup table; pass a map" : "lookup table map; pass a table");
  return nullptr;
}

inline std::shared_ptr<const curve::LookupTable> tableIn(const LookupHandle* handle, const char* function) {
  return referenceIn<std::shared_ptr<const curve::LookupTable>>(handle, function);
}

inline std::shared_ptr<curve::LookupTableMap> mapIn(const LookupHandle* handle, const char* function) {
  return referenceIn<std::shared_ptr<curve::LookupTableMap>>(handle, function);
}

}  // namespace api
