// Shared set-up of the controller heartbeat tests: logs open, a known clock
// rate, a small cluster in the fake, and the globals put back after each test.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <thread>

#include "cnthb/cnthb.h"
#include "fake/fake_platform.h"
#include "frame/frame.h"
#include "frame/thread.h"

namespace cnthbtest {

struct listfree {
    void operator()(cnthb_list *list) const { cnthb_freelist(list); }
};
using list_ptr = std::unique_ptr<cnthb_list, listfree>;

// The clock the tests drive through hbtick_source.
inline std::atomic<hbtick_t> now{1000};
inline hbtick_t fakenow() { return now.load(); }

struct CntTest : ::testing::Test {
    void SetUp() override
    {
        tckconf = 100;
        now = 1000;
        loginit();
    }
    void TearDown() override
    {
        logterm();
        hbframe_reset();
        cnthb_reset();
    }
    // A clean platform with node1 (pri 1) and node2 (pri 2) on the paths
    // cnt1, cnt2, ...
    static void cluster(int paths = 1)
    {
        fake::reset();
        loginit();
        fake::add_node("node1", 1);
        fake::add_node("node2", 2);
        for (int i = 1; i <= paths; ++i)
            fake::add_rsc(HB_KIND_CNTHB, "cnt" + std::to_string(i), 10 + i);
    }
    // A table as the host `host` with controller number `cntno`.
    static list_ptr load(const char *host = "node1", uint8_t cntno = 0)
    {
        fake::set_hostname(host);
        cnthb_mycntno = cntno;
        cnthb_list *list = nullptr;
        EXPECT_EQ(cnthb_loadinfo(&list), 0);
        return list_ptr(list);
    }
};

inline bool cntlog(const std::string &text) { return fake::has_log(HB_KIND_CNTHB, text); }
inline int cntcount(const std::string &text) { return fake::count_log(HB_KIND_CNTHB, text); }
inline int32_t nodestat(cnthb_node *node) { return std::atomic_ref<int32_t>(node->stat).load(); }
inline int32_t svstat(const char *rsc, int32_t id) { return fake::svstat(HB_KIND_CNTHB, rsc, id); }

inline bool waitfor(const std::function<bool()> &cond)
{
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!cond() && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return cond();
}

// A controller call that hangs until opened. Cancellation is taken only at
// pthread_testcancel: inside the sleep, ThreadSanitizer would lose track.
struct Hang {
    std::atomic<bool> opened{false};
    std::atomic<int> waiting{0}, entered{0};
    void wait()
    {
        ++entered;
        ++waiting;
        struct Leave {
            std::atomic<int> &n;
            ~Leave() { --n; }
        } leave{waiting};
        while (!opened) {
            hbth_cancelpoint();
            int old = 0;
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            pthread_setcancelstate(old, &old);
        }
    }
};

inline pthread_t start(void *(*body)(void *), cnthb_list *list)
{
    pthread_t th = 0;
    EXPECT_EQ(pthread_create(&th, nullptr, body, list), 0);
    return th;
}

// Stops a poller as the stop routine does; without the flag only this
// thread ends and the others go on.
inline void stop(pthread_t th, bool flag = true)
{
    if (flag)
        bsigrecv = 1;
    pthread_cancel(th);
    EXPECT_EQ(pthread_join(th, nullptr), 0);
}

inline cnthb_hbinf record(const char *tag, const char *stamp)
{
    cnthb_hbinf rec{};
    std::memcpy(rec.tag, tag, strnlen(tag, sizeof rec.tag));
    std::memcpy(rec.stamp, stamp, strnlen(stamp, sizeof rec.stamp));
    return rec;
}

} // namespace cnthbtest
