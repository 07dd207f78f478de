// What win_interprocess says when it refuses something.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/win_interprocess.h"

namespace support {

struct Refusal {
  std::string message;
  std::uint32_t code = 0;
};

// Nothing if the call succeeds.
template <class Call>
std::optional<Refusal> refusalOf(Call call) {
  try {
    call();
    return std::nullopt;
  } catch (const win_interprocess::interprocess_exception& exception) {
    return Refusal{exception.what(), exception.error_code()};
  }
}

}  // namespace support
