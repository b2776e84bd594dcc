// Process priority, memory-lock setting, and the stack size given to every
// thread the daemon creates.
#include <sys/resource.h>

#include <cerrno>
#include <cstring>
#include <strings.h>

#include "frame/frame.h"
#include "services/services.h"

namespace {

constexpr int32_t HB_DEFAULT_NICE = -20;
constexpr int32_t HB_MIN_STACKSZ = 16384;
constexpr int HB_MLOCK_TEXT_SIZE = 16;

} // namespace

int32_t setsched(int32_t *bwatchth)
{
    if (hbcfg_load(HBLOG_LAN, HB_KIND_LANHB, "lanhb") != 0)
        return HBRET_POLICY;

    const int32_t nice = hbcfg_getint(HBLOG_LAN, "/root/heartbeat/nice", HB_DEFAULT_NICE);

    char mlock[HB_MLOCK_TEXT_SIZE] = {};
    int32_t len = sizeof mlock;
    int32_t r = xmllib_get_value("/root/heartbeat/mlock", XMLLIB_KIND_TEXT, mlock, &len);
    if (r == 0) {
        mlock[sizeof mlock - 1] = '\0';
        bmlock = strcasecmp(mlock, "yes") == 0 ? 1 : 0;
    } else {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "xmllib_get_value(%s) failed(ret:%d)", "/root/heartbeat/mlock", r);
        bmlock = 0;
    }

    // Read for completeness of the configuration; this design applies neither.
    (void)hbcfg_getint(HBLOG_LAN, "/root/heartbeat/sched/schedule", 0);
    (void)hbcfg_getint(HBLOG_LAN, "/root/heartbeat/sched/priority", 0);

    *bwatchth = hbcfg_getint(HBLOG_LAN, "/root/lanhb/watchth", *bwatchth);

    hbcfg_unload(HBLOG_LAN, HB_KIND_LANHB, "lanhb");

    if (setpriority(PRIO_PROCESS, 0, nice) != 0)
        HBLOG(HBLOG_LAN, HBLV_WARN, "setpriority(%d) failed(errno:%d)", nice, errno);
    return 0;
}

int32_t loadstacksz(int module, const char *key, hbwhere at)
{
    thstacksz = hbcfg_getint(module, key, 0, at);
    if (thstacksz < 0) {
        HBLOG_AT(at, module, HBLV_ERROR, "invalid STACKSIZE(%d). set to 0.", thstacksz);
        thstacksz = 0;
    } else if (thstacksz > 0 && thstacksz < HB_MIN_STACKSZ) {
        HBLOG_AT(at, module, HBLV_ERROR, "under minimum STACKSIZE(%d). set to %d.", thstacksz, HB_MIN_STACKSZ);
        thstacksz = HB_MIN_STACKSZ;
    }
    return 0;
}

int32_t setstacksz(pthread_attr_t *attr)
{
    size_t current = 0;
    int r = pthread_attr_getstacksize(attr, &current);
    if (r != 0)
        HBLOG(HBLOG_BOTH, HBLV_ERROR, "pthread_attr_getstacksize() failed(ret:%d,errno:%d)", r, errno);
    if (thstacksz == 0)
        return 0;
    r = pthread_attr_setstacksize(attr, static_cast<size_t>(thstacksz));
    if (r != 0)
        HBLOG(HBLOG_BOTH, HBLV_ERROR, "pthread_attr_setstacksize(%d) failed(ret:%d,errno:%d)", thstacksz, r, errno);
    return 0;
}
