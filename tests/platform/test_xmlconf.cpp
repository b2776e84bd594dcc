// The configuration library against real files: key paths, kinds and
// lengths, broken documents, policies, local identity and the checks that
// zemctl init relies on.
#include <climits>
#include <cstring>

#include "plat.h"
#include "testutil.h"

namespace {

constexpr char CLUSTER[] = R"(<?xml version="1.0"?>
<root>
  <cluster>
    <name>  demo  </name>
    <heartbeat><timeout>0x2710</timeout><interval>-5</interval><mismatch>abc</mismatch></heartbeat>
  </cluster>
  <heartbeat>
    <mlock>YES</mlock>
    <lanhb name="lan1"><priority>0</priority><device>0</device></lanhb>
    <lanhb name="lan2"><priority>1</priority><device>1</device></lanhb>
    <cnthb name="cnt1"><priority>0</priority></cnthb>
  </heartbeat>
  <server name="node1">
    <priority>0</priority>
    <device name="0"><info>198.18.1.1</info></device>
    <device name="1"><info>198.18.2.1/24</info></device>
  </server>
  <server name="node2">
    <priority>1</priority>
    <device name="1"><info>2001:db8::2</info></device>
  </server>
</root>
)";

class Config : public ptest::TempRoot {
protected:
    void SetUp() override
    {
        TempRoot::SetUp();
        put("etc/cluster.xml", CLUSTER);
        ASSERT_EQ(xmllib_init("lanhb"), 0);
    }
    void TearDown() override
    {
        xmllib_term();
        TempRoot::TearDown();
    }
    int32_t get_int(const char *key, int32_t *v)
    {
        int32_t len = 4;
        return xmllib_get_value(key, XMLLIB_KIND_INT, v, &len);
    }
    int32_t get_text(const char *key, char *buf, int32_t size)
    {
        int32_t len = size;
        return xmllib_get_value(key, XMLLIB_KIND_TEXT, buf, &len);
    }
};

