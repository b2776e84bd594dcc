// Process-wide state of the daemon. Initial values are those the process
// starts with; main and the table loaders fill them in before any heartbeat
// thread exists.
#include "frame/frame.h"

int32_t brestart = 0;
int32_t bmlock = 0;
int32_t thstacksz = 0;
int64_t tckconf = 0;
int32_t lanhb_warnrate = HB_DEF_WARNRATE;
int32_t cnthb_warnrate = HB_DEF_WARNRATE;

void hbframe_reset()
{
    brestart = bmlock = thstacksz = 0;
    lanhb_warnrate = cnthb_warnrate = HB_DEF_WARNRATE;
    hbtick_source = hbtick_times;
    hbstop_reset();
}
