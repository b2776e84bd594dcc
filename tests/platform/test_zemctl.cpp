// zemctl end to end: the built tool on a temporary root, with this test
// process acting as the daemon that publishes (a second process on the
// same shared memory) and a stand-in daemon for "run".
#include <signal.h>

#include <nlohmann/json.hpp>

#include "plat.h"
#include "testutil.h"

namespace {

class Zemctl : public ptest::TempRoot {
protected:
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
    int zemctl(std::vector<std::string> args, std::string *out = nullptr,
               const std::vector<std::string> &env = {})
    {
        args.insert(args.begin(), ZEMCTL_PATH);
        return ptest::run(args, root, out, env);
    }
    void init()
    {
        std::string out;
        ASSERT_EQ(zemctl({"init"}, &out), 0) << out;
    }
};

TEST_F(Zemctl, InitThenStatusShowsEveryPathAndNode)
{
    std::string out;
    ASSERT_EQ(zemctl({"init"}, &out), 0) << out;
    EXPECT_NE(out.find("2 servers, 2 lanhb paths, 1 cnthb paths"), std::string::npos) << out;
    EXPECT_TRUE(std::filesystem::exists(at("run/hbarea")));

    // Publish as the daemon would, from this process.
    ASSERT_EQ(shmnm_attach(), 0);
    ASSERT_EQ(shmnm_setrscsvstat("lanhb", "lan1", 1, SHMNM_SVSTAT_ONLINE), 0);
    ASSERT_EQ(shmnm_setrscsvstat("lanhb", "lan2", 0, SHMNM_SVSTAT_OFFLINE), 0);
    ASSERT_EQ(shmnm_setrscstat("lanhb", "lan2", SHMNM_RSCSTAT_CAUTION), 0);
    ASSERT_EQ(shmnm_setrscsvstat("cnthb", "cnt1", 1, 42), 0);

    ASSERT_EQ(zemctl({"status", "--json"}, &out), 0) << out;
    nlohmann::json j = nlohmann::json::parse(out);
    ASSERT_EQ(j.size(), 2u);
    ASSERT_EQ(j["lanhb"].size(), 2u);
    ASSERT_EQ(j["cnthb"].size(), 1u);
    const nlohmann::json &lan1 = j["lanhb"][0];
    EXPECT_EQ(lan1["name"], "lan1");
    EXPECT_EQ(lan1["pri"], 0);
    EXPECT_EQ(lan1["stat"], "UNKNOWN");
    ASSERT_EQ(lan1["nodes"].size(), 2u);
    EXPECT_EQ(lan1["nodes"][0], nlohmann::json::parse(R"({"name":"node1","pri":0,"stat":"UNKNOWN"})"));
    EXPECT_EQ(lan1["nodes"][1], nlohmann::json::parse(R"({"name":"node2","pri":1,"stat":"ONLINE"})"));
    EXPECT_EQ(j["lanhb"][1]["name"], "lan2");
    EXPECT_EQ(j["lanhb"][1]["pri"], 1);
    EXPECT_EQ(j["lanhb"][1]["stat"], "CAUTION");
    EXPECT_EQ(j["lanhb"][1]["nodes"][0]["stat"], "OFFLINE");
    EXPECT_EQ(j["cnthb"][0]["name"], "cnt1");
    EXPECT_EQ(j["cnthb"][0]["nodes"][1]["stat"], 42); // not a state name: its number

    ASSERT_EQ(zemctl({"status"}, &out), 0) << out;
    EXPECT_NE(out.find("CAUTION"), std::string::npos) << out;
    EXPECT_NE(out.find("ratio 1"), std::string::npos) << out;

    // init again resets what was published.
    init();
    ASSERT_EQ(zemctl({"status", "--json"}, &out), 0) << out;
    EXPECT_EQ(nlohmann::json::parse(out)["lanhb"][0]["nodes"][1]["stat"], "UNKNOWN");
}

TEST_F(Zemctl, InitRefusesBrokenConfigurationNamingFileLineAndKey)
{
    std::string out;
    EXPECT_NE(zemctl({"status"}, &out), 0);
    EXPECT_NE(out.find("zemctl init"), std::string::npos) << out;

    std::string cl = ptest::slurp(EXAMPLES_DIR "/cluster.xml");
    std::string bad = cl;
    bad.replace(bad.find("<timeout>10000"), 14, "<timeout>ten");
    put("etc/cluster.xml", bad);
    EXPECT_EQ(zemctl({"init"}, &out), 1);
    EXPECT_NE(out.find("cluster.xml:19: /root/cluster/heartbeat/timeout: not a 32-bit integer: \"ten\""),
              std::string::npos)
        << out;
    EXPECT_FALSE(std::filesystem::exists(at("run")));

    put("etc/cluster.xml", cl.substr(0, cl.find("</server>")));
    EXPECT_EQ(zemctl({"init"}, &out), 1);
    EXPECT_NE(out.find("XML error"), std::string::npos) << out;

    put("etc/cluster.xml", cl);
    put("etc/local.xml", "<local><hostname>node7</hostname></local>");
    EXPECT_EQ(zemctl({"init"}, &out), 1);
    EXPECT_NE(out.find("local.xml: /local/hostname: \"node7\" is not a <server>"), std::string::npos) << out;
    EXPECT_FALSE(std::filesystem::exists(at("run")));
}

TEST_F(Zemctl, SetWritesWhatTheDaemonReads)
{
    init();
    std::string out;
    EXPECT_EQ(zemctl({"set", "ratio", "3"}, &out), 0) << out;
    EXPECT_EQ(zemctl({"set", "action", "0x2000005"}, &out), 0) << out;
    EXPECT_EQ(zemctl({"set", "waitstat", "1"}, &out), 0) << out;
    EXPECT_EQ(zemctl({"set", "hdstat", "node2", "9"}, &out), 0) << out;
    EXPECT_EQ(zemctl({"set", "nodestat", "node1", "7"}, &out), 0) << out;
    EXPECT_EQ(zemctl({"set", "down", "on"}, &out), 0) << out;

    ASSERT_EQ(shmnm_attach(), 0);
    ASSERT_EQ(shmcm_attach(), 0);
    ASSERT_EQ(sem_attach(), 0);
    int32_t v = 0;
    ASSERT_EQ(shmcm_getratio(&v, nullptr), 0);
    EXPECT_EQ(v, 3);
    ASSERT_EQ(shmcm_getaction(&v, nullptr, nullptr), 0);
    EXPECT_EQ(v, SHMCM_ACTION_RESUME_B);
    ASSERT_EQ(shmnm_getwaitstat(&v), 0);
    EXPECT_EQ(v, SHMNM_WAITSTAT_RESUME);
    ASSERT_EQ(shmnm_gethdstat("node2", &v), 0);
    EXPECT_EQ(v, 9);
    ASSERT_EQ(shmnm_gethdstat("node1", &v), 0);
    EXPECT_EQ(v, SHMNM_HDSTAT_OK);
    ASSERT_EQ(shmnm_getnodestat("node1", &v), 0);
    EXPECT_EQ(v, 7);
    EXPECT_EQ(sem_wait_downnotify(0), 0);
    EXPECT_EQ(zemctl({"set", "down", "off"}, &out), 0) << out;
    EXPECT_NE(sem_wait_downnotify(0), 0);

    EXPECT_EQ(zemctl({"set", "hdstat", "node9", "1"}, &out), 1);
    EXPECT_NE(out.find("no such node"), std::string::npos) << out;
    EXPECT_EQ(zemctl({"set", "ratio", "two"}, &out), 2);
    EXPECT_EQ(zemctl({"set", "down", "maybe"}, &out), 2);
    EXPECT_EQ(zemctl({"set"}, &out), 2);
}

TEST_F(Zemctl, WatchIsWokenByAPostFromAnotherProcess)
{
    init();
    ASSERT_EQ(shmnm_attach(), 0);
    ASSERT_EQ(sem_attach(), 0);
    ptest::child w = ptest::spawn({ZEMCTL_PATH, "watch", "--count", "2", "--timeout", "120"}, root, at("watch.out"));
    ASSERT_GT(w.pid, 0);
    ASSERT_TRUE(ptest::await_text(at("watch.out"), "watching")) << ptest::slurp(at("watch.out"));
    // A reset under a running watch: it follows the new memory.
    init();
    ASSERT_TRUE(ptest::await_text(at("watch.out"), "shared memory was reset")) << ptest::slurp(at("watch.out"));
    ASSERT_EQ(shmnm_attach(), 0);
    ASSERT_EQ(sem_attach(), 0);
    ASSERT_EQ(shmnm_setrscsvstat("lanhb", "lan1", 1, SHMNM_SVSTAT_ONLINE), 0);
    ASSERT_EQ(shmnm_setrscstat("lanhb", "lan1", SHMNM_RSCSTAT_NORMAL), 0);
    ASSERT_EQ(sem_set_statchange(), 0);
    ASSERT_TRUE(ptest::await_text(at("watch.out"), "lanhb lan1: UNKNOWN -> NORMAL"))
        << ptest::slurp(at("watch.out"));
    // A post that changed nothing visible is still reported.
    ASSERT_EQ(sem_set_statchange(), 0);
    EXPECT_EQ(ptest::finish(w), 0);
    std::string out = ptest::slurp(at("watch.out"));
    EXPECT_NE(out.find("lanhb lan1 node node2: UNKNOWN -> ONLINE"), std::string::npos) << out;
    EXPECT_NE(out.find("state change posted (1 post, no state differs)"), std::string::npos) << out;
}

// zemctl run with the stand-in daemon; returns zemctl's exit status.
class Run : public Zemctl {
protected:
    std::string out;

