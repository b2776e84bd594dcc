// The fake's side of services/hbext.h.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "services/hbext.h"

namespace fake {

// Where hbext_path puts relative names (default "/fake-root").
void set_root(const std::string &root);
// The counters last given to hbext_setrefused.
std::array<uint64_t, HBEXT_REFUSED_COUNT> refused();

} // namespace fake
