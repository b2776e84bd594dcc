// zemctl end to end: the built tool on a temporary root, with this test
// process on the same shared memory as the daemon would be, and a stand-in
// daemon or the real one for "run". node1's addresses are the loopback's,
// so that this host has them.


#include <atomic>
#include <functional>
#include <thread>

#include <nlohmann/json.hpp>

#include "services/hbexit.h"
#include "testutil.h"

namespace {

std::string replaced(std::string text, const std::string &from, const std::string &to)
{
    return text.replace(text.find(from), from.size(), to);
}

std::string own_on_loopback(const std::string &cluster)
{
    return replaced(replaced(cluster, "198.18.1.1", "127.0.0.1/8"), "198.18.2.1", "::1");
}

class Zemctl : public ptest::TempRoot {
protected:
    std::string out;

    void SetUp() override
    {
        TempRoot::SetUp();
        put("etc/cluster.xml", own_on_loopback(ptest::slurp(EXAMPLES_DIR "/cluster.xml")));
        put("etc/local.xml", ptest::slurp(EXAMPLES_DIR "/local-node1.xml"));
    }
    // Runs zemctl to its end; its output is left in out.
    int zemctl(std::vector<std::string> args, const std::vector<std::string> &env = {})
    {
        args.insert(args.begin(), ZEMCTL_PATH);
        int rc = ptest::finish(ptest::spawn(args, at("zemctl.out"), env));
        out = ptest::slurp(at("zemctl.out"));
        return rc;
    }
    void init_and_attach()
    {
        ASSERT_EQ(zemctl({"init"}), 0) << out;
        ASSERT_EQ(shmnm_attach(), 0);
        ASSERT_EQ(shmcm_attach(), 0);
        ASSERT_EQ(sem_attach(), 0);
    }
};

// This test process is the daemon that published; its post wakes the
// watcher in another process, which also sees a value set (no post) and
// the cause the publication carried.
TEST_F(Zemctl, StatusAndWatchShowWhatTheDaemonPublishedAndInitResetsOnlyWhenForced)
{
    init_and_attach();
    pid_t w = ptest::spawn({ZEMCTL_PATH, "watch", "--timeout", "60"}, at("watch.out"));
    ASSERT_TRUE(ptest::await_text(at("watch.out"), "watching")) << ptest::slurp(at("watch.out"));
    ASSERT_EQ(shmnm_setrscsvstat("lanhb", "lan1", 1, SHMNM_SVSTAT_ONLINE), 0);
    ASSERT_EQ(hbext_setcause("lanhb", "lan1", 1, HBEXT_CAUSE_TIMEOUT), 0);
    ASSERT_EQ(shmnm_setrscsvstat("lanhb", "lan1", 1, SHMNM_SVSTAT_OFFLINE), 0);
    ASSERT_EQ(shmnm_setrscsvstat("cnthb", "cnt1", 1, 42), 0);
    ASSERT_EQ(sem_set_statchange(), 0);
    ASSERT_EQ(zemctl({"set", "ratio", "3"}), 0) << out;
    EXPECT_TRUE(ptest::await_text(at("watch.out"), "ratio: 1 -> 3 (set)")) << ptest::slurp(at("watch.out"));
    kill(w, SIGTERM);
    EXPECT_EQ(ptest::finish(w), 128 + SIGTERM);
    const std::string watched = ptest::slurp(at("watch.out"));
    EXPECT_TRUE(ptest::has(watched, "lanhb lan1 node node2: UNKNOWN -> OFFLINE (timeout)")) << watched;
    EXPECT_TRUE(ptest::has(watched, "cnthb cnt1 node node2: UNKNOWN -> 0x2a (none)")) << watched; // no name: hex
    ASSERT_EQ(zemctl({"status", "--json"}), 0) << out;
    auto j = nlohmann::json::parse(out);
    EXPECT_EQ(j["daemon"]["lock_pid"], getpid());
    EXPECT_EQ(j["lanhb"][0]["nodes"][1]["down_count"], 1);
    EXPECT_EQ(j["lanhb"][0]["nodes"][1]["cause"], "timeout");
    EXPECT_TRUE(j["host"] == "node1" && j["cluster_name"] == "demo") << j;
    EXPECT_EQ(j["cnthb"][0]["nodes"][1]["stat"], "0x2a");
    EXPECT_EQ(zemctl({"init"}), 1) << out;
    EXPECT_TRUE(ptest::has(out, "init refused") && ptest::has(out, "--force")) << out;
    shmnm_detach();
    EXPECT_EQ(zemctl({"status"}), 3) << out;
    EXPECT_TRUE(ptest::has(out, "no daemon attached since ") &&
                ptest::has(out, " (pid " + std::to_string(getpid()) + "); states below are the last published"))
        << out;
    ASSERT_EQ(zemctl({"init", "--force"}), 0) << out;
    ASSERT_EQ(zemctl({"status", "--json"}), 3) << out;
    j = nlohmann::json::parse(out);
    EXPECT_EQ(j["lanhb"][0]["nodes"][1]["stat"], "UNKNOWN");
    EXPECT_TRUE(j["daemon"]["pid"].is_null());
}

// This process as the daemon: what it published, in the file "zemctl
// metrics --textfile" renames into place (label values escaped); its
// counters also once it has gone, never those of a daemon before an init.
TEST_F(Zemctl, MetricsTellTheStatesAndTheCountersOfTheDaemonOnRecord)
{
    put("etc/cluster.xml", replaced(ptest::slurp(at("etc/cluster.xml")), "<name>demo<", "<name>a\"b\\c<"));
    init_and_attach();
    ASSERT_EQ(shmnm_setrscsvstat("lanhb", "lan1", 1, SHMNM_SVSTAT_ONLINE), 0); // node2
    const uint64_t node[HBEXT_NC_COUNT] = {7, 8, 1, 2, static_cast<uint64_t>(plat_now_ms() - 1500)};
    ASSERT_EQ(hbext_setcounts("lanhb", "lan1", 1, node), 0);
    const uint64_t kind[HBEXT_KC_COUNT] = {9, 0, 3, 0, 0, 0};
    ASSERT_EQ(hbext_setcounts("lanhb", nullptr, HBEXT_PATH, kind), 0);
    const std::string file = at("node.prom");
    const char *const lines[] = {
        "\nzemlanhb_daemon_up 1\n", "zemlanhb_node_up{kind=\"lanhb\",path=\"lan1\",node=\"node2\"} 1",
        "zemlanhb_node_state{kind=\"cnthb\",path=\"cnt1\",node=\"node1\",state=\"UNKNOWN\"} 1",
        "zemlanhb_node_up{kind=\"cnthb\",path=\"cnt1\",node=\"node1\"} 0",
        "zemlanhb_sent_datagrams_total{path=\"lan1\",node=\"node2\"} 8",
        "zemlanhb_bind_errors_total{path=\"lan1\",node=\"node2\"} 2", "zemlanhb_received_datagrams_total 9",
        "zemlanhb_delay_warnings_total{kind=\"lanhb\",msgno=\"72\"} 3",
        "zemlanhb_heartbeat_age_seconds{kind=\"lanhb\",path=\"lan1\",node=\"node2\"} ", "cluster=\"a\\\"b\\\\c\""};
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(zemctl({"metrics", "--textfile", file}), 0) << out;
        const std::string m = ptest::slurp(file);
        for (const char *line : lines)
            EXPECT_TRUE(ptest::has(m, line) != (round == 1 && line == lines[0])) << line << "\n" << m;
        shmnm_detach(); // the daemon gone: its counters stay
    }
    for (const auto &f : std::filesystem::directory_iterator(root))
        EXPECT_FALSE(ptest::has(f.path().filename().string(), "node.prom.")) << f.path(); // no temporary left
    ASSERT_EQ(zemctl({"init", "--force"}), 0) << out;
    ASSERT_EQ(zemctl({"metrics"}), 0) << out;
    EXPECT_TRUE(ptest::has(out, "zemlanhb_daemon_up 0") && !ptest::has(out, "zemlanhb_sent_datagrams_total{")) << out;
}

