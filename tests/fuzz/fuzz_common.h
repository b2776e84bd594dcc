// Shared pieces of the fuzz targets: a driven clock, the fake's logs open,
// and a check that stops the fuzzer on a broken invariant.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>

#include "fake/fake_platform.h"
#include "frame/frame.h"

namespace fuzzcommon {

inline hbtick_t now = 1000;
inline hbtick_t fakenow() { return now; }

// A fresh fake platform with both logs open and the clock at a known tick.
inline void fresh()
{
    logterm();
    fake::reset();
    tckconf = 100;
    now = 1000;
    hbtick_source = fakenow;
    loginit();
}

// An invariant the input must never break: report and abort, so the fuzzer
// keeps the input as a finding.
inline void require(bool ok, const char *what)
{
    if (!ok) {
        std::fprintf(stderr, "invariant broken: %s\n", what);
        std::abort();
    }
}

inline bool svstat_ok(int32_t s)
{
    return s == SHMNM_SVSTAT_ONLINE || s == SHMNM_SVSTAT_OFFLINE || s == SHMNM_SVSTAT_UNKNOWN ||
           s == SHMNM_SVSTAT_UNUSED;
}

inline bool rscstat_ok(int32_t s)
{
    return s == -1 || s == SHMNM_RSCSTAT_NORMAL || s == SHMNM_RSCSTAT_CAUTION || s == SHMNM_RSCSTAT_ERROR ||
           s == SHMNM_RSCSTAT_UNKNOWN || s == SHMNM_RSCSTAT_UNUSED;
}

// A private ZEM_ROOT with etc/ and run/ for the platform's own files, made
// on first use and removed at exit.
inline const std::string &fuzzroot()
{
    static const std::string root = [] {
        char tmpl[] = "/tmp/zemfuzz-XXXXXX";
        const char *dir = mkdtemp(tmpl);
        require(dir != nullptr, "mkdtemp");
        const std::string made = dir;
        require(system(("mkdir -p " + made + "/etc " + made + "/run").c_str()) == 0, "mkdir");
        setenv("ZEM_ROOT", made.c_str(), 1);
        // The string may be gone by then; the environment is not.
        atexit([] { (void)!system((std::string("rm -rf ") + getenv("ZEM_ROOT")).c_str()); });
        return made;
    }();
    return root;
}

// Replaces a file under the root by the given bytes.
inline void putfile(const std::string &rel, std::string_view bytes)
{
    std::ofstream(fuzzroot() + "/" + rel, std::ios::binary | std::ios::trunc)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

} // namespace fuzzcommon
