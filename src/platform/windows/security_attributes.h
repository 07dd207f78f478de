// Security attributes that grant everyone access, prepared once when the library is loaded.
#pragma once

#include <windows.h>

namespace platform {

// Null if the system refused to make them. The record is valid while the library is loaded. Kept ready for the mapping
// layer, which opens files and mappings without security attributes on purpose: each object keeps its user's defaults.
const SECURITY_ATTRIBUTES* permissiveSecurityAttributes() noexcept;

}  // namespace platform