// Check and init name every problem with its place, control characters
// escaped; the init that refuses leaves run/ as it was.
TEST_F(Zemctl, CheckAndInitNameEveryConfigurationProblemWithItsPlace)
{
    EXPECT_EQ(zemctl({"status"}), 1);
    EXPECT_TRUE(ptest::has(out, at("run/shmnm") + " is missing (ret:3); run \"zemctl init\"")) << out;
    EXPECT_EQ(zemctl({"status"}, {"ZEM_ROOT=" + at("nowhere")}), 1);
    EXPECT_TRUE(ptest::has(out, "root directory " + at("nowhere") + " does not exist")) << out;
    ASSERT_EQ(zemctl({"init"}), 0) << out;
    const auto runfiles = [&] { return ptest::slurp(at("run/shmnm")) + ptest::slurp(at("run/shmcm")); };
    const std::string run = runfiles();
    const std::string cl = ptest::slurp(EXAMPLES_DIR "/cluster.xml"), local = ptest::slurp(at("etc/local.xml"));
    const std::string many = R"(<root>
<server name="a"><priority>0</priority><device name="0"><info>198.18.0.300</info></device></server>
<server name="b"><priority>0</priority></server>
<server name="a"><priority>70</priority></server>
<server><priority>3</priority></server>
<heartbeat><lanhb name="l"><priority>0</priority><device>x</device></lanhb>
<cnthb name="c"/></heartbeat>)" "<server name=\"node\x1b]0;\xff\"><priority>1</priority></server>" R"(
<cluster><heartbeat><timeout>ten</timeout></heartbeat></cluster></root>)";
    const std::tuple<std::string, std::string, std::vector<const char *>> cases[] = {
        {many, local,
         {":2: /root/server@a/device@0/info: not an IPv4 or IPv6 address", ":3: /root/server@b/priority: priority 0 used twice",
          ":4: /root/server@a: server defined twice", ":4: /root/server@a/priority: not an integer from 0 to 63",
          ":5: /root/server: missing name attribute", ":6: /root/heartbeat/lanhb@l/device: not a device id",
          ":7: /root/heartbeat/cnthb@c/priority: missing",
          ":7: /root/server@node\\x1b]0;\\xff: name is not printable UTF-8",
          ":8: /root/cluster/heartbeat/timeout: not a 32-bit integer: \"ten\""}},
        {cl.substr(0, cl.find("</server>")), local, {"XML error"}},
        {own_on_loopback(cl), "<local><hostname>node7</hostname></local>",
         {"local.xml: /local/hostname: \"node7\" is not a <server>"}},
    };
    for (const auto &[cluster, loc, wants] : cases) {
        put("etc/cluster.xml", cluster);
        put("etc/local.xml", loc);
        for (const char *cmd : {"check", "init"}) {
            EXPECT_EQ(zemctl({cmd}), 1) << out;
            for (const char *want : wants)
                EXPECT_TRUE(ptest::has(out, want) && !ptest::has(out, "\x1b")) << want << " in\n" << out;
        }
    }
    put("etc/local.xml", replaced(local, "node1<", "node1.example<")); // the node is the name before the domain
    EXPECT_EQ(zemctl({"check"}), 0) << out;
    EXPECT_EQ(runfiles(), run);
}

