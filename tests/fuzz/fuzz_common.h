// Shared pieces of the fuzz targets: a driven clock, the fake's logs open,
// a private root for the platform's files, and a check that stops the fuzzer
// on a broken invariant.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <string>
#include <string_view>

#include "fake/fake_platform.h"
#include "frame/frame.h"

namespace fuzzcommon {

inline hbtick_t now = 1000;

// A fresh fake platform with both logs open and the clock at a known tick.
inline void fresh()
{
    logterm();
    fake::reset();
    tckconf = 100, now = 1000;
    hbtick_source = [] { return now; };
    loginit();
}

// Aborts on a broken invariant, so the fuzzer keeps the input as a finding.
inline void require(bool ok, const char *what)
{
    if (!ok)
        std::fprintf(stderr, "invariant broken: %s\n", what), std::abort();
}

// Every state published for the paths and nodes 1..nodes stays within its
// set; after a silence past the time-out no node is ONLINE.
inline void check_states(const char *kind, std::initializer_list<const char *> paths, int32_t nodes, bool silent)
{
    for (const char *path : paths) {
        const int32_t r = fake::rscstat(kind, path);
        require(r == -1 || r == SHMNM_RSCSTAT_NORMAL || r == SHMNM_RSCSTAT_CAUTION || r == SHMNM_RSCSTAT_ERROR ||
                    r == SHMNM_RSCSTAT_UNKNOWN || r == SHMNM_RSCSTAT_UNUSED,
                "published path state");
        for (int32_t pri = 1; pri <= nodes; ++pri) {
            const int32_t s = fake::svstat(kind, path, pri);
            require(s == SHMNM_SVSTAT_OFFLINE || s == SHMNM_SVSTAT_UNKNOWN || s == SHMNM_SVSTAT_UNUSED ||
                        (s == SHMNM_SVSTAT_ONLINE && !silent),
                    silent ? "ONLINE after a silence past the time-out" : "published node state");
        }
    }
}

// Replaces a file under a private ZEM_ROOT (made with etc/ and run/ on first
// use, removed at exit) by the given bytes.
inline void putfile(const std::string &rel, std::string_view bytes)
{
    static const std::string root = [] {
        char tmpl[] = "/tmp/zemfuzz-XXXXXX";
        require(mkdtemp(tmpl) != nullptr, "mkdtemp");
        require(system(("mkdir -p " + std::string(tmpl) + "/etc " + tmpl + "/run").c_str()) == 0, "mkdir");
        setenv("ZEM_ROOT", tmpl, 1);
        atexit([] { (void)!system((std::string("rm -rf ") + getenv("ZEM_ROOT")).c_str()); });
        return std::string(tmpl);
    }();
    std::ofstream(root + "/" + rel, std::ios::binary | std::ios::trunc)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

} // namespace fuzzcommon
