// The configuration library against real files: key paths, kinds and
// lengths, broken documents and local identity. The checks zemctl init
// relies on are proven through zemctl check; reloading the file at a stop,
// by the system tests' down notices.
#include "testutil.h"

namespace {

constexpr char CLUSTER[] = R"(<?xml version="1.0"?>
<root>
  <cluster><name>  demo  </name><blank> </blank><heartbeat><timeout>0x2710</timeout></heartbeat>
    <n><a>+0X7fffffff</a><b>-2147483648</b><c>2147483648</c><d>0xFFFFFFFF</d><e>1.5</e><f>12abc</f></n></cluster>
  <heartbeat>
    <lanhb name="lan1"><device>0</device></lanhb>
    <lanhb name="lan2"><device>1</device></lanhb>
  </heartbeat>
  <server name="node2"><device name="1"><info>2001:db8::2</info></device></server>
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
};

TEST_F(Config, KeyPathsKindsAndLengths)
{
    int32_t v = 0, len = 4;
    EXPECT_NE(xmllib_get_value("/root/cluster/heartbeat/timeout", XMLLIB_KIND_INT, &v, &len), 0); // not loaded
    ASSERT_EQ(xmllib_load_config(), 0);
    // key, kind, len, and the text read (an integer as decimal), or null
    // where the read fails; len is then the bytes written.
    const std::tuple<const char *, int32_t, int32_t, const char *> cases[] = {
        {"/root/heartbeat/lanhb@lan2/device", XMLLIB_KIND_INT, 4, "1"},
        {"/root/heartbeat/lanhb/device", XMLLIB_KIND_INT, 16, "0"}, // first of the name
        {"/root/cluster/heartbeat/timeout", XMLLIB_KIND_INT, 4, "10000"},
        {"/root/cluster/n/a", XMLLIB_KIND_INT, 4, "2147483647"},
        {"/root/cluster/n/b", XMLLIB_KIND_INT, 4, "-2147483648"},
        {"/root/server@node2/device@1/info", XMLLIB_KIND_TEXT, 46, "2001:db8::2"},
        {"/root/cluster/name", XMLLIB_KIND_TEXT, 5, "demo"}, // blanks dropped; fits with its NUL
        {"/root/cluster/blank", XMLLIB_KIND_TEXT, 4, ""},   // a blank value is the empty text
        {"/root/cluster/name", XMLLIB_KIND_TEXT, 4, nullptr},
        {"/root/cluster/name", 7, 16, nullptr},
        {"/root/cluster/heartbeat/timeout", XMLLIB_KIND_INT, 3, nullptr},
        {"/root/server@node2/device@0/info", XMLLIB_KIND_TEXT, 46, nullptr},
    };
    for (const char *key : {"/root/cluster/n/c", "/root/cluster/n/d", "/root/cluster/n/e", "/root/cluster/n/f",
                            "/root/heartbeat/lanhb@lan3/device", "/root/cluster/heartbeat/missing",
                            "root/heartbeat/lanhb@lan1/device", "/root//heartbeat"})
        EXPECT_NE(xmllib_get_value(key, XMLLIB_KIND_INT, &v, &(len = 4)), 0) << key;
    for (const auto &[key, kind, size, want] : cases) {
        char buf[64];
        memset(buf, 'x', sizeof buf);
        int32_t r = xmllib_get_value(key, kind, buf, &(len = size));
        SCOPED_TRACE(std::string(key) + " len " + std::to_string(size));
        if (want == nullptr) {
            EXPECT_TRUE(r != 0 && buf[0] == 'x') << "a failed read writes nothing";
            continue;
        }
        ASSERT_EQ(r, 0);
        memcpy(&v, buf, sizeof v);
        EXPECT_EQ(kind == XMLLIB_KIND_INT ? std::to_string(v) : std::string(buf), want);
        EXPECT_EQ(len, kind == XMLLIB_KIND_INT ? 4 : static_cast<int32_t>(strlen(want)) + 1);
    }
}

TEST_F(Config, BrokenFilesFailWithTheirPlace)
{
    const std::pair<const char *, const char *> cases[] = {
        {"<root>\n  <cluster>\n    <name>x</nam>\n  </cluster>\n</root>\n", "cluster.xml:3:14: XML error"},
        {"<config><x>1</x></config>", "expected <root>"},
        {nullptr, "file missing"},
    };
    for (const auto &[text, why] : cases) {
        if (text != nullptr)
            put("etc/cluster.xml", text);
        else
            std::filesystem::remove(at("etc/cluster.xml"));
        EXPECT_NE(xmllib_load_config(), 0) << why;
        EXPECT_TRUE(ptest::has(plat_lasterror(), why)) << plat_lasterror();
    }
    EXPECT_NE(xmllib_load_policy("cluster"), 0);
    // The host name from local.xml, trimmed; too long for the buffer or
    // missing, a failure naming the place.
    char buf[XMLLIB_HOSTNAME_SIZE];
    put("etc/local.xml", "<local><hostname> node2.example </hostname></local>");
    ASSERT_EQ(xmllib_gethostname(buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "node2.example");
    EXPECT_NE(xmllib_gethostname(buf, 5), 0);
    put("etc/local.xml", "<local>\n<storage>\n<controller>64</controller></storage></local>");
    EXPECT_NE(xmllib_gethostname(buf, sizeof buf), 0);
    EXPECT_TRUE(ptest::has(plat_lasterror(), "local.xml:3:")) << plat_lasterror();
}

// Without ZEM_ROOT the configuration and the logs are where the system keeps
// them; with it, everything stays under the one root.
TEST(Layout, EtcAndLogMoveOutOfTheRootOnlyWithoutZemRoot)
{
    const std::pair<const char *, const char *> rows[] = {
        {"etc/cluster.xml", "/etc/zemlanhb/cluster.xml"}, {"log", "/var/log/zemlanhb"},
        {"run/lock", "/var/lib/zem/run/lock"},           {"etcx/a", "/var/lib/zem/etcx/a"},
    };
    for (const char *root : {"", "/srv/zem/"}) {
        setenv("ZEM_ROOT", root, 1);
        for (auto [rel, sys] : rows)
            EXPECT_EQ(plat_path(rel), *root != '\0' ? std::string("/srv/zem/") + rel : std::string(sys)) << rel;
    }
    unsetenv("ZEM_ROOT");
}

} // namespace