// What the daemon needs of this host: the key file it is given, taken as it
// takes the name (relative: under the root), and every LAN path's own
// address on an interface. check refuses without them; init refuses a key
// the daemon would refuse, and only warns of an address, which may come up
// later.
TEST_F(Zemctl, CheckFindsWhatThisHostLacksForTheDaemon)
{
    const std::string cl = ptest::slurp(at("etc/cluster.xml")), key = at("etc/authkey");
    put("etc/cluster.xml", replaced(cl, "<mismatch>", "<authkey>etc/authkey</authkey><mismatch>"));
    const auto keyfile = [&](size_t size, mode_t mode) {
        put("etc/authkey", std::string(size, 'k'));
        ASSERT_EQ(chmod(key.c_str(), mode), 0);
    };
    const std::pair<std::function<void()>, std::string> keys[] = {
        {[] {}, "missing"},
        {[&] { ASSERT_EQ(mkfifo(key.c_str(), 0600), 0); }, "not a regular file"},
        {[&] { ASSERT_EQ(symlink(at("etc/cluster.xml").c_str(), key.c_str()), 0); }, "a symbolic link"},
        {[&] { keyfile(HBEXT_KEY_SIZE, 0644); }, "mode 0644, must be 0600 or 0400"},
        {[&] { keyfile(HBEXT_KEY_SIZE - 1, 0600); }, "31 bytes, must be 32"},
    };
    for (const auto &[make, why] : keys) {
        std::filesystem::remove(key);
        make();
        for (const char *cmd : {"check", "init"}) {
            EXPECT_EQ(zemctl({cmd}), 1) << out;
            EXPECT_TRUE(ptest::has(out, "/root/cluster/heartbeat/authkey: key file " + key + ": " + why)) << out;
        }
    }
    keyfile(HBEXT_KEY_SIZE, 0400);
    EXPECT_EQ(zemctl({"check"}), 0) << out;
    put("etc/cluster.xml", replaced(cl, "<mismatch>", "<authkey>" + key + "</authkey><mismatch>")); // absolute
    EXPECT_EQ(zemctl({"check"}), 0) << out;
    // A zone is for link-local addresses only, to the resolver as to the daemon.
    put("etc/cluster.xml", replaced(replaced(cl, "127.0.0.1/8", "198.18.1.1"), "::1", "::1%lo"));
    const std::string lost[] = {
        "/root/server@node1/device@0/info: lanhb path lan1: address 198.18.1.1 is not an address of this host",
        "/root/server@node1/device@1/info: lanhb path lan2: address ::1%lo cannot be used on this host"};
    for (const auto &[cmd, rc, said] : {std::tuple("check", 1, "error: "), std::tuple("init", 0, "warning: ")}) {
        EXPECT_EQ(zemctl({cmd}), rc) << out;
        for (const std::string &l : lost)
            EXPECT_TRUE(ptest::has(out, said + at("etc/cluster.xml") + ": " + l)) << l << " in\n" << out;
    }
}

