// Shared set-up of the LAN heartbeat tests: logs open, a known clock rate,
// and the frame's globals put back after every test.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>

#include "fake/fake_platform.h"
#include "frame/frame.h"
#include "lanhb/lanhb.h"
#include "services/services.h"

namespace lanhbtest {

using list_ptr = std::unique_ptr<lanhb_list, void (*)(lanhb_list *)>;

// The clock the tests drive through hbtick_source.
inline std::atomic<hbtick_t> now{1000};
inline hbtick_t fakenow() { return now.load(); }
inline hbtick_t (*const realclock)() = hbtick_source;

struct LanTest : ::testing::Test {
    void SetUp() override
    {
        tckconf = 100;
        loginit();
    }
    void TearDown() override
    {
        logterm();
        hbtick_source = realclock;
        bsigrecv = 0;
        lanhb_bhbsend = 0;
        lanhb_bwatchth = 1;
        brestart = 0;
        lanhb_warnrate = 80;
        thstacksz = 0;
        lanhb_bsocknbio = 1;
        lanhb_rready = 0;
    }
};

// node1 (this host, pri 1) and node2 (pri 2) on the path lan1 (pri 10,
// device 0); a null address leaves the node without one on the path.
inline void cluster(const char *ip1 = "127.0.0.1", const char *ip2 = "198.18.0.2")
{
    fake::add_node("node1", 1);
    fake::add_node("node2", 2);
    fake::add_rsc(HB_KIND_LANHB, "lan1", 10);
    fake::set_key("/root/heartbeat/lanhb@lan1/device", "0");
    if (ip1 != nullptr)
        fake::set_key("/root/server@node1/device@0/info", ip1);
    if (ip2 != nullptr)
        fake::set_key("/root/server@node2/device@0/info", ip2);
}

inline list_ptr load(int32_t expect = 0)
{
    lanhb_list *list = nullptr;
    EXPECT_EQ(lanhb_loadinfo(&list), expect);
    return list_ptr(list, lanhb_freelist);
}

inline bool lanlog(const std::string &text) { return fake::has_log(HB_KIND_LANHB, text); }

} // namespace lanhbtest
