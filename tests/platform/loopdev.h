// A loop device over a file, for the tests and benchmarks that need a real
// block device. It is configured to clear itself: the kernel detaches it
// when its last opener closes, so even a test that crashes leaves no device
// behind.
#pragma once

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace ptest {

class LoopDev {
public:
    // block_size 0 keeps the kernel's default logical sector (512 bytes).
    explicit LoopDev(const std::string &file, unsigned block_size = 0)
    {
        int ctl = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
        int back = open(file.c_str(), O_RDWR | O_CLOEXEC);
        if (ctl < 0 || back < 0)
            why_ = std::string(ctl < 0 ? "/dev/loop-control: " : file + ": ") + strerror(errno);
        // Another process may take the free device first: try the next.
        for (int tries = 0; why_.empty() && fd_ < 0 && tries < 50; tries++) {
            int n = ioctl(ctl, LOOP_CTL_GET_FREE);
            std::string dev = "/dev/loop" + std::to_string(n);
            int fd = n < 0 ? -1 : open(dev.c_str(), O_RDWR | O_CLOEXEC);
            loop_config cfg{};
            cfg.fd = static_cast<__u32>(back);
            cfg.block_size = block_size;
            cfg.info.lo_flags = LO_FLAGS_AUTOCLEAR;
            if (fd >= 0 && ioctl(fd, LOOP_CONFIGURE, &cfg) == 0) {
                fd_ = fd;
                path_ = dev;
            } else if (fd < 0 || errno != EBUSY) {
                why_ = (n < 0 ? "LOOP_CTL_GET_FREE" : dev) + ": " + strerror(errno);
            }
            if (fd >= 0 && fd_ < 0)
                close(fd);
        }
        if (fd_ < 0 && why_.empty())
            why_ = "no free loop device";
        if (ctl >= 0)
            close(ctl);
        if (back >= 0)
            close(back);
    }
    ~LoopDev()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    LoopDev(const LoopDev &) = delete;
    LoopDev &operator=(const LoopDev &) = delete;

    bool ok() const { return fd_ >= 0; }
    const std::string &path() const { return path_; }
    const std::string &why() const { return why_; }

private:
    int fd_ = -1;
    std::string path_, why_;
};

} // namespace ptest