// What a local user could have planted under run/ and log/: init brings
// modes back, or refuses naming the path; it never follows or blocks.
TEST_F(Zemctl, InitFixesModesAndRefusesPlantedFiles)
{
    namespace fs = std::filesystem;
    ASSERT_EQ(zemctl({"init"}), 0) << out;
    const std::string log = at("log/lanhb.log");
    put("log/lanhb.log", "old records\n");
    for (const char *rel : {"run", "run/shmnm", "log", "log/lanhb.log"})
        ASSERT_EQ(chmod(at(rel).c_str(), 0777), 0);
    ASSERT_EQ(zemctl({"init"}), 0) << out;
    const std::pair<const char *, int> modes[] = {
        {"run", 0700}, {"run/shmnm", 0600}, {"run/hbarea", 0640}, {"log", 0750}, {"log/lanhb.log", 0640}};
    for (auto [rel, mode] : modes)
        EXPECT_EQ(static_cast<int>(fs::symlink_status(at(rel)).permissions()), mode) << rel;
    for (bool link : {true, false}) {
        fs::remove(log);
        ASSERT_EQ(link ? symlink(at("elsewhere").c_str(), log.c_str()) : mkfifo(log.c_str(), 0666), 0);
        EXPECT_EQ(zemctl({"init"}), 1) << out;
        EXPECT_TRUE(ptest::has(out, log + (link ? ": is a symbolic link" : ": not a regular file"))) << out;
    }
    EXPECT_FALSE(fs::exists(at("elsewhere")));
}

