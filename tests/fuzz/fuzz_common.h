// Shared pieces of the fuzz targets: a driven clock, the fake's logs open,
// and a check that stops the fuzzer on a broken invariant.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

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

// A private ZEM_ROOT with etc/ and run/, for the platform's own files.
inline std::string makeroot()
{
    char tmpl[] = "/tmp/zemfuzz-XXXXXX";
    const char *dir = mkdtemp(tmpl);
    require(dir != nullptr, "mkdtemp");
    const std::string root = dir;
    require(system(("mkdir -p " + root + "/etc " + root + "/run " + root + "/log").c_str()) == 0, "mkdir");
    setenv("ZEM_ROOT", root.c_str(), 1);
    static const std::string gone = root;
    atexit([] { (void)!system(("rm -rf " + gone).c_str()); });
    return root;
}

} // namespace fuzzcommon
