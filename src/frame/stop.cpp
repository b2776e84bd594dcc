// The stop: one flag every heartbeat thread looks at, one event every wait
// watches, and the main line's wait for both to be set.
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

#include "frame/frame.h"

std::atomic<int32_t> bsigrecv{0};

namespace {

pthread_mutex_t stop_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t stop_cond = PTHREAD_COND_INITIALIZER;
bool stop_done = false; // under stop_mutex

void stop_only(int) { hbstop_raise(); }

} // namespace

void (*hbstop_request)(int) = stop_only;

int hbstop_fd()
{
    // Made on first use, before any heartbeat thread waits: the main line
    // asks for it before it starts them. Never read, so it stays readable.
    static const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return fd;
}

void hbstop_raise()
{
    bsigrecv.store(1);
    const int fd = hbstop_fd();
    if (fd >= 0) {
        const uint64_t one = 1;
        (void)!write(fd, &one, sizeof one);
    }
    pthread_mutex_lock(&stop_mutex);
    stop_done = true;
    pthread_cond_broadcast(&stop_cond);
    pthread_mutex_unlock(&stop_mutex);
}

void hbstop_wait()
{
    pthread_mutex_lock(&stop_mutex);
    while (!stop_done)
        pthread_cond_wait(&stop_cond, &stop_mutex);
    pthread_mutex_unlock(&stop_mutex);
}

void hbstop_reset()
{
    bsigrecv.store(0);
    hbstop_request = stop_only;
    const int fd = hbstop_fd();
    uint64_t count = 0;
    if (fd >= 0)
        (void)!read(fd, &count, sizeof count);
    pthread_mutex_lock(&stop_mutex);
    stop_done = false;
    pthread_mutex_unlock(&stop_mutex);
}
