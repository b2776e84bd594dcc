// The one diff that watch and notify share, as a pure function of two
// snapshots: which events, in which order, with which cause. What a hook
// gets of one is proven end to end by the system test.
#include <functional>

#include <gtest/gtest.h>

#include "events.h"

namespace {

constexpr int ONLINE = SHMNM_SVSTAT_ONLINE, OFFLINE = SHMNM_SVSTAT_OFFLINE, UNKNOWN = SHMNM_SVSTAT_UNKNOWN;

// A node's state as published at t (ms) for cause.
node_view node(const char *name, int32_t stat, int32_t cause = HBEXT_CAUSE_HEARTBEAT, int64_t t = 1000)
{
    return {name, 0, stat, {t, t, 0, cause}};
}

// One LAN path, lan1, with n1 and n2 ONLINE, and a running daemon.
snapshot healthy()
{
    snapshot s;
    s.daemon = {{42, 0, 500, 0}, 0, 0, true}, s.cluster = {true, true, 1, 0, 0, 0, false}, s.posts = 5;
    s.nodes = {{"n1", 1, 0}, {"n2", 1, 0}};
    s.progress.slowest = HBEXT_TH_LANSEND;
    s.rsc[0] = {{"lan1", 0, SHMNM_RSCSTAT_NORMAL, {}, {node("n1", ONLINE), node("n2", ONLINE)}}};
    return s;
}

void stall(snapshot &s)
{
    s.progress.stalled = true, s.progress.since_ms[HBEXT_TH_LANSEND] = 3100, s.progress.limit_ms = 2500;
}

struct diff_case {
    const char *what;
    std::function<void(snapshot &)> before, after;
    std::vector<std::string> want;
};

TEST(Events, EveryChangeBetweenTwoSnapshotsIsOneEventWithItsCauseInOrder)
{
    const auto none = [](snapshot &) {};
    const auto n2_off = [](int32_t cause) {
        return [=](snapshot &s) {
            s.rsc[0][0].nodes[1] = node("n2", OFFLINE, cause, 2000);
            s.rsc[0][0].stat = SHMNM_RSCSTAT_CAUTION;
        };
    };
    const diff_case cases[] = {
        {"crash", none, n2_off(HBEXT_CAUSE_TIMEOUT),
         {"lanhb lan1 node n2: ONLINE -> OFFLINE (timeout)", "lanhb lan1: NORMAL -> CAUTION (timeout)"}},
        {"back", n2_off(HBEXT_CAUSE_DOWN), none,
         {"lanhb lan1 node n2: OFFLINE -> ONLINE (heartbeat)", "lanhb lan1: CAUTION -> NORMAL (heartbeat)"}},
        // The path takes the cause of the node that made it CAUTION, not
        // of the node heard last.
        {"start",
         [](snapshot &s) {
             s.rsc[0][0].stat = SHMNM_RSCSTAT_UNKNOWN;
             s.rsc[0][0].nodes = {node("n1", UNKNOWN, 0, 0), node("n2", UNKNOWN, 0, 0)};
         },
         [](snapshot &s) {
             s.rsc[0][0].stat = SHMNM_RSCSTAT_CAUTION;
             s.rsc[0][0].nodes = {node("n1", ONLINE, HBEXT_CAUSE_HEARTBEAT, 3000),
                                  node("n2", OFFLINE, HBEXT_CAUSE_START, 2000)};
         },
         {"lanhb lan1 node n1: UNKNOWN -> ONLINE (heartbeat)", "lanhb lan1 node n2: UNKNOWN -> OFFLINE (start)",
          "lanhb lan1: UNKNOWN -> CAUTION (start)"}},
        {"set", none,
         [](snapshot &s) { s.cluster = {true, true, 3, 0x2000005, 1, 0, true}, s.nodes = {{"n1", 1, 7}, {"n2", 9, 0}}; },
         {"ratio: 1 -> 3 (set)", "action: 0x00000000 -> 0x02000005 (set)", "waitstat: 0 -> 1 (set)",
          "node n1 nodestat: 0 -> 7 (set)", "node n2 hdstat: 1 -> 9 (set)", "down notification: off -> on (set)"}},
        {"unknown values are no change", [](snapshot &s) { s.cluster.cm = s.cluster.sem = false; },
         [](snapshot &s) { s.cluster = {false, false, 3, 0, 0, 0, true}; }, {}},
        {"stall", none, stall,
         {"daemon (pid 42): running -> stalled (stall: lanhb_hbsend made no progress for 3.1 s, longer than 2.5 s)"}},
        {"resume before what it publishes", stall, n2_off(HBEXT_CAUSE_TIMEOUT),
         {"daemon (pid 42): stalled -> running (resume)", "lanhb lan1 node n2: ONLINE -> OFFLINE (timeout)",
          "lanhb lan1: NORMAL -> CAUTION (timeout)"}},
        {"detach after what it published", none,
         [&](snapshot &s) { n2_off(HBEXT_CAUSE_DOWN)(s), s.daemon.running = false, s.daemon.rec.detached_ms = 3000; },
         {"lanhb lan1 node n2: ONLINE -> OFFLINE (down)", "lanhb lan1: NORMAL -> CAUTION (down)",
          "daemon (pid 42): running -> stopped (detach)"}},
        {"gone without detaching", none, [](snapshot &s) { s.daemon.running = false; },
         {"daemon (pid 42): running -> vanished (vanish)"}},
        {"attached and gone between two looks", none,
         [](snapshot &s) { s.daemon.rec = {43, 0, 2000, 2100}, s.daemon.running = false; },
         {"daemon (pid 43): running -> running (attach)", "daemon (pid 43): running -> stopped (detach)"}},
        {"a post that changed nothing", none, [](snapshot &s) { s.posts = 7; },
         {"state change posted (2 posts, no state differs)"}},
    };
    for (const diff_case &c : cases) {
        snapshot before = healthy(), after = healthy();
        c.before(before);
        c.after(after);
        std::vector<std::string> got;
        for (const zem_event &e : events_between(before, after))
            got.push_back(e.text);
        EXPECT_EQ(got, c.want) << c.what;
    }
}

} // namespace
