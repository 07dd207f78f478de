#include "platform/processor.h"

namespace platform {

bool processorHasAvx2() noexcept { return __builtin_cpu_supports("avx2") != 0; }

bool processorHasAvx512Vbmi() noexcept {
  return __builtin_cpu_supports("avx512f") != 0 && __builtin_cpu_supports("avx512bw") != 0 &&
         __builtin_cpu_supports("avx512vbmi") != 0;
}

}  // namespace platform
