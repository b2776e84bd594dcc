// zemctl end to end: the built tool on a temporary root, with this test
// process on the same shared memory as the daemon would be, and a stand-in
// daemon for "run".
#include <sys/socket.h>
#include <sys/un.h>

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

TEST_F(Zemctl, StatusShowsEveryPathAndNodeAsAnotherProcessPublished)
{
    init_and_attach();
    EXPECT_TRUE(ptest::has(out, "2 servers, 2 lanhb paths, 1 cnthb paths")) << out;
    EXPECT_TRUE(std::filesystem::exists(at("run/hbarea")));
    ASSERT_EQ(shmnm_setrscsvstat("lanhb", "lan1", 1, SHMNM_SVSTAT_ONLINE), 0);
    ASSERT_EQ(shmnm_setrscsvstat("lanhb", "lan2", 0, SHMNM_SVSTAT_OFFLINE), 0);
    ASSERT_EQ(shmnm_setrscstat("lanhb", "lan2", SHMNM_RSCSTAT_CAUTION), 0);
    ASSERT_EQ(shmnm_setrscsvstat("cnthb", "cnt1", 1, 42), 0);
    ASSERT_EQ(zemctl({"status", "--json"}), 0) << out;
    auto node = [](const char *name, int pri, nlohmann::json stat) {
        return nlohmann::json{{"name", name}, {"pri", pri}, {"stat", stat}};
    };
    auto path = [&](const char *name, int pri, const char *stat, nlohmann::json s0, nlohmann::json s1) {
        return nlohmann::json{{"name", name}, {"pri", pri}, {"stat", stat},
                              {"nodes", {node("node1", 0, s0), node("node2", 1, s1)}}};
    };
    nlohmann::json want = {
        {"lanhb", {path("lan1", 0, "UNKNOWN", "UNKNOWN", "ONLINE"), path("lan2", 1, "CAUTION", "OFFLINE", "UNKNOWN")}},
        {"cnthb", {path("cnt1", 0, "UNKNOWN", "UNKNOWN", 42)}}}; // not a state name: its number
    EXPECT_EQ(nlohmann::json::parse(out), want) << out;
    ASSERT_EQ(zemctl({"status"}), 0) << out;
    EXPECT_TRUE(ptest::has(out, "CAUTION") && ptest::has(out, "ratio 1")) << out;
    // init again resets what was published.
    ASSERT_EQ(zemctl({"init"}), 0) << out;
    ASSERT_EQ(zemctl({"status", "--json"}), 0) << out;
    EXPECT_EQ(nlohmann::json::parse(out)["lanhb"][0]["nodes"][1]["stat"], "UNKNOWN");
}

TEST_F(Zemctl, InitRefusesBrokenConfigurationNamingFileLineAndKey)
{
    EXPECT_NE(zemctl({"status"}), 0);
    EXPECT_TRUE(ptest::has(out, "zemctl init")) << out;
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
