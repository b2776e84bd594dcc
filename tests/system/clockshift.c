/* Preloaded into one node's processes (LD_PRELOAD): moves their wall clock
 * (CLOCK_REALTIME, time, gettimeofday) by the signed nanoseconds stored in
 * the first 8 bytes of the file ZEM_CLOCKSHIFT names, read at every call,
 * so a test can set that node's clock ahead and back while it runs without
 * touching the machine's clock. Other clocks are left as they are.
 *
 *   cc -shared -fPIC -O2 -o clockshift.so clockshift.c -ldl
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static int (*real_gettime)(clockid_t, struct timespec *);
static const int64_t *shift;

static void setup(void)
{
    if (real_gettime == NULL)
        real_gettime = (int (*)(clockid_t, struct timespec *))dlsym(RTLD_NEXT, "clock_gettime");
    const char *path = getenv("ZEM_CLOCKSHIFT");
    if (shift != NULL || path == NULL)
        return;
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    void *p = mmap(NULL, sizeof(int64_t), PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    if (p != MAP_FAILED)
        shift = p;
}

__attribute__((constructor)) static void init(void) { setup(); }

int clock_gettime(clockid_t clk, struct timespec *ts)
{
    if (real_gettime == NULL)
        setup();
    int r = real_gettime(clk, ts);
    if (r != 0 || shift == NULL || (clk != CLOCK_REALTIME && clk != CLOCK_REALTIME_COARSE))
        return r;
    int64_t ns = (int64_t)ts->tv_sec * 1000000000 + ts->tv_nsec + __atomic_load_n(shift, __ATOMIC_RELAXED);
    ts->tv_sec = ns / 1000000000;
    ts->tv_nsec = ns % 1000000000;
    return 0;
}

int gettimeofday(struct timeval *tv, void *tz)
{
    (void)tz;
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    tv->tv_sec = ts.tv_sec;
    tv->tv_usec = ts.tv_nsec / 1000;
    return 0;
}

time_t time(time_t *t)
{
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    if (t != NULL)
        *t = ts.tv_sec;
    return ts.tv_sec;
}