TEST_F(Zemctl, SetWritesWhatTheDaemonReads)
{
    // node2 at the top of the priority range, which is its id.
    put("etc/cluster.xml", replaced(ptest::slurp(at("etc/cluster.xml")), "node2\">\n    <priority>1<", "node2\">\n    <priority>63<"));
    init_and_attach();
    int32_t pri = 0, hd = 0;
    EXPECT_TRUE(shmnm_getnodepri("node2", &pri) == 0 && pri == 63) << pri;
    EXPECT_TRUE(shmnm_gethdstat("node2", &hd) == 0 && hd == SHMNM_HDSTAT_OK) << hd; // init lets heartbeats count
    using get = int32_t (*)(int32_t *);
    const std::tuple<std::vector<std::string>, get, int32_t> cases[] = {
        {{"ratio", "3"}, [](int32_t *v) { return shmcm_getratio(v, nullptr); }, 3},
        {{"action", "0x2000005"}, [](int32_t *v) { return shmcm_getaction(v, nullptr, nullptr); },
         SHMCM_ACTION_RESUME_B},
        {{"waitstat", "1"}, shmnm_getwaitstat, SHMNM_WAITSTAT_RESUME},
        {{"hdstat", "node2", "9"}, [](int32_t *v) { return shmnm_gethdstat("node2", v); }, 9},
        {{"nodestat", "node1", "7"}, [](int32_t *v) { return shmnm_getnodestat("node1", v); }, 7},
        // Read twice: asking does not use the setting up.
        {{"down", "on"}, [](int32_t *v) { return *v = sem_wait_downnotify(0) + sem_wait_downnotify(0), 0; }, 0},
        {{"down", "off"}, [](int32_t *v) { return *v = sem_wait_downnotify(0) + sem_wait_downnotify(0), 0; }, 2},
    };
    for (const auto &[args, read, want] : cases) {
        std::vector<std::string> a = args;
        a.insert(a.begin(), "set");
        ASSERT_EQ(zemctl(a), 0) << out;
        int32_t v = -99;
        ASSERT_EQ(read(&v), 0) << args[0];
        EXPECT_EQ(v, want) << args[0];
    }
    const std::tuple<std::vector<std::string>, int, const char *> refused[] = {
        {{"set", "ratio", "0"}, 2, "must be 1 or more"},
        {{"set", "ratio", "361"}, 2, "over an hour; repeat with --force"}, // hbto 10000: 10 s x 361
        {{"set", "hdstat", "node9", "1"}, 1, "no such node"},
        {{"set", "ration", "2"}, 2, "did you mean \"ratio\"?"},
    };
    for (const auto &[args, rc, why] : refused) {
        EXPECT_EQ(zemctl(args), rc) << args.back();
        EXPECT_TRUE(ptest::has(out, why)) << out;
    }
    int32_t ratio = 0;
    ASSERT_EQ(shmcm_getratio(&ratio, nullptr), 0);
    EXPECT_EQ(ratio, 3); // none of them was stored
    EXPECT_EQ(zemctl({"set", "ratio", "361", "--force"}), 0) << out;
}

