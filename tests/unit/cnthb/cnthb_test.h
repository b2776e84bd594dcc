// Shared set-up of the controller heartbeat tests: a small cluster in the
// fake, its table, and stopping a poller.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <cstring>
#include <stdexcept>

#include "cnthb/cnthb.h"
#include "unit/unit.h"

namespace cnthbtest {

using namespace unit;
using list_ptr = std::unique_ptr<cnthb_list, decltype([](cnthb_list *l) { cnthb_freelist(l); })>;

struct CntTest : FrameTest {
    void TearDown() override { cnthb_reset(), FrameTest::TearDown(); }
    // node1 (pri 1) and node2 (pri 2) on the paths cnt1, cnt2, ...
    static void cluster(int paths = 1)
    {
        reload();
        fake::add_node("node1", 1);
        fake::add_node("node2", 2);
        for (int i = 1; i <= paths; ++i)
            fake::add_rsc(HB_KIND_CNTHB, "cnt" + std::to_string(i), 10 + i);
    }
    // The table of the host `host` with controller number `cntno`; a failed
    // load ends the test with its code instead of a null table.
    static list_ptr load(const char *host = "node1", uint8_t cntno = 0)
    {
        fake::set_hostname(host);
        cnthb_mycntno = cntno;
        cnthb_list *list = nullptr;
        if (const int32_t r = cnthb_loadinfo(&list); r != 0)
            throw std::runtime_error("cnthb_loadinfo() returned " + std::to_string(r));
        return list_ptr(list);
    }
};

inline bool cntlog(const std::string &text) { return fake::has_log(HB_KIND_CNTHB, text); }
inline int cntcount(const std::string &text) { return fake::count_log(HB_KIND_CNTHB, text); }
inline int32_t svstat(const char *rsc, int32_t id) { return fake::svstat(HB_KIND_CNTHB, rsc, id); }

// Stops a poller as the stop routine does; without the flag only this
// thread ends and the others go on.
inline void stop(pthread_t th, bool flag = true)
{
    if (flag)
        bsigrecv = 1;
    pthread_cancel(th);
    exitvalue(th);
}

inline cnthb_hbinf record(const char *tag, const char *stamp)
{
    cnthb_hbinf rec{};
    std::memcpy(rec.tag, tag, strnlen(tag, sizeof rec.tag));
    std::memcpy(rec.stamp, stamp, strnlen(stamp, sizeof rec.stamp));
    return rec;
}

} // namespace cnthbtest
