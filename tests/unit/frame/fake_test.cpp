// The fake platform is what every unit test stands on: check the parts whose
// faults would silently mislead other tests.
#include "fake/fake_platform.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cstring>
#include <string>

TEST(FakePlatform, EnumerationFollowsTheTwoCallProtocol)
{
    fake::add_rsc("lanhb", "lan1", 0);
    fake::add_rsc("cnthb", "cnt1", 0);
    fake::add_rsc("lanhb", "lan2", 1);
    int32_t size = 0;
    ASSERT_EQ(shmnm_enumrsc("lanhb", nullptr, &size), 0);
    ASSERT_EQ(size, 11); // "lan1\0lan2\0\0"
    std::string buf(size, 'x');
    ASSERT_EQ(shmnm_enumrsc("lanhb", buf.data(), &size), 0);
    EXPECT_EQ(buf, std::string("lan1\0lan2\0\0", 11));

    size = 0;
    ASSERT_EQ(shmnm_enumnode(nullptr, &size), 0);
    EXPECT_EQ(size, 0) << "no nodes: an empty list";
}

TEST(FakePlatform, IntegerKeysParseStrictly)
{
    fake::set_key("/a", "0x10");
    fake::set_key("/b", "12abc");
    fake::set_key("/c", "4294967296");
    int32_t v = 0, len = 4;
    EXPECT_EQ(xmllib_get_value("/a", XMLLIB_KIND_INT, &v, &len), 0);
    EXPECT_EQ(v, 16);
    EXPECT_NE(xmllib_get_value("/b", XMLLIB_KIND_INT, &v, &len), 0);
    EXPECT_NE(xmllib_get_value("/c", XMLLIB_KIND_INT, &v, &len), 0);
    EXPECT_NE(xmllib_get_value("/missing", XMLLIB_KIND_INT, &v, &len), 0);
    char text[4];
    len = sizeof text;
    fake::set_key("/t", "yes!");
    EXPECT_NE(xmllib_get_value("/t", XMLLIB_KIND_TEXT, text, &len), 0) << "no room for the NUL";
}

TEST(FakePlatform, ScriptedFailuresCountDownAndMatchTheirSubject)
{
    fake::add_node("n1", 1);
    fake::add_node("n2", 2);
    fake::fail_on("shmnm_getnodepri", "n2", 7, 1);
    int32_t pri = 0;
    EXPECT_EQ(shmnm_getnodepri("n1", &pri), 0);
    EXPECT_EQ(shmnm_getnodepri("n2", &pri), 7);
    EXPECT_EQ(shmnm_getnodepri("n2", &pri), 0);
    EXPECT_EQ(pri, 2);
    EXPECT_EQ(fake::count("shmnm_getnodepri"), 3);
}

static void *blocked_read(void *)
{
    static unsigned char buf[ZEMFW_HBSLOTS * ZEMFW_HBINF_SIZE];
    zemfw_gethbinf(buf);
    return nullptr;
}

TEST(FakePlatform, CancelledStorageCallLeavesTheFakeUsable)
{
    fake::Gate gate;
    fake::on_gethbinf([&](void *) {
        gate.wait();
        return 0;
    });
    pthread_t th;
    ASSERT_EQ(pthread_create(&th, nullptr, blocked_read, nullptr), 0);
    while (gate.waiting() == 0)
        usleep(1000);
    ASSERT_EQ(pthread_cancel(th), 0);
    void *ret = nullptr;
    ASSERT_EQ(pthread_join(th, &ret), 0);
    EXPECT_EQ(ret, PTHREAD_CANCELED);
    EXPECT_EQ(gate.waiting(), 0);
    // The fake's lock was not left held by the cancelled caller.
    unsigned char rec[ZEMFW_HBINF_SIZE] = {'x'};
    EXPECT_EQ(zemfw_sethbinf(3, rec), 0);
    EXPECT_EQ(fake::slot(3)[0], 'x');
}