// The plain run and stop, the daemon adopting the lock and the readiness
// notices are proven by the system tests. The stand-in daemon tells zemctl
// it is up, echoes the signals it gets and ends as END says.
TEST_F(Zemctl, RunSignalsTheDaemonAndEndsWithItsStatus)
{
    ASSERT_EQ(zemctl({"init"}), 0) << out;
    const std::string daemon = at("daemon");
    put("daemon", "#!/bin/sh\ntrap 'echo usr2' USR2\ntrap 'echo usr1; eval \"$END\"' USR1\neval \"$EARLY\"\n"
                  "kill -USR1 $PPID\nwhile :; do sleep 0.01; done\n");
    ASSERT_EQ(chmod(daemon.c_str(), 0700), 0);
    // A hang-up (terminal closed) stops in order as SIGTERM does.
    const std::tuple<std::vector<std::string>, const char *, int, const char *, const char *, bool, int> cases[] = {
        {{}, "END=exit 5", 5, "Hangup received; down notification on; sending SIGUSR1", "exited with status 5", true,
         SIGHUP},
        {{"--no-down"}, "END=kill -9 $$", 128 + SIGKILL, "down notification off; sending SIGUSR1",
         "was killed by signal 9", false, SIGTERM},
    };
    for (const auto &[opts, end, rc, said, ended, down, sig] : cases) {
        std::vector<std::string> args = {ZEMCTL_PATH, "run", "--daemon", daemon};
        args.insert(args.end(), opts.begin(), opts.end());
        pid_t p = ptest::spawn(args, at("run.out"), {end});
        ASSERT_TRUE(ptest::await_text(at("run.out"), "usr2")) << ptest::slurp(at("run.out"));
        kill(p, sig);
        EXPECT_EQ(ptest::finish(p), rc);
        out = ptest::slurp(at("run.out"));
        for (const std::string &want : {std::string(said) + " to daemon", std::string("usr1\n"), std::string(ended)})
            EXPECT_TRUE(ptest::has(out, want)) << want << " in\n" << out;
        ASSERT_EQ(zemctl({"status", "--json"}), 3) << out;
        EXPECT_EQ(nlohmann::json::parse(out)["cluster"]["down_notification"], down);
    }
    // The watchdog's SIGABRT: the daemon is killed at once, not stopped in order.
    pid_t p = ptest::spawn({ZEMCTL_PATH, "run", "--daemon", daemon}, at("run.out"));
    ASSERT_TRUE(ptest::await_text(at("run.out"), "usr2")) << ptest::slurp(at("run.out"));
    kill(p, SIGABRT);
    EXPECT_EQ(ptest::finish(p), 128 + SIGKILL);
    out = ptest::slurp(at("run.out"));
    EXPECT_TRUE(ptest::has(out, "killing daemon (pid") && !ptest::has(out, "usr1")) << out;
    // Exit 12 is a configuration that cannot be loaded: zemctl says why.
    put("etc/cluster.xml", "<root>\n<cluster>\n</root>\n");
    EXPECT_EQ(zemctl({"run", "--daemon", daemon}, {"EARLY=exit 12"}), 12) << out;
    EXPECT_FALSE(ptest::has(out, "is up")) << out;
    EXPECT_TRUE(ptest::has(out, "probable cause: " + at("etc/cluster.xml") + ":3:")) << out;
    EXPECT_EQ(zemctl({"run", "--daemon", at("no-such-daemon")}), 127);
    EXPECT_TRUE(ptest::has(out, "cannot run")) << out;
}

