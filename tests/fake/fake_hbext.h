// The fake's side of services/hbext.h; reset with the rest of the fake.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "services/hbext.h"

namespace fake {

void set_root(const std::string &root); // where hbext_path puts relative names ("/fake-root")
std::array<uint64_t, HBEXT_REFUSED_COUNT> refused(); // the counters last given to hbext_setrefused

} // namespace fake
