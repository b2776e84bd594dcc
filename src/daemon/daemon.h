// The daemon on top of both heartbeats: main line, thread table, signals and
// the stop routine.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

// Handles of the six heartbeat threads; 0 = not started. Atomic because the
// stop routine reads them while main may still be starting threads.
extern std::atomic<pthread_t> lanhb_recvpth, lanhb_sendpth, lanhb_watchpth;
extern std::atomic<pthread_t> cnthb_readpth, cnthb_writepth, cnthb_watchpth;

// SIGUSR1 (the stop routine: cancellations in a fixed order, then the stop
// raised) and SIGUSR2 (start sending and writing).
void usr1_recv(int sig);
void usr2_recv(int sig);
// Blocks SIGUSR1 and SIGUSR2 in the calling thread (and so in every thread it
// creates later); until the signal thread takes them they stay pending.
// Called by main before it creates any other thread.
void hbsig_block();
// Blocks them and starts the thread that takes them with sigwaitinfo;
// returns 0 or the pthread_create result.
int32_t hbsig_start();

int32_t attachipc();
int32_t detachipc();
int zemlanhb_main();
