#include "platform/process_start.h"

namespace platform {

// Files and mappings take their access rights from the call that makes them.
bool prepareProcess() noexcept { return true; }

}  // namespace platform
