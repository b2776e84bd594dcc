// Operations the daemon needs beyond the cluster platform's own (services.h
// lists exactly those). Bound, like services.h, by the stand-alone platform
// (platform/hbext.cpp) and by the unit tests' fake (tests/fake/).
#pragma once

#include <cstdint>

// Bytes of the cluster key; "zemctl keygen" writes key files of this size.
inline constexpr int HBEXT_KEY_SIZE = 32;
// Where "zemctl keygen" writes by default (under the platform's root).
inline constexpr char HBEXT_KEY_DEFAULT[] = "etc/authkey";

// Counters of refused LAN datagrams, one per reason, in this order.
inline constexpr int HBEXT_REFUSED_COUNT = 5;
inline constexpr const char *HBEXT_REFUSED_NAMES[HBEXT_REFUSED_COUNT] = {"length", "sender", "code", "replay",
                                                                         "filter"};

extern "C" {

// Resolves a file name from the configuration: an absolute name is copied,
// a relative one is taken under the platform's root directory. Fails when
// the result does not fit `size` bytes.
int32_t hbext_path(const char *name, char *out, int32_t size);

// Publishes the receiver's refusal counters (HBEXT_REFUSED_COUNT values,
// counted from the daemon's start) for the platform's status display.
int32_t hbext_setrefused(const uint64_t *counts);

} // extern "C"
