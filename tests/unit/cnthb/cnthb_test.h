// Shared set-up of the controller heartbeat tests: logs open, a known clock
// rate, a small cluster in the fake, and the globals put back after each test.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "cnthb/cnthb.h"
#include "fake/fake_platform.h"
#include "frame/frame.h"
#include "services/services.h"

namespace cnthbtest {

struct listfree {
    void operator()(cnthb_list *list) const { cnthb_freelist(list); }
};
using list_ptr = std::unique_ptr<cnthb_list, listfree>;

// The clock the tests drive through hbtick_source.
inline std::atomic<hbtick_t> now{1000};
inline hbtick_t fakenow() { return now.load(); }
inline hbtick_t (*const realclock)() = hbtick_source;

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
        hbtick_source = realclock;
        bsigrecv = 0;
        cnthb_bhbwrite = 0;
        cnthb_bwatchth = 0;
        brestart = 0;
        cnthb_mycntno = 0;
        cnthb_warnrate = 80;
        thstacksz = 0;
        cnthb_dpthwait = 20;
        cnthb_dpthretry = 100;
        cnthb_ctimedummy = 0;
    }
};

// node1 (pri 1) and node2 (pri 2) on the controller paths cnt1, cnt2, ...;
// this host is node1 unless the test says otherwise.
inline void cluster(int paths = 1)
{
    fake::add_node("node1", 1);
    fake::add_node("node2", 2);
    for (int i = 1; i <= paths; ++i)
        fake::add_rsc(HB_KIND_CNTHB, "cnt" + std::to_string(i), 10 + i);
}

// Builds a table as the host `host` with controller number `cntno`.
inline list_ptr load(const char *host = "node1", uint8_t cntno = 0, int32_t expect = 0)
{
    fake::set_hostname(host);
    cnthb_mycntno = cntno;
    cnthb_list *list = nullptr;
    EXPECT_EQ(cnthb_loadinfo(&list), expect);
    return list_ptr(list);
}

inline bool cntlog(const std::string &text) { return fake::has_log(HB_KIND_CNTHB, text); }
inline int cntcount(const std::string &part) { return fake::count_log(HB_KIND_CNTHB, part); }

inline int32_t nodestat(cnthb_node *node) { return std::atomic_ref<int32_t>(node->stat).load(); }
inline int32_t svstat(const char *rsc, int32_t nodeid) { return fake::svstat(HB_KIND_CNTHB, rsc, nodeid); }

// Waits up to `seconds` for cond; true when it came.
inline bool waitfor(const std::function<bool()> &cond, int seconds = 20)
{
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!cond()) {
        if (std::chrono::steady_clock::now() > until)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// A controller call that hangs until the test lets it go. It takes a
// cancellation only at pthread_testcancel, between short sleeps made with
// cancellation off: a worker cancelled here unwinds through frames that all
// run their clean-up, which a cancellation inside the sleep itself would not
// guarantee under ThreadSanitizer.
class Hang {
public:
    void wait()
    {
        ++entered_;
        ++waiting_;
        struct Leave {
            std::atomic<int> &n;
            ~Leave() { --n; }
        } leave{waiting_};
        while (!opened_) {
            pthread_testcancel();
            int old = 0;
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            pthread_setcancelstate(old, &old);
        }
    }
    void open() { opened_ = true; }
    int waiting() const { return waiting_; } // threads inside wait() now
    int entered() const { return entered_; } // threads that ever entered

private:
    std::atomic<bool> opened_{false};
    std::atomic<int> waiting_{0};
    std::atomic<int> entered_{0};
};

// A record with the given tag and stamp, as a peer would have written it.
inline cnthb_hbinf record(const char *tag, const char *stamp)
{
    cnthb_hbinf rec{};
    std::memcpy(rec.tag, tag, strnlen(tag, sizeof rec.tag));
    std::memcpy(rec.stamp, stamp, strnlen(stamp, sizeof rec.stamp));
    return rec;
}

} // namespace cnthbtest
