// A loop device over a file (losetup), for the tests and benchmarks that
// need a real block device. It is detached at once while this object still
// holds it open, which the kernel turns into detaching it at the last close:
// even a test that crashes leaves no device behind.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace ptest {

struct LoopDev {
    std::string path, why; // path empty when it could not be set up, and why says why
    int fd = -1;

    // block_size 0 keeps the kernel's default logical sector (512 bytes).
    explicit LoopDev(const std::string &file, unsigned block_size = 0)
    {
        std::string bs = block_size != 0 ? " -b " + std::to_string(block_size) : "";
        FILE *p = popen(("losetup -f --show" + bs + " " + file + " 2>&1").c_str(), "r");
        char out[256] = {};
        bool ok = p != nullptr && fgets(out, sizeof out, p) != nullptr;
        ok = p != nullptr && pclose(p) == 0 && ok;
        std::string dev(out, strcspn(out, "\n"));
        if (ok) {
            fd = open(dev.c_str(), O_RDWR | O_CLOEXEC);
            ok = system(("losetup -d " + dev).c_str()) == 0 && fd >= 0;
        }
        if (ok)
            path = dev;
        else
            why = "losetup " + file + ": " + (dev.empty() ? "failed" : dev);
    }
    ~LoopDev() { close(fd); } // a no-op for -1
    LoopDev(const LoopDev &) = delete;
};

} // namespace ptest