// The formatter's refusals are proven in test_storage.cpp. The display: a
// slot this process writes on and on reads as changing, the others as
// unchanged for as long as their stamps say; a foreign tag is escaped.
TEST_F(Zemctl, AreaCreateIsRefusedOverAnAreaUnlessForcedAndShowTellsLiveSlotsFromStillOnes)
{
    ASSERT_EQ(zemctl({"init"}), 0) << out;
    const std::string area = at("run/hbarea");
    EXPECT_EQ(zemctl({"area", "create", area}), 1);
    EXPECT_TRUE(ptest::has(out, "area create refused: " + area + " holds the heartbeat area of cluster \"demo\"") &&
                ptest::has(out, "--force"))
        << out;
    ASSERT_EQ(zemctl({"area", "create", "--force", area}), 0) << out;
    EXPECT_TRUE(ptest::has(out, "formatted " + area + " as the heartbeat area of cluster \"demo\"")) << out;
    uint8_t cntno = 0;
    ASSERT_EQ(zemstorage_init(&cntno), 0) << plat_lasterror();
    auto stamp = [](time_t ago, const std::string &ms) {
        time_t t = time(nullptr) - ago;
        char b[64];
        return std::string(b, strftime(b, sizeof b, ("%a %b %e %H:%M:%S" + ms + "%Y").c_str(), localtime(&t)));
    };
    auto put_slot = [](uint8_t k, const std::string &tag, const std::string &stamp) {
        std::string rec(ZEMFW_HBINF_SIZE, '\0');
        rec.replace(0, tag.size(), tag).replace(8, stamp.size(), stamp);
        ASSERT_EQ(zemfw_sethbinf(k, rec.data()), 0);
    };
    put_slot(0, "cnthb", stamp(7200, ".250 "));
    put_slot(2, "hbdown", stamp(90, " "));
    put_slot(3, "x\x1b]0;", "junk");
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int n = 1; !done; n++, usleep(5000))
            put_slot(1, "cnthb", std::to_string(n));
    });
    int rc = zemctl({"area", "show", "--interval", "1", "--json"});
    done = true;
    writer.join();
    ASSERT_EQ(rc, 0) << out;
    auto j = nlohmann::json::parse(out);
    ASSERT_EQ(j["records"].size(), 4u) << out;
    // slot, changed, down notice, unchanged for (s)
    const std::tuple<int, bool, bool, int> want[] = {{0, false, false, 7200}, {1, true, false, 0},
                                                     {2, false, true, 90},    {3, false, false, 1}};
    for (size_t i = 0; i < 4; i++) {
        const auto &[slot, changed, down, still] = want[i];
        const auto &r = j["records"][i];
        EXPECT_TRUE(r["slot"] == slot && r["changed"] == changed && r["down_notice"] == down) << r;
        EXPECT_NEAR(r["unchanged_ms"].get<int64_t>() / 1000.0, still, 3) << r;
    }
    ASSERT_EQ(zemctl({"area", "show", "--interval", "0"}), 0) << out;
    for (const char *line : {"   0  cnthb   ", ".250 ", "  stamp 2h00m old\n", "   2  hbdown  ",
                             "DOWN notice (stopped in order), stamp 1m3", "   3  x\\x1b]0; junk",
                             "unknown tag, ignored by the daemon", "60 slot(s) never written"})
        EXPECT_TRUE(ptest::has(out, line)) << line << " in\n" << out;
    EXPECT_FALSE(ptest::has(out, "\x1b")) << out;
    put("etc/cluster.xml", "<root><cluster><name>beta</name></cluster></root>");
    EXPECT_EQ(zemctl({"area", "show", "--interval", "0"}), 1) << out;
    EXPECT_TRUE(ptest::has(out, "(NOT this node's cluster)") &&
                ptest::has(out, area + " is the heartbeat area of cluster \"demo\", not of this cluster \"beta\""))
        << out;
}

// The real daemon on a root never initialised, then failing where only its
// log says why: run says what its log says of this start, and never that
// the daemon runs.
TEST_F(Zemctl, RunSaysWhyTheDaemonCouldNotStart)
{
    EXPECT_EQ(zemctl({"run", "--daemon", ZEMLANHB_PATH}), 1) << out;
    EXPECT_TRUE(ptest::has(out, at("run/sem") + " is missing (ret:3); run \"zemctl init\"") &&
                !ptest::has(out, "started"))
        << out;
    ASSERT_EQ(zemctl({"init"}), 0) << out;
    const std::string cl = ptest::slurp(at("etc/cluster.xml")), local = ptest::slurp(at("etc/local.xml"));
    const std::tuple<std::string, std::string, int, std::vector<std::string>> cases[] = {
        {replaced(cl, "<mismatch>", "<authkey>etc/authkey</authkey><mismatch>"), local, HBEXIT_KEY,
         {"probable cause: key file " + at("etc/authkey") + ": ", "probable cause: lanhb_keyload() failed"}},
        {cl, "<local><hostname>node7</hostname></local>", HBEXIT_LOAD,
         {"probable cause: lanhb_loadinfo() failed(ret:"}},
    };
    for (const auto &[cluster, loc, status, causes] : cases) {
        put("etc/cluster.xml", cluster);
        put("etc/local.xml", loc);
        EXPECT_EQ(zemctl({"run", "--daemon", ZEMLANHB_PATH}), status) << out;
        for (const std::string &cause : causes)
            EXPECT_TRUE(ptest::has(out, cause) && !ptest::has(out, " runs:")) << cause << " in\n" << out;
        EXPECT_FALSE(ptest::has(out, "key file") && status != HBEXIT_KEY) << out; // the earlier start's
    }
}

} // namespace
