// The fake's binding of the operations beyond the platform (hbext.h).
#include "fake/fake_hbext.h"

#include <cstring>
#include <mutex>

namespace {
std::mutex mx;
std::string root = "/fake-root";
std::array<uint64_t, HBEXT_REFUSED_COUNT> counts{};
} // namespace

namespace fake {

void set_root(const std::string &r)
{
    std::lock_guard lk(mx);
    root = r;
}

std::array<uint64_t, HBEXT_REFUSED_COUNT> refused()
{
    std::lock_guard lk(mx);
    return counts;
}

} // namespace fake

extern "C" int32_t hbext_path(const char *name, char *out, int32_t size)
{
    std::lock_guard lk(mx);
    const std::string p = name[0] == '/' ? std::string(name) : root + "/" + name;
    if (size <= 0 || p.size() >= static_cast<size_t>(size))
        return 4;
    std::memcpy(out, p.c_str(), p.size() + 1);
    return 0;
}

extern "C" int32_t hbext_setrefused(const uint64_t *c)
{
    std::lock_guard lk(mx);
    std::memcpy(counts.data(), c, sizeof counts);
    return 0;
}
