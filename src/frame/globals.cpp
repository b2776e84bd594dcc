// Process-wide state of the daemon. Initial values are those the process
// starts with; main and the table loaders fill them in before any heartbeat
// thread exists.
#include "frame/counters.h"
#include "frame/frame.h"
#include "frame/nodestate.h"
#include "frame/thread.h"

int32_t brestart = 0;
int32_t bmlock = 0;
int32_t thstacksz = 0;
int64_t tckconf = 0;

void hbframe_reset()
{
    brestart = bmlock = thstacksz = 0;
    hbkind_reset();
    hbcount_reset();
    hbtick_source = hbtick_times;
    hbstop_reset();
    hbpace_fastpolls = HBPACE_FAST_POLLS;
}
