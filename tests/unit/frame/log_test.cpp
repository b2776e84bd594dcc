// hblog routing and text, loginit settings.
#include "unit/unit.h"

namespace {

using Texts = std::vector<std::string>;
const char *volatile null_text = nullptr; // hidden from the compiler's null "%s" check

using Hblog = unit::FrameTest;

TEST_F(Hblog, OpensLogsWithTheirSettingsAndRoutesByModule)
{
    // Each log its own keys; a missing key takes the default.
    logterm();
    fake::set_key("/root/lanhb/log/level", "8");
    fake::set_key("/root/cnthb/log/level", "2");
    fake::set_key("/root/cnthb/log/size", "5000");
    loginit();
    EXPECT_EQ(fake::log_settings("lanhb"), std::make_pair(8, 1000000));
    EXPECT_EQ(fake::log_settings("cnthb"), std::make_pair(2, 5000));
    hblog(1, 8, "a.cpp", 11, "fa", "to lan");
    hblog(2, 2, "b.cpp", 22, "fb", "to cnt");
    hblog(3, 4, "c.cpp", 33, "fc", "to both");
    hblog(4, 1, "d.cpp", 44, "fd", "no such module");
    hblog(1, 1, "e.cpp", 55, "fe", nullptr);
    EXPECT_EQ(fake::texts("lanhb"), (Texts{"to lan", "to both"}));
    EXPECT_EQ(fake::texts("cnthb"), (Texts{"to cnt", "to both"}));
    const auto all = fake::logs();
    ASSERT_EQ(all.size(), 4u);
    EXPECT_EQ(all[2].log, "lanhb"); // module 3: the LAN log first
    EXPECT_EQ(std::tie(all[3].level, all[3].msgno, all[3].file, all[3].line, all[3].func),
              std::make_tuple(4, 0, std::string("c.cpp"), 33, std::string("fc")));

    // Only to open logs: one failed to open, then none after logterm.
    logterm(), fake::reset();
    HBLOG(3, 1, "before loginit");
    fake::fail_on("log_init", "lanhb", 1);
    fake::set_key("/root/cnthb/log/level", "2");
    fake::fail_on("xmllib_load_policy", "cnthb", 3); // no policy: defaults
    loginit();
    EXPECT_EQ(fake::log_settings("cnthb"), std::make_pair(4, 1000000));
    HBLOG(3, 4, "both");
    HBLOG(1, 1, "lan only");
    logterm();
    HBLOG(3, 1, "after logterm");
    EXPECT_TRUE(fake::texts("lanhb").empty());
    EXPECT_EQ(fake::texts("cnthb"), (Texts{"both"}));
}

TEST_F(Hblog, PrintsNullTextsAsZeroAndCutsLongTexts)
{
    const char *none = null_text;
    const std::string fmt(120, 'f'), value(500, 'v');
    HBLOG(1, 4, "pthread_join(send) success(ret:%d,thret:%s)", 0, none);
    HBLOG(1, 1, "[%c][%c] 100%% %s %d", 'x', '\0', none, 7);
    HBLOG(1, 1, "%f %e %s %s", 1.5, 2.0, none, "x"); // doubles taken as doubles, or "x" judges the null
    HBLOG(1, 1, "[%-5s]", none);                      // with a flag: left to the printer
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-security"
    HBLOG(1, 1, "a%\n%s", none); // takes no value (the sanitizers warn about this format: expected)
    hblog(1, 1, "f.cpp", 1, "f", fmt.c_str()); // a format of 120 characters, cut to 95
#pragma GCC diagnostic pop
    HBLOG(1, 1, "<%s>", value.c_str());
    EXPECT_EQ(fake::texts("lanhb"), (Texts{"pthread_join(send) success(ret:0,thret:0)", "[x][0] 100% 0 7",
                                           "1.500000 2.000000e+00 0 x", "[(null)]", "a%\n0", fmt.substr(0, 95),
                                           "<" + value.substr(0, 390)}));
}

} // namespace
