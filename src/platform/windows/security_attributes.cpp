#include "platform/windows/security_attributes.h"

namespace platform {
namespace {

struct PermissiveSecurity {
  PermissiveSecurity() noexcept {
    // A list that is present but null lets everyone in; an absent one would mean the defaults.
    ready = InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION) != 0 &&
            SetSecurityDescriptorDacl(&descriptor, TRUE, nullptr, FALSE) != 0;
    attributes.nLength = sizeof(attributes);
    attributes.lpSecurityDescriptor = &descriptor;
    attributes.bInheritHandle = FALSE;
  }

  SECURITY_DESCRIPTOR descriptor{};
  SECURITY_ATTRIBUTES attributes{};
  bool ready = false;
};

}  // namespace

const SECURITY_ATTRIBUTES* permissiveSecurityAttributes() noexcept {
  static const PermissiveSecurity permissiveSecurity;
  return permissiveSecurity.ready ? &permissiveSecurity.attributes : nullptr;
}

}  // namespace platform
