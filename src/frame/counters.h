// Counters the daemon keeps for the platform's displays, beside what its
// heartbeats decide: per node of a path (in the node record), per path (in
// the path record) and per kind (here). They are counted where things happen
// with one relaxed atomic add, and published (hbext_setcounts) by walking the
// tables of both kinds at most once a second, at the wait of whichever
// heartbeat thread comes to one first once it is due: publishing wakes no
// thread, and no datagram or record costs a system call for it. Nothing here
// logs or changes what the heartbeats do.
#pragma once

#include <atomic>
#include <cstdint>

#include "frame/nodestate.h"
#include "services/hbext.h"

// Adds n to a counter that other threads read (and may add to): relaxed, as
// each figure is read for itself, never as a set with others.
inline void hbcount_add(uint64_t &counter, uint64_t n = 1)
{
    std::atomic_ref<uint64_t>(counter).fetch_add(n, std::memory_order_relaxed);
}
inline uint64_t hbcount_get(uint64_t &counter)
{
    return std::atomic_ref<uint64_t>(counter).load(std::memory_order_relaxed);
}

// Adds n to the counter `index` (HBEXT_KC_*) of the kind with that number.
void hbcount_kind(int kind, int index, uint64_t n = 1);
// The node's last heartbeat: now on the wall clock, in milliseconds.
void hbcount_heartbeat(const hbnoderef &n);

// Publishes a table's counters from now on, with its kind's; its loader
// calls it once the table is built, before any thread runs, and it
// publishes once at once. hbcount_untrack(list) stops that (a table that was
// never tracked is no matter); both run only while no heartbeat thread does.
void hbcount_track(const hbtable &t);
void hbcount_untrack(const void *list);

// Publishes every tracked table's counters when a second has passed since
// the last time and no other thread is at it; a clock read otherwise. Every
// wait of a heartbeat thread calls it.
void hbcount_sync();
// Publishes them now.
void hbcount_publish();

// Forgets the tables and zeroes the kinds' counters; part of hbframe_reset.
void hbcount_reset();
