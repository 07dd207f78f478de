// Security attributes that grant everyone access, prepared when the library is loaded.
#pragma once

#include <windows.h>

namespace platform {

// Made by the first call; null if the system refused. The record is valid while the library is loaded. Kept ready for
// the mapping layer, which opens files and mappings without security attributes on purpose: each object keeps its
// user's defaults.
const SECURITY_ATTRIBUTES* permissiveSecurityAttributes() noexcept;

}  // namespace platform
