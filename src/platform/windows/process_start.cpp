#include "platform/process_start.h"

#include "platform/windows/security_attributes.h"

namespace platform {

bool prepareProcess() noexcept { return permissiveSecurityAttributes() != nullptr; }

}  // namespace platform
