// What the unit tests of every module share: logs open, the clock they
// drive, waiting for a condition, threads started and joined as main does,
// and a controller call that hangs.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <set>
#include <thread>

#include "fake/fake_platform.h"
#include "frame/frame.h"
#include "frame/thread.h"

namespace unit {

// The clock a test drives through hbtick_source.
inline std::atomic<hbtick_t> now{1000};
inline hbtick_t fakenow() { return now.load(); }

// Every log record names the function that wrote it, not a lambda or hbwhere.
inline void expect_named_places()
{
    for (const auto &r : fake::logs())
        EXPECT_TRUE(r.func != "operator()" && r.func != "hbwhere") << r.func << ": " << r.text;
}

// Both logs open at 100 ticks a second and the clock at 1000; the frame's
// globals put back after the test, and every record checked for its place.
struct FrameTest : ::testing::Test {
    void SetUp() override { tckconf = 100, now = 1000, loginit(); }
    void TearDown() override { expect_named_places(), logterm(), hbframe_reset(); }
};

// A fresh platform with both logs open again.
inline void reload() { fake::reset(), loginit(); }

// The causes told with the node publications so far, each once.
inline std::set<std::string> causes()
{
    std::set<std::string> out;
    for (const fake::Call &c : fake::calls())
        if (c.op == "hbext_setcause")
            out.insert(c.args.substr(c.args.rfind(',') + 1));
    return out;
}

// Polls cond for up to 20 seconds.
template <class F> bool waitfor(F cond)
{
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!cond() && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return cond();
}

// In a death test's child: a failed check names itself, shows the logs and
// ends the child with 99, a status the daemon never exits with.
[[noreturn]] inline void child_failed(const char *what)
{
    std::fprintf(stderr, "failed: %s\n", what);
    for (const auto &r : fake::logs())
        std::fprintf(stderr, "%s: %s\n", r.log.c_str(), r.text.c_str());
    _exit(99);
}
#define CHILD_CHECK(cond) ((cond) ? (void)0 : unit::child_failed(#cond))

// How many milliseconds body took.
template <class F> int64_t took_ms(F body)
{
    const auto t0 = std::chrono::steady_clock::now();
    return body(), std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
}

inline pthread_t start(void *(*entry)(void *), void *arg = nullptr)
{
    pthread_t th = 0;
    EXPECT_EQ(pthread_create(&th, nullptr, entry, arg), 0);
    return th;
}

// The thread's exit value, or PTHREAD_CANCELED.
inline void *exitvalue(pthread_t th)
{
    void *ret = nullptr;
    EXPECT_EQ(pthread_join(th, &ret), 0);
    return ret;
}

// A controller call that hangs until opened. Cancellation is taken only at
// pthread_testcancel: inside the sleep, ThreadSanitizer would lose track.
struct Hang {
    std::atomic<bool> opened{false};
    std::atomic<int> waiting{0}, entered{0};
    void wait()
    {
        ++entered, ++waiting;
        struct Leave {
            std::atomic<int> &n;
            ~Leave() { --n; }
        } leave{waiting};
        for (int old = 0; !opened;) {
            hbth_cancelpoint();
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            pthread_setcancelstate(old, &old);
        }
    }
};

} // namespace unit