TEST_F(Config, KeyPathsSelectNamedElements)
{
    ASSERT_EQ(xmllib_load_config(), 0);
    int32_t v = -1;
    EXPECT_EQ(get_int("/root/heartbeat/lanhb@lan2/device", &v), 0);
    EXPECT_EQ(v, 1);
    char buf[46];
    EXPECT_EQ(get_text("/root/server@node2/device@1/info", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "2001:db8::2");
    EXPECT_EQ(get_text("/root/server@node1/device@1/info", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "198.18.2.1/24");
    // The segment without a selector takes the first element of the name.
    EXPECT_EQ(get_int("/root/heartbeat/lanhb/device", &v), 0);
    EXPECT_EQ(v, 0);
    // A selector naming nothing, a device the node lacks, a malformed path.
    EXPECT_NE(get_int("/root/heartbeat/lanhb@lan3/device", &v), 0);
    EXPECT_NE(get_text("/root/server@node2/device@0/info", buf, sizeof buf), 0);
    EXPECT_NE(get_int("root/heartbeat/lanhb@lan1/device", &v), 0);
    EXPECT_NE(get_int("/root//heartbeat", &v), 0);
    EXPECT_NE(get_int("/other/cluster/heartbeat/timeout", &v), 0);
}

TEST_F(Config, KindsAndLengths)
{
    ASSERT_EQ(xmllib_load_config(), 0);
    int32_t v = 0;
    EXPECT_EQ(get_int("/root/cluster/heartbeat/timeout", &v), 0);
    EXPECT_EQ(v, 10000);
    EXPECT_EQ(get_int("/root/cluster/heartbeat/interval", &v), 0);
    EXPECT_EQ(v, -5);
    EXPECT_NE(get_int("/root/cluster/heartbeat/mismatch", &v), 0);
    EXPECT_NE(get_int("/root/cluster/name", &v), 0);

    int32_t len = 2;
    EXPECT_NE(xmllib_get_value("/root/cluster/heartbeat/timeout", XMLLIB_KIND_INT, &v, &len), 0);
    len = 16;
    EXPECT_EQ(xmllib_get_value("/root/cluster/heartbeat/timeout", XMLLIB_KIND_INT, &v, &len), 0);
    EXPECT_EQ(len, 4);

    // Text: surrounding blanks dropped; it must fit with its NUL.
    char buf[32];
    memset(buf, 'x', sizeof buf);
    len = 5;
    EXPECT_EQ(xmllib_get_value("/root/cluster/name", XMLLIB_KIND_TEXT, buf, &len), 0);
    EXPECT_STREQ(buf, "demo");
    EXPECT_EQ(len, 5);
    memset(buf, 'x', sizeof buf);
    len = 4;
    EXPECT_NE(xmllib_get_value("/root/cluster/name", XMLLIB_KIND_TEXT, buf, &len), 0);
    EXPECT_EQ(buf[4], 'x'); // nothing written past the buffer
    len = 16;
    EXPECT_NE(xmllib_get_value("/root/cluster/name", 7, buf, &len), 0);
}

TEST(ConfigInteger, AcceptsDecimalAndHexWithin32Bits)
{
    struct {
        const char *text;
        bool ok;
        int32_t value;
    } cases[] = {
        {"0", true, 0},
        {" 42\n", true, 42},
        {"-20", true, -20},
        {"+7", true, 7},
        {"0x1000005", true, 0x1000005},
        {"0X7fffffff", true, INT32_MAX},
        {"2147483647", true, INT32_MAX},
        {"-2147483648", true, INT32_MIN},
        {"2147483648", false, 0},
        {"-2147483649", false, 0},
        {"0xFFFFFFFF", false, 0},
        {"99999999999999999999", false, 0},
        {"", false, 0},
        {"  ", false, 0},
        {"0x", false, 0},
        {"12abc", false, 0},
        {"1.5", false, 0},
        {"--1", false, 0},
        {"1 2", false, 0},
    };
    for (const auto &c : cases) {
        int32_t v = 12345;
        EXPECT_EQ(plat_parse_i32(c.text, &v), c.ok) << '"' << c.text << '"';
        if (c.ok) {
            EXPECT_EQ(v, c.value) << '"' << c.text << '"';
        }
    }
}

TEST_F(Config, ReadsNeedALoadedConfiguration)
{
    int32_t v;
    EXPECT_NE(get_int("/root/cluster/heartbeat/timeout", &v), 0);
    EXPECT_NE(xmllib_load_policy("cluster"), 0);
    ASSERT_EQ(xmllib_load_config(), 0);
    EXPECT_EQ(get_int("/root/cluster/heartbeat/timeout", &v), 0);
    EXPECT_NE(get_int("/root/cluster/heartbeat/missing", &v), 0);
    ASSERT_EQ(xmllib_unload_config(), 0);
    EXPECT_NE(get_int("/root/cluster/heartbeat/timeout", &v), 0);
    EXPECT_NE(xmllib_unload_config(), 0);
    // Loaded again, as the daemon does at shutdown: the file as it is now.
    put("etc/cluster.xml", "<root><cluster><heartbeat><timeout>500</timeout></heartbeat></cluster></root>");
    ASSERT_EQ(xmllib_load_config(), 0);
    EXPECT_EQ(get_int("/root/cluster/heartbeat/timeout", &v), 0);
    EXPECT_EQ(v, 500);
}

TEST_F(Config, PoliciesAreKnownNamesBracketingReads)
{
    ASSERT_EQ(xmllib_load_config(), 0);
    for (const char *p : {"all", "cluster", "lanhb", "cnthb"}) {
        EXPECT_EQ(xmllib_load_policy(p), 0) << p;
        EXPECT_EQ(xmllib_unload_policy(p), 0) << p;
        EXPECT_NE(xmllib_unload_policy(p), 0) << p << " unloaded twice";
    }
    EXPECT_NE(xmllib_load_policy("nm"), 0);
    EXPECT_NE(xmllib_load_policy(nullptr), 0);
    EXPECT_NE(xmllib_unload_policy("nm"), 0);
}

TEST_F(Config, BrokenFilesFailWithAReason)
{
    put("etc/cluster.xml", "<root>\n  <cluster>\n    <name>x</nam>\n  </cluster>\n</root>\n");
    EXPECT_NE(xmllib_load_config(), 0);
    std::string why = plat_lasterror();
    EXPECT_NE(why.find("cluster.xml:3:"), std::string::npos) << why;
    EXPECT_NE(why.find("XML error"), std::string::npos) << why;

    put("etc/cluster.xml", "<config><x>1</x></config>");
    EXPECT_NE(xmllib_load_config(), 0);
    EXPECT_NE(plat_lasterror().find("expected <root>"), std::string::npos) << plat_lasterror();

    unlink(at("etc/cluster.xml").c_str());
    EXPECT_NE(xmllib_load_config(), 0);
    EXPECT_NE(plat_lasterror().find("file missing"), std::string::npos) << plat_lasterror();
    int32_t v, len = 4;
    EXPECT_NE(xmllib_get_value("/root/x", XMLLIB_KIND_INT, &v, &len), 0);
}

TEST_F(Config, InitNeedsAUsableRoot)
{
    xmllib_term();
    setenv("ZEM_ROOT", at("nowhere").c_str(), 1);
    EXPECT_NE(xmllib_init("lanhb"), 0);
    put("plainfile", "x");
    setenv("ZEM_ROOT", at("plainfile").c_str(), 1);
    EXPECT_NE(xmllib_init("lanhb"), 0);
    setenv("ZEM_ROOT", root.c_str(), 1);
    EXPECT_EQ(xmllib_init("lanhb"), 0);
    // Without init, loading is refused even though the file is fine.
    xmllib_term();
    EXPECT_NE(xmllib_load_config(), 0);
}

TEST_F(Config, HostNameComesFromLocalXml)
{
    char buf[XMLLIB_HOSTNAME_SIZE];
    // No local.xml: the machine's own name.
    char own[256] = {};
    gethostname(own, sizeof own - 1);
    ASSERT_EQ(xmllib_gethostname(buf, sizeof buf), 0);
    EXPECT_EQ(std::string(buf), std::string(own).substr(0, sizeof buf - 1));

    put("etc/local.xml", "<local><hostname> node2.example </hostname></local>");
    ASSERT_EQ(xmllib_gethostname(buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "node2.example");
    EXPECT_NE(xmllib_gethostname(buf, 5), 0);

    put("etc/local.xml", "<local>\n<storage>\n<controller>64</controller></storage></local>");
    EXPECT_NE(xmllib_gethostname(buf, sizeof buf), 0);
    plat_local loc;
    std::string err;
    EXPECT_NE(plat_load_local(loc, err), 0);
    EXPECT_NE(err.find("local.xml:3:"), std::string::npos) << err;

    put("etc/local.xml", "<local><storage><area>shared/area</area><controller>1</controller></storage></local>");
    ASSERT_EQ(plat_load_local(loc, err), 0);
    EXPECT_EQ(loc.area, root + "/shared/area");
    EXPECT_EQ(loc.cntno, 1);
}

TEST_F(Config, ClusterCheckListsEveryProblemWithItsLine)
{
    plat_cluster cl;
    std::vector<std::string> errors, notes;
    // The sample's only flaw is its mismatch value.
    EXPECT_NE(plat_load_cluster(cl, errors, notes), 0);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].find("cluster.xml:5: /root/cluster/heartbeat/mismatch"), std::string::npos) << errors[0];
    // node2 has no address on lan1 (device 0): a note, not an error.
    ASSERT_EQ(notes.size(), 1u);
    EXPECT_NE(notes[0].find("node2"), std::string::npos) << notes[0];
    ASSERT_EQ(cl.nodes.size(), 2u);
    EXPECT_EQ(cl.nodes[1].name, "node2");
    EXPECT_EQ(cl.nodes[1].pri, 1);
    ASSERT_EQ(cl.rsc[0].size(), 2u);
    EXPECT_EQ(cl.rsc[0][1].name, "lan2");
    ASSERT_EQ(cl.rsc[1].size(), 1u);

    put("etc/cluster.xml", R"(<root>
<server name="a"><priority>0</priority><device name="0"><info>198.18.0.300</info></device></server>
<server name="b"><priority>0</priority></server>
<server name="a"><priority>70</priority></server>
<server><priority>3</priority></server>
<heartbeat><lanhb name="l"><priority>0</priority><device>x</device></lanhb>
<cnthb name="c"/></heartbeat>
</root>)");
    errors.clear();
    EXPECT_NE(plat_load_cluster(cl, errors, notes), 0);
    std::string all;
    for (const std::string &e : errors)
        all += e + "\n";
    EXPECT_NE(all.find(":2: /root/server@a/device@0/info: not an IPv4 or IPv6 address"), std::string::npos) << all;
    EXPECT_NE(all.find(":3: /root/server@b/priority: priority 0 used twice"), std::string::npos) << all;
    EXPECT_NE(all.find(":4: /root/server@a: server defined twice"), std::string::npos) << all;
    EXPECT_NE(all.find(":4: /root/server@a/priority: not an integer from 0 to 63"), std::string::npos) << all;
    EXPECT_NE(all.find(":5: /root/server: missing name attribute"), std::string::npos) << all;
    EXPECT_NE(all.find(":6: /root/heartbeat/lanhb@l/device: not a device id"), std::string::npos) << all;
    EXPECT_NE(all.find(":7: /root/heartbeat/cnthb@c/priority: missing"), std::string::npos) << all;
}

} // namespace
