// zemctl end to end: the built tool on a temporary root, with this test
// process on the same shared memory as the daemon would be, and a stand-in
// daemon for "run".
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <map>

#include <nlohmann/json.hpp>

#include "plat.h"
#include "testutil.h"

namespace {

// A service manager's notification socket, as a Type=notify unit gives it.
class NotifySocket {
public:
    explicit NotifySocket(const std::string &path) : path_(path)
    {
        fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a), 0) << strerror(errno);
    }
    ~NotifySocket() { close(fd_); }
    std::string env() const { return "NOTIFY_SOCKET=" + path_; }
    // Every message received so far, each followed by "|".
    std::string drain() const
    {
        std::string all;
        char buf[512];
        for (ssize_t n; (n = recv(fd_, buf, sizeof buf, 0)) > 0;)
            all += std::string(buf, static_cast<size_t>(n)) + "|";
        return all;
    }

private:
    std::string path_;
    int fd_;
};

class Zemctl : public ptest::TempRoot {
protected:
    std::string out;

    void SetUp() override
    {
        TempRoot::SetUp();
        put("etc/cluster.xml", ptest::slurp(EXAMPLES_DIR "/cluster.xml"));
        put("etc/local.xml", ptest::slurp(EXAMPLES_DIR "/local-node1.xml"));
    }
    void TearDown() override
    {
        shmnm_detach();
        shmcm_detach();
        sem_detach();
        TempRoot::TearDown();
    }
    // Runs zemctl to its end; its output is left in out.
    int zemctl(std::vector<std::string> args, const std::vector<std::string> &env = {})
    {
        args.insert(args.begin(), ZEMCTL_PATH);
        int rc = ptest::finish(ptest::spawn(args, root, at("zemctl.out"), env));
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

// Keys of an object in document order.
std::vector<std::string> keys(const nlohmann::ordered_json &j)
{
    std::vector<std::string> out;
    for (const auto &[k, v] : j.items())
        out.push_back(k);
    return out;
}

// The documented JSON shape, key by key, with this test process as the
// daemon that published.
TEST_F(Zemctl, StatusJsonCarriesEveryDocumentedKeyAndKnowsTheDaemon)
{
    init_and_attach();
    EXPECT_TRUE(ptest::has(out, "2 servers, 2 lanhb paths, 1 cnthb paths")) << out;
    EXPECT_TRUE(std::filesystem::exists(at("run/hbarea")));
    ASSERT_EQ(shmnm_setrscsvstat("lanhb", "lan1", 1, SHMNM_SVSTAT_ONLINE), 0);
    ASSERT_EQ(shmnm_setrscsvstat("lanhb", "lan1", 1, SHMNM_SVSTAT_OFFLINE), 0);
    ASSERT_EQ(shmnm_setrscstat("lanhb", "lan2", SHMNM_RSCSTAT_CAUTION), 0);
    ASSERT_EQ(shmnm_setrscsvstat("cnthb", "cnt1", 1, 42), 0);
    ASSERT_EQ(zemctl({"status", "--json"}), 0) << out;
    auto j = nlohmann::ordered_json::parse(out);
    using strs = std::vector<std::string>;
    EXPECT_EQ(keys(j), (strs{"version", "root", "time_ms", "daemon", "initialised_at_ms", "cluster", "lanhb", "cnthb"}));
    EXPECT_EQ(j["version"], 1);
    EXPECT_EQ(keys(j["daemon"]), (strs{"running", "pid", "attached_at_ms", "detached_at_ms", "lock_pid"}));
    EXPECT_EQ(j["daemon"]["running"], true);
    EXPECT_EQ(j["daemon"]["pid"], getpid());
    EXPECT_EQ(j["daemon"]["lock_pid"], getpid());
    EXPECT_TRUE(j["daemon"]["detached_at_ms"].is_null());
    EXPECT_EQ(keys(j["cluster"]), (strs{"ratio", "action", "waitstat", "nonvol", "down_notification"}));
    EXPECT_EQ(j["cluster"]["ratio"], 1);
    EXPECT_EQ(j["cluster"]["down_notification"], false);
    const strs pathkeys{"name", "pri", "stat", "changed_at_ms", "since_ms", "published_at_ms", "nodes"};
    const strs nodekeys{"name", "pri", "stat", "changed_at_ms", "since_ms", "published_at_ms", "down_count"};
    std::map<std::string, std::string> stats;
    for (const char *kind : {"lanhb", "cnthb"})
        for (const auto &p : j[kind]) {
            EXPECT_EQ(keys(p), pathkeys);
            stats[p["name"]] = p["stat"];
            for (const auto &n : p["nodes"]) {
                EXPECT_EQ(keys(n), nodekeys);
                stats[p["name"].get<std::string>() + "/" + n["name"].get<std::string>()] = n["stat"];
            }
        }
    const std::map<std::string, std::string> want = {
        {"lan1", "UNKNOWN"}, {"lan1/node1", "UNKNOWN"}, {"lan1/node2", "OFFLINE"},
        {"lan2", "CAUTION"}, {"lan2/node1", "UNKNOWN"}, {"lan2/node2", "UNKNOWN"},
        {"cnt1", "UNKNOWN"}, {"cnt1/node1", "UNKNOWN"}, {"cnt1/node2", "0x2a"}, // no name: hex, still a string
    };
    EXPECT_EQ(stats, want);
    const auto &n2 = j["lanhb"][0]["nodes"][1];
    EXPECT_EQ(n2["down_count"], 1);
    EXPECT_EQ(n2["changed_at_ms"], n2["published_at_ms"]);
    EXPECT_GE(n2["since_ms"].get<int64_t>(), 0);
    EXPECT_TRUE(j["lanhb"][0]["nodes"][0]["changed_at_ms"].is_null());

    ASSERT_EQ(zemctl({"status"}), 0) << out;
    EXPECT_TRUE(ptest::has(out, "daemon running (pid " + std::to_string(getpid()) + ", since ")) << out;
    EXPECT_TRUE(ptest::has(out, "CAUTION") && ptest::has(out, "ratio 1")) << out;
    // init does not reset under a running daemon, unless forced.
    EXPECT_EQ(zemctl({"init"}), 1) << out;
    EXPECT_TRUE(ptest::has(out, "init refused") && ptest::has(out, "--force")) << out;
    shmnm_detach();
    ASSERT_EQ(zemctl({"status"}), 3) << out;
    EXPECT_TRUE(ptest::has(out, "no daemon attached since ")) << out;
    EXPECT_TRUE(ptest::has(out, "states below are the last published")) << out;
    ASSERT_EQ(zemctl({"init", "--force"}), 0) << out;
    ASSERT_EQ(zemctl({"status", "--json"}), 3) << out;
    j = nlohmann::ordered_json::parse(out);
    EXPECT_EQ(j["lanhb"][0]["nodes"][1]["stat"], "UNKNOWN");
    EXPECT_TRUE(j["daemon"]["pid"].is_null());
}

TEST_F(Zemctl, InitRefusesBrokenConfigurationNamingFileLineAndKey)
{
    EXPECT_EQ(zemctl({"status"}), 1);
    EXPECT_TRUE(ptest::has(out, at("run/shmnm") + " is missing (ret:3); run \"zemctl init\"")) << out;
    EXPECT_EQ(zemctl({"status"}, {"ZEM_ROOT=" + at("nowhere")}), 1);
    EXPECT_TRUE(ptest::has(out, "root directory " + at("nowhere") + " does not exist")) << out;
    std::string cl = ptest::slurp(EXAMPLES_DIR "/cluster.xml");
    std::string bad = cl;
    bad.replace(bad.find("<timeout>10000"), 14, "<timeout>ten");
    const std::tuple<std::string, std::string, const char *> cases[] = {
        {bad, "", "cluster.xml:19: /root/cluster/heartbeat/timeout: not a 32-bit integer: \"ten\""},
        {cl.substr(0, cl.find("</server>")), "", "XML error"},
        {cl, "<local><hostname>node7</hostname></local>", "local.xml: /local/hostname: \"node7\" is not a <server>"},
    };
    for (const auto &[cluster, local, why] : cases) {
        put("etc/cluster.xml", cluster);
        if (!local.empty())
            put("etc/local.xml", local);
        EXPECT_EQ(zemctl({"init"}), 1) << out;
        EXPECT_TRUE(ptest::has(out, why)) << out;
        EXPECT_FALSE(std::filesystem::exists(at("run")));
    }
}

// Every file under run/ with its bytes and mode.
std::map<std::string, std::string> run_files(const std::string &dir)
{
    std::map<std::string, std::string> out;
    for (const auto &e : std::filesystem::directory_iterator(dir))
        out[e.path().filename()] = std::to_string(static_cast<int>(e.status().permissions())) + ":" +
                                   ptest::slurp(e.path());
    return out;
}

TEST_F(Zemctl, CheckFindsWhatInitFindsAndChangesNothing)
{
    ASSERT_EQ(zemctl({"init"}), 0) << out;
    ASSERT_EQ(chmod(at("run").c_str(), 0777), 0);
    const auto before = run_files(at("run"));
    std::string cl = ptest::slurp(EXAMPLES_DIR "/cluster.xml");
    auto with = [&](const std::string &from, const std::string &to) {
        std::string c = cl;
        return c.replace(c.find(from), from.size(), to);
    };
    const std::pair<std::string, const char *> cases[] = {
        {with("name=\"node2\"", "name=\"node\xff\""), "/root/server@node\\xff: name is not printable UTF-8"},
        {with("name=\"lan1\"", "name=\"lan\x1b[31m\""), "/root/heartbeat/lanhb@lan\\x1b[31m: name is not printable"},
        {with("<timeout>10000", "<timeout>ten"), "not a 32-bit integer: \"ten\""},
    };
    for (const auto &[text, why] : cases) {
        put("etc/cluster.xml", text);
        EXPECT_EQ(zemctl({"check"}), 1) << out;
        EXPECT_TRUE(ptest::has(out, why)) << out;
        EXPECT_EQ(out.find('\x1b'), std::string::npos) << out;
        const std::string checked = out.substr(0, out.find("zemctl:"));
        EXPECT_EQ(zemctl({"init"}), 1) << out;
        EXPECT_EQ(out.substr(0, out.find("zemctl:")), checked); // the same problems, the same way
    }
    EXPECT_EQ(run_files(at("run")), before);
    put("etc/cluster.xml", cl);
    EXPECT_EQ(zemctl({"check"}), 0) << out;
    EXPECT_EQ(run_files(at("run")), before);
}

// What a local user could have planted under run/ and log/: init brings
// modes back, or refuses naming the path; it never follows or blocks.
TEST_F(Zemctl, InitFixesModesAndRefusesPlantedFiles)
{
    namespace fs = std::filesystem;
    ASSERT_EQ(zemctl({"init"}), 0) << out;
    put("log/lanhb.log", "old records\n");
    ASSERT_EQ(chmod(at("run").c_str(), 0777), 0);
    ASSERT_EQ(chmod(at("run/shmnm").c_str(), 0666), 0);
    ASSERT_EQ(chmod(at("log").c_str(), 0777), 0);
    ASSERT_EQ(chmod(at("log/lanhb.log").c_str(), 0666), 0);
    ASSERT_EQ(zemctl({"init"}), 0) << out;
    auto mode = [&](const char *rel) { return static_cast<int>(fs::symlink_status(at(rel)).permissions()); };
    EXPECT_EQ(mode("run"), 0700);
    EXPECT_EQ(mode("run/shmnm"), 0600);
    EXPECT_EQ(mode("run/hbarea"), 0640);
    EXPECT_EQ(mode("log"), 0750);
    EXPECT_EQ(mode("log/lanhb.log"), 0640);
    fs::remove(at("log/lanhb.log"));
    ASSERT_EQ(symlink(at("elsewhere").c_str(), at("log/lanhb.log").c_str()), 0);
    EXPECT_EQ(zemctl({"init"}), 1) << out;
    EXPECT_TRUE(ptest::has(out, at("log/lanhb.log") + ": is a symbolic link")) << out;
    fs::remove(at("log/lanhb.log"));
    ASSERT_EQ(mkfifo(at("log/lanhb.log").c_str(), 0666), 0);
    EXPECT_EQ(zemctl({"init"}), 1) << out;
    EXPECT_TRUE(ptest::has(out, at("log/lanhb.log") + ": not a regular file")) << out;
    EXPECT_FALSE(fs::exists(at("elsewhere")));
}

TEST_F(Zemctl, SetWritesWhatTheDaemonReads)
{
    init_and_attach();
    using get = int32_t (*)(int32_t *);
    const std::tuple<std::vector<std::string>, get, int32_t> cases[] = {
        {{"ratio", "3"}, [](int32_t *v) { return shmcm_getratio(v, nullptr); }, 3},
        {{"action", "0x2000005"}, [](int32_t *v) { return shmcm_getaction(v, nullptr, nullptr); },
         SHMCM_ACTION_RESUME_B},
        {{"waitstat", "1"}, shmnm_getwaitstat, SHMNM_WAITSTAT_RESUME},
        {{"hdstat", "node2", "9"}, [](int32_t *v) { return shmnm_gethdstat("node2", v); }, 9},
        {{"nodestat", "node1", "7"}, [](int32_t *v) { return shmnm_getnodestat("node1", v); }, 7},
        {{"down", "on"}, [](int32_t *v) { return *v = sem_wait_downnotify(0), 0; }, 0},
        {{"down", "off"}, [](int32_t *v) { return *v = sem_wait_downnotify(0), 0; }, 1},
    };
    for (const auto &[args, read, want] : cases) {
        std::vector<std::string> a = args;
        a.insert(a.begin(), "set");
        ASSERT_EQ(zemctl(a), 0) << out;
        int32_t v = -99;
        ASSERT_EQ(read(&v), 0) << args[0];
        EXPECT_EQ(v, want) << args[0];
    }
    EXPECT_EQ(zemctl({"set", "hdstat", "node9", "1"}), 1);
    EXPECT_TRUE(ptest::has(out, "no such node")) << out;
    EXPECT_EQ(zemctl({"set", "ratio", "two"}), 2);
    const std::tuple<std::vector<std::string>, int, const char *> refused[] = {
        {{"set", "ratio", "0"}, 2, "must be 1 or more"},
        {{"set", "ratio", "361"}, 2, "over an hour; repeat with --force"}, // hbto 10000: 10 s x 361
        {{"stauts"}, 2, "unknown subcommand \"stauts\"; did you mean \"status\"?"},
        {{"set", "ration", "2"}, 2, "did you mean \"ratio\"?"},
    };
    for (const auto &[args, rc, why] : refused) {
        EXPECT_EQ(zemctl(args), rc) << args[1];
        EXPECT_TRUE(ptest::has(out, why)) << out;
    }
    int32_t ratio = 0;
    ASSERT_EQ(shmcm_getratio(&ratio, nullptr), 0);
    EXPECT_EQ(ratio, 3); // none of them was stored
    EXPECT_EQ(zemctl({"set", "ratio", "361", "--force"}), 0) << out;
    EXPECT_EQ(zemctl({"set", "down", "maybe"}), 2);
    EXPECT_EQ(zemctl({"set"}), 2);
}

TEST_F(Zemctl, RunSignalsTheDaemonAndEndsWithItsStatus)
{
    ASSERT_EQ(zemctl({"init"}), 0) << out;
    struct {
        std::vector<std::string> env;
        std::vector<std::string> args;
        int rc;
        std::vector<std::string> said;
    } cases[] = {
        {{"HELPER_EXIT=0"}, {}, 0,
         {"is up; sending SIGUSR2", "usr2\n", "down notification on; sending SIGUSR1", "usr1\n",
          "sem_attach=0 down=0 down-again=0", "exited with status 0"}},
        {{"HELPER_EXIT=5"}, {"--no-down"}, 5,
         {"usr2\n", "usr1\n", "sem_attach=0 down=1 down-again=1", "exited with status 5"}},
        {{"HELPER_MODE=crash"}, {}, 128 + SIGKILL, {"usr1\n", "was killed by signal 9"}},
    };
    NotifySocket notify(at("notify"));
    for (auto c : cases) {
        std::vector<std::string> args = {ZEMCTL_PATH, "run", "--daemon", HELPER_PATH};
        args.insert(args.end(), c.args.begin(), c.args.end());
        c.env.push_back(notify.env());
        pid_t p = ptest::spawn(args, root, at("run.out"), c.env);
        ASSERT_GT(p, 0);
        EXPECT_TRUE(ptest::await_text(at("run.out"), "usr2")) << ptest::slurp(at("run.out"));
        // Ready is reported once the daemon is up, stopping on the stop signal.
        std::string said;
        EXPECT_TRUE(ptest::eventually([&] { return !(said += notify.drain()).empty(); }));
        EXPECT_TRUE(said.starts_with("READY=1\nSTATUS=zemplat_helper (pid ")) << said;
        kill(p, SIGTERM);
        EXPECT_EQ(ptest::finish(p), c.rc);
        EXPECT_EQ(notify.drain(), "STOPPING=1|");
        out = ptest::slurp(at("run.out"));
        size_t at_ = 0; // each in this order
        for (const std::string &s : c.said) {
            at_ = out.find(s, at_);
            ASSERT_NE(at_, std::string::npos) << s << " in order in\n" << out;
        }
    }
    // Exit 12 is a configuration that cannot be loaded: zemctl says why, and
    // never reported the service ready.
    put("etc/cluster.xml", "<root>\n<cluster>\n</root>\n");
    EXPECT_EQ(zemctl({"run", "--daemon", HELPER_PATH}, {"HELPER_MODE=early", notify.env()}), 12) << out;
    EXPECT_FALSE(ptest::has(out, "is up")) << out;
    EXPECT_EQ(notify.drain(), "");
    EXPECT_TRUE(ptest::has(out, "exited with status 12")) << out;
    EXPECT_TRUE(ptest::has(out, "probable cause: " + at("etc/cluster.xml") + ":3:")) << out;
    EXPECT_EQ(zemctl({"run", "--daemon", at("no-such-daemon")}), 127);
    EXPECT_TRUE(ptest::has(out, "cannot run")) << out;
}

} // namespace