    int supervise(const std::vector<std::string> &extra, const std::vector<std::string> &env, bool stop)
    {
        std::vector<std::string> args = {ZEMCTL_PATH, "run", "--daemon", HELPER_PATH};
        args.insert(args.end(), extra.begin(), extra.end());
        ptest::child c = ptest::spawn(args, root, at("run.out"), env);
        EXPECT_GT(c.pid, 0);
        if (stop) {
            EXPECT_TRUE(ptest::await_text(at("run.out"), "usr2")) << ptest::slurp(at("run.out"));
            kill(c.pid, SIGTERM);
        }
        int rc = ptest::finish(c);
        out = ptest::slurp(at("run.out"));
        return rc;
    }
};

TEST_F(Run, StartsStopsWithDownNotificationAndExitsWithTheDaemonsStatus)
{
    init();
    EXPECT_EQ(supervise({}, {"HELPER_EXIT=0"}, true), 0) << out;
    // The daemon was told to start, then to stop with down notices wanted,
    // and both of its questions were answered yes.
    EXPECT_NE(out.find("is up; sending SIGUSR2"), std::string::npos) << out;
    EXPECT_LT(out.find("usr2"), out.find("usr1"));
    EXPECT_NE(out.find("down notification on; sending SIGUSR1"), std::string::npos) << out;
    EXPECT_NE(out.find("sem_attach=0 down=0 down-again=0"), std::string::npos) << out;
    EXPECT_NE(out.find("exited with status 0"), std::string::npos) << out;

    EXPECT_EQ(supervise({"--no-down"}, {"HELPER_EXIT=5"}, true), 5) << out;
    EXPECT_NE(out.find("sem_attach=0 down=1 down-again=1"), std::string::npos) << out;
    EXPECT_NE(out.find("exited with status 5"), std::string::npos) << out;
}

TEST_F(Run, ReportsADaemonThatDiesOrFailsToStart)
{
    init();
    EXPECT_EQ(supervise({}, {"HELPER_MODE=crash"}, true), 128 + SIGKILL) << out;
    EXPECT_NE(out.find("was killed by signal 9"), std::string::npos) << out;

    // Exit 12 is a configuration that cannot be loaded: zemctl says why.
    put("etc/cluster.xml", "<root>\n<cluster>\n</root>\n");
    EXPECT_EQ(supervise({}, {"HELPER_MODE=early"}, false), 12) << out;
    EXPECT_EQ(out.find("is up"), std::string::npos) << out;
    EXPECT_NE(out.find("exited with status 12"), std::string::npos) << out;
    EXPECT_NE(out.find("probable cause: " + at("etc/cluster.xml") + ":3:"), std::string::npos) << out;

    std::string text;
    EXPECT_EQ(zemctl({"run", "--daemon", at("no-such-daemon")}, &text), 127);
    EXPECT_NE(text.find("cannot run"), std::string::npos) << text;
}

} // namespace
