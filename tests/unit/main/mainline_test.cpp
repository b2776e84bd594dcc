// The main line: each start-up failure (exit status, log lines, the order in
// which what was set up is released, whether the parent was told, the signal
// dispositions) and a whole run stopped by SIGUSR1. The daemon runs in a
// child (the re-executed test binary) that checks what the fake recorded and
// exits with the daemon's status.
#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <set>

#include "daemon/daemon.h"
#include "unit/lanhb/lanhb_test.h"

namespace {

using Texts = std::vector<std::string>;

// The platform's failures, the exit status, the main line's own lines in the
// controller log, release operations in call order, parent told, brestart.
struct Case {
    const char *name;
    std::function<void()> script;
    int status;
    Texts lines, releases;
    bool parent_told;
    int32_t restart;
};

const std::string CLOCK = "clock:" + std::to_string(sysconf(_SC_CLK_TCK)) + " per sec";
const Texts AFTER_LOGS = {"log_term", "xmllib_unload_config", "xmllib_term"};
const Texts LOAD_RELEASES = {"log_term",   "zemstorage_term",      "shmnm_detach", "shmcm_detach",
                             "sem_detach", "xmllib_unload_config", "xmllib_term"};
Texts lines(const std::string &failed, const char *stop = "lanhb/cnthb shutting down")
{
    return {"lanhb/cnthb starting", CLOCK, failed, stop};
}
const Texts LOAD_LINES = lines("lanhb_loadinfo() failed(ret:9)");
void fail_loader() { fake::fail_on("xmllib_load_policy", "all", 9); } // the LAN loader's first policy

const Case CASES[] = {
    {"xmllib_init", [] { fake::fail("xmllib_init", 3); }, 4, {}, {}, false, 0},
    {"load_config", [] { fake::fail("xmllib_load_config", 2); }, 12, {}, {"xmllib_term"}, false, 0},
    {"storage", [] { fake::fail("zemstorage_init", 5); }, 1,
     {"lanhb/cnthb starting", "zemstorage_init() failed(ret:5)", "lanhb/cnthb shutting down"}, AFTER_LOGS, false, 0},
    {"sem_attach", [] { fake::fail("sem_attach", 7); }, 1, lines("attachipc() failed(ret:1)", "lanhb shutting down"),
     AFTER_LOGS, true, 0},
    {"shmcm_attach", [] { fake::fail("shmcm_attach", 7); }, 1, lines("attachipc() failed(ret:2)", "lanhb shutting down"),
     {"sem_detach", "log_term", "xmllib_unload_config", "xmllib_term"}, true, 0},
    {"shmnm_attach", [] { fake::fail("shmnm_attach", 7); }, 1, lines("attachipc() failed(ret:3)", "lanhb shutting down"),
     {"shmcm_detach", "sem_detach", "log_term", "xmllib_unload_config", "xmllib_term"}, true, 0},
    {"loader", [] { fail_loader(), fake::set_waitstat(0); }, 13, LOAD_LINES, LOAD_RELEASES, true, 0},
    {"resume", [] { fail_loader(), fake::set_waitstat(1); }, 13, LOAD_LINES, LOAD_RELEASES, true, 1},
    {"controller loader", // with a LAN table, freed again
     [] { fake::add_node("node1", 1), fake::add_rsc("lanhb", "lan1", 1), fake::fail_on("xmllib_load_policy", "cnthb", 9); },
     13, lines("cnthb_loadinfo() failed(ret:9)"), LOAD_RELEASES, true, 0},
    {"key", // configured but missing: the table is built and freed again
     [] { fake::add_node("node1", 1), fake::add_rsc("lanhb", "lan1", 1), fake::set_key(LANHB_KEYCFG, "nokey"); },
     14, lines("lanhb_keyload() failed(ret:2)"), LOAD_RELEASES, true, 0},
    {"waitstat and setsched", // setsched gives up without its policy
     [] { fail_loader(), fake::fail("shmnm_getwaitstat", 4), fake::fail_on("xmllib_load_policy", "lanhb", 6); },
     13, {"lanhb/cnthb starting", CLOCK, "setsched() failed(ret:9)", "shmnm_getwaitstat() failed(ret:4)",
          "lanhb_loadinfo() failed(ret:9)", "lanhb/cnthb shutting down"}, LOAD_RELEASES, true, 1},
};

// SIGUSR1 stays blocked during each test: the daemon tells its parent with it.
struct MainLine : ::testing::Test {
    sigset_t usr1{}, saved{};
    void SetUp() override
    {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        sigemptyset(&usr1), sigaddset(&usr1, SIGUSR1);
        pthread_sigmask(SIG_BLOCK, &usr1, &saved);
        took_usr1();
    }
    void TearDown() override { pthread_sigmask(SIG_SETMASK, &saved, nullptr); }
    // True when a SIGUSR1 reached this process since the last call.
    bool took_usr1()
    {
        const struct timespec none = {0, 0};
        bool got = false;
        while (sigtimedwait(&usr1, nullptr, &none) == SIGUSR1)
            got = true;
        return got;
    }
};

[[noreturn]] void run_main(const Case &c)
{
    const sigset_t none{};
    pthread_sigmask(SIG_SETMASK, &none, nullptr); // the test's own block undone
    const int status = zemlanhb_main();
    // The dispositions are set first, whatever fails after.
    for (int sig : {SIGHUP, SIGINT, SIGPIPE, SIGALRM})
        CHILD_CHECK(signal(sig, SIG_IGN) == SIG_IGN);
    for (int sig : {SIGTERM, SIGCHLD, SIGUSR1, SIGUSR2})
        CHILD_CHECK(signal(sig, SIG_DFL) == SIG_DFL);
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    CHILD_CHECK(sigismember(&mask, SIGUSR1) == 1 && sigismember(&mask, SIGUSR2) == 1);
    Texts releases, all, mainlines;
    for (const auto &call : fake::calls())
        if (all.push_back(call.op); std::ranges::count(LOAD_RELEASES, call.op) != 0)
            releases.push_back(call.op);
    for (const auto &r : fake::logs_of("cnthb"))
        if (r.file.starts_with("src/daemon/"))
            mainlines.push_back(r.text);
    CHILD_CHECK(mainlines == c.lines && releases == c.releases && brestart == c.restart);
    CHILD_CHECK(c.status != 4 || all == Texts{"xmllib_init"});
    for (const auto &line : c.lines) // the frame's lines go to the LAN log too
        CHILD_CHECK(fake::has_log("lanhb", line));
    _exit(status);
}

TEST_F(MainLine, StartUpFailuresExitWithTheirStatusAndReleaseInOrder)
{
    for (const Case &c : CASES) {
        SCOPED_TRACE(c.name);
        fake::reset();
        // A complete scheduling configuration: setsched logs nothing and
        // leaves priority and memory as they are.
        fake::set_key("/root/heartbeat/nice", std::to_string(getpriority(PRIO_PROCESS, 0)));
        for (const char *key : {"sched/schedule", "sched/priority", "mlock"})
            fake::set_key(std::string("/root/heartbeat/") + key, "0");
        fake::set_key("/root/lanhb/watchth", "1");
        c.script();
        EXPECT_EXIT(run_main(c), ::testing::ExitedWithCode(c.status), "");
        EXPECT_EQ(took_usr1(), c.parent_told);
    }
}

// A whole run on a one-node cluster, stopped by SIGUSR1 once every thread
// has started: the down notices go out exactly when the cluster wants them.
// Every thread of the daemon runs at the configured nice value.
std::set<int> tids()
{
    std::set<int> out;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task"))
        out.insert(std::stoi(task.path().filename()));
    return out;
}

[[noreturn]] void run_and_stop(bool down, int nice)
{
    std::set<int> others; // threads that are not the daemon's
    bool niced = true;
    std::thread stopper([&] {
        sigset_t usr;
        sigemptyset(&usr), sigaddset(&usr, SIGUSR1), sigaddset(&usr, SIGUSR2);
        pthread_sigmask(SIG_BLOCK, &usr, nullptr); // for the daemon's signal thread
        while (fake::count_log("cnthb", "cnthb_bwatchth:") == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        for (int tid : tids())
            niced = niced && (others.count(tid) != 0 || getpriority(PRIO_PROCESS, tid) == nice);
        kill(getpid(), SIGUSR1);
    });
    // This one and any a sanitizer started with it; main is the daemon's.
    others = tids(), others.erase(gettid());
    const int status = zemlanhb_main();
    stopper.join();
    const std::string word = down ? "YES" : "NO";
    Texts releases;
    for (const auto &call : fake::calls())
        if (call.op.find("_detach") != std::string::npos || call.op.find("_term") != std::string::npos)
            releases.push_back(call.op);
    CHILD_CHECK(niced);
    // Every heartbeat thread that ran (the controller's watcher is off) told
    // its start with its table's pace, and its end.
    for (int32_t th = 0; th < HBEXT_TH_COUNT; ++th) {
        const fake::Progress p = fake::progress(th);
        const int ran = th == HBEXT_TH_CNTWATCH ? 0 : 1;
        CHILD_CHECK(p.starts == ran && p.ends == ran && (ran == 0 || (p.hbint == HB_DEF_HBINT && p.hbto == HB_DEF_HBTO)));
    }
    CHILD_CHECK(fake::has_log("lanhb", "send downpacket : " + word) && fake::has_log("cnthb", "write downpacket : " + word));
    CHILD_CHECK(fake::count_log("lanhb", "pthread_join(recv) success(ret:0,") == 1);
    CHILD_CHECK(fake::has_log("lanhb", "pthread_join(lanhb_dpsend) success(ret:0,thret:0)") == down);
    CHILD_CHECK(fake::has_log("cnthb", "pthread_join(cnthb_dpwrite) success(ret:0,thret:0)") == down);
    CHILD_CHECK((fake::slot(0).substr(0, 6) == "hbdown") == down);
    CHILD_CHECK(fake::texts("lanhb").back() == "lanhb shutting down");
    CHILD_CHECK(releases == Texts({"shmnm_detach", "shmcm_detach", "sem_detach", "xmllib_term", "zemstorage_term", "log_term"}));
    _exit(status);
}

TEST_F(MainLine, RunsUntilSigusr1AndSendsDownNoticesWhenAsked)
{
    for (bool down : {true, false}) {
        SCOPED_TRACE(down);
        fake::reset();
        fake::add_node("node1", 1);
        fake::add_rsc("lanhb", "lan1", 10);
        fake::add_rsc("cnthb", "cnt1", 11);
        fake::set_key("/root/heartbeat/lanhb@lan1/device", "0");
        fake::set_key("/root/server@node1/device@0/info", "127.0.0.1");
        fake::set_key("/root/cluster/heartbeat/port/recv", std::to_string(lanhbtest::freeport()));
        const int nice = getpriority(PRIO_PROCESS, 0) + 1; // needs no privilege
        fake::set_key("/root/heartbeat/nice", std::to_string(nice));
        fake::set_downnotify(down ? 0 : 1);
        EXPECT_EXIT(run_and_stop(down, nice), ::testing::ExitedWithCode(0), "");
        took_usr1();
    }
}

} // namespace
