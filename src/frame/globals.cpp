// Process-wide state of the daemon. Initial values are those the process
// starts with; main and the table loaders fill them in before any heartbeat
// thread exists, except the flags, which change while the threads run.
#include "frame/frame.h"

std::atomic<int32_t> bsigrecv{0};
std::atomic<int32_t> lanhb_bhbsend{0};
std::atomic<int32_t> cnthb_bhbwrite{0};
std::atomic<int32_t> lanhb_bwatchth{1};
std::atomic<int32_t> cnthb_bwatchth{0};

int32_t brestart = 0;
int32_t bmlock = 0;
int32_t thstacksz = 0;
int64_t tckconf = 0;
uint8_t cnthb_mycntno = 0;
int32_t lanhb_warnrate = 80;
int32_t cnthb_warnrate = 80;

std::atomic<pthread_t> lanhb_recvpth{0}, lanhb_sendpth{0}, lanhb_watchpth{0};
std::atomic<pthread_t> cnthb_readpth{0}, cnthb_writepth{0}, cnthb_watchpth{0};

pthread_mutex_t lanhb_rmutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t lanhb_rcond = PTHREAD_COND_INITIALIZER;
int32_t lanhb_rready = 0;
