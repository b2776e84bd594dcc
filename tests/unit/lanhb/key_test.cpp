// The cluster key: key file checks, the trailer's bytes, the replay window,
// keyed acceptance, the kernel filter on real loopback sockets, and the
// rate-limited refusal log.
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <numeric>
#include <set>
#include <vector>

#include "fake/fake_hbext.h"
#include "lanhb/key.h"
#include "lanhb_test.h"

using namespace lanhbtest;

namespace {

using bytes = std::vector<unsigned char>;
using keybuf = std::array<unsigned char, LANHB_KEY_SIZE>;

keybuf testkey(unsigned char first)
{
    keybuf k;
    std::iota(k.begin(), k.end(), first);
    return k;
}

struct KeyTest : LanTest {
    void TearDown() override
    {
        lanhb_keyset(nullptr);
        LanTest::TearDown();
    }
};

std::string hex(const unsigned char *p, size_t n)
{
    std::string out;
    char b[3];
    for (size_t i = 0; i < n; ++i)
        std::snprintf(b, sizeof b, "%02x", p[i]), out += b;
    return out;
}

sockaddr_storage addr(const char *text)
{
    sockaddr_storage ss{};
    auto *s6 = reinterpret_cast<sockaddr_in6 *>(&ss);
    auto *s4 = reinterpret_cast<sockaddr_in *>(&ss);
    if (inet_pton(AF_INET6, text, &s6->sin6_addr) == 1)
        s6->sin6_family = AF_INET6;
    else if (inet_pton(AF_INET, text, &s4->sin_addr) == 1)
        s4->sin_family = AF_INET;
    return ss;
}

TEST_F(KeyTest, TrailerGoldenBytesAndTampering)
{
    const keybuf key = testkey(0);
    lanhb_keyset(key.data());
    bytes buf(320 + LANHB_TRAILER_SIZE, 0);
    std::memcpy(buf.data(), "lanhb", 5);
    auto *pkt = reinterpret_cast<lanhb_packet *>(buf.data());
    lanhb_keysealseq(pkt, 320, 0x0102030405060708ULL);
    // BLAKE2b-256 keyed with bytes 0..31 over the 320 bytes and the sequence.
    EXPECT_EQ(hex(buf.data() + 320, LANHB_TRAILER_SIZE),
              "0102030405060708"
              "7e600c169180f8af722baa5835a87942cbf6d8aec24ad4104c27b4ded3b8d245");
    uint64_t seq = 0;
    EXPECT_TRUE(lanhb_keyverify(pkt, buf.size(), &seq));
    EXPECT_EQ(seq, 0x0102030405060708ULL);

    for (size_t at : {size_t{0}, size_t{299}, size_t{320}, size_t{327}, size_t{328}, buf.size() - 1}) {
        bytes bad = buf;
        bad[at] ^= 0x01;
        EXPECT_FALSE(lanhb_keyverify(reinterpret_cast<lanhb_packet *>(bad.data()), bad.size(), &seq)) << at;
    }
    const keybuf other = testkey(1);
    lanhb_keyset(other.data());
    EXPECT_FALSE(lanhb_keyverify(pkt, buf.size(), &seq));
}

TEST_F(KeyTest, ReplayWindow)
{
    const std::vector<std::pair<uint64_t, bool>> steps = {
        {1000, true},       {1000, false}, // the same again
        {999, true},        {999, false},  // late but unseen, then a replay
        {1010, true},       {1000, false}, // still remembered after a move
        {1001, true},       {946, true},   // 64 below the newest: the window's edge
        {945, false},                      // older than the window
        {2000, true},       {1010, false}, // a jump past the window forgets all below
        {1999, true},       {2001, true},
    };
    lanhb_seqwin w;
    for (const auto &[seq, ok] : steps)
        EXPECT_EQ(lanhb_seqwin_accept(&w, seq), ok) << seq;
}

TEST_F(KeyTest, KeyFileChecks)
{
    const std::filesystem::path dir = std::filesystem::temp_directory_path() / ("zemkey-" + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    auto make = [&](const char *name, size_t size, mode_t mode) {
        const std::string p = (dir / name).string();
        const int fd = open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const keybuf k = testkey(7);
        for (size_t i = 0; i < size; ++i)
            EXPECT_EQ(write(fd, &k[i % k.size()], 1), 1);
        close(fd);
        chmod(p.c_str(), mode);
    };
    make("good", LANHB_KEY_SIZE, 0600);
    make("readonly", LANHB_KEY_SIZE, 0400);
    make("group", LANHB_KEY_SIZE, 0640);
    make("other", LANHB_KEY_SIZE, 0604);
    make("short", LANHB_KEY_SIZE - 1, 0600);
    make("long", LANHB_KEY_SIZE + 1, 0600);
    std::filesystem::create_symlink(dir / "good", dir / "link");
    std::filesystem::create_directory(dir / "dir");
    const std::vector<std::pair<const char *, int32_t>> cases = {
        {"good", LANHB_KEY_OK},          {"readonly", LANHB_KEY_OK},      {"group", LANHB_KEY_MODE},
        {"other", LANHB_KEY_MODE},       {"short", LANHB_KEY_SIZE_BAD},   {"long", LANHB_KEY_SIZE_BAD},
        {"link", LANHB_KEY_SYMLINK},     {"dir", LANHB_KEY_MODE},         {"missing", LANHB_KEY_MISSING},
    };
    for (const auto &[name, want] : cases) {
        keybuf k{};
        EXPECT_EQ(lanhb_keyfile((dir / name).c_str(), k.data()), want) << name;
        EXPECT_EQ(k == testkey(7), want == LANHB_KEY_OK) << name;
    }

    // Through the configuration: a relative name is taken under the root; no
    // name at all leaves the daemon unkeyed without a word in its log.
    cluster();
    list_ptr list = load();
    fake::set_root(dir.string());
    const size_t before = fake::texts(HB_KIND_LANHB).size();
    EXPECT_EQ(lanhb_keyload(list.get()), LANHB_KEY_OK);
    EXPECT_FALSE(lanhb_keyed());
    EXPECT_EQ(fake::texts(HB_KIND_LANHB).size(), before);
    fake::set_key(LANHB_KEYCFG, "group");
    EXPECT_EQ(lanhb_keyload(list.get()), LANHB_KEY_MODE);
    EXPECT_FALSE(lanhb_keyed());
    fake::set_key(LANHB_KEYCFG, "good");
    EXPECT_EQ(lanhb_keyload(list.get()), LANHB_KEY_OK);
    EXPECT_TRUE(lanhb_keyed());
    EXPECT_EQ(lanhb_wirelen(32), 576 + LANHB_TRAILER_SIZE);
    fake::set_root("/fake-root");
    std::filesystem::remove_all(dir);
}

// A keyed datagram of node `nodepri` on path 10, sealed with `key`.
bytes sealed(lanhb_list *list, int32_t nodepri, const char *tag, const keybuf &key)
{
    bytes buf(lanhb_pktlen(list->maxnode) + LANHB_TRAILER_SIZE);
    auto *pkt = reinterpret_cast<lanhb_packet *>(buf.data());
    lanhb_pktinit(pkt, list, tag);
    pkt->nodepri = static_cast<int32_t>(htonl(static_cast<uint32_t>(nodepri)));
    pkt->rscpri = static_cast<int32_t>(htonl(10));
    lanhb_keyset(key.data());
    lanhb_keyseal(pkt, lanhb_pktlen(list->maxnode));
    return buf;
}

TEST_F(KeyTest, KeyedAcceptance)
{
    cluster("127.0.0.1", "198.18.0.2");
    list_ptr list = load();
    const keybuf key = testkey(0), other = testkey(9);
    const size_t plain = lanhb_pktlen(list->maxnode), wire = plain + LANHB_TRAILER_SIZE;
    const bytes genuine = sealed(list.get(), 2, LANHB_TAG_DOWN, key);
    bytes tampered = sealed(list.get(), 2, LANHB_TAG_HB, key);
    tampered[308] ^= 1;
    struct row {
        const char *what;
        bytes dgram;
        size_t count;
        const char *from;
        bool v6;
        int32_t want;
    };
    const std::vector<row> rows = {
        {"genuine", genuine, wire, "::ffff:198.18.0.2", true, LANHB_ACCEPTED},
        {"replayed", genuine, wire, "::ffff:198.18.0.2", true, LANHB_REFUSE_REPLAY},
        {"own over loopback", sealed(list.get(), 1, LANHB_TAG_HB, key), wire, "::ffff:127.0.0.1", true,
         LANHB_ACCEPTED},
        {"address containing the node's", sealed(list.get(), 2, LANHB_TAG_DOWN, key), wire, "::ffff:198.18.0.20",
         true, LANHB_REFUSE_SENDER},
        {"other address, IPv4 mode", sealed(list.get(), 2, LANHB_TAG_DOWN, key), wire, "198.18.0.20", false,
         LANHB_REFUSE_SENDER},
        {"unkeyed length", genuine, plain, "::ffff:198.18.0.2", true, LANHB_REFUSE_LENGTH},
        {"one byte longer", genuine, wire + 1, "::ffff:198.18.0.2", true, LANHB_REFUSE_LENGTH},
        {"tampered", tampered, wire, "::ffff:198.18.0.2", true, LANHB_REFUSE_CODE},
        {"other key", sealed(list.get(), 2, LANHB_TAG_DOWN, other), wire, "::ffff:198.18.0.2", true,
         LANHB_REFUSE_CODE},
    };
    auto verdict = [&](const bytes &dgram, size_t count, const char *from_, bool v6) {
        bytes buf = dgram;
        buf.resize(wire + 1);
        const sockaddr_storage from = addr(from_);
        lanhb_rsc *rsc = nullptr;
        lanhb_node *node = nullptr;
        return lanhb_accept(list.get(), reinterpret_cast<lanhb_packet *>(buf.data()), static_cast<ssize_t>(count),
                            wire, reinterpret_cast<const sockaddr *>(&from), v6, &rsc, &node);
    };
    lanhb_keyset(key.data()); // fresh windows
    for (const row &r : rows)
        EXPECT_EQ(verdict(r.dgram, r.count, r.from, r.v6), r.want) << r.what;

    // While keys change: a second key and unsigned datagrams count too, the
    // latter only from the exact address.
    const bytes bysecond = sealed(list.get(), 2, LANHB_TAG_HB, other);
    lanhb_keyset(key.data(), other.data(), true);
    EXPECT_EQ(verdict(bysecond, wire, "::ffff:198.18.0.2", true), LANHB_ACCEPTED);
    EXPECT_EQ(verdict(genuine, plain, "::ffff:198.18.0.2", true), LANHB_ACCEPTED);
    EXPECT_EQ(verdict(genuine, plain, "::ffff:198.18.0.20", true), LANHB_REFUSE_SENDER);
    EXPECT_EQ(verdict(tampered, wire, "::ffff:198.18.0.2", true), LANHB_REFUSE_CODE);
}

// Receives on a socket with the filter for `list` until quiet; (source, length) pairs.
std::set<std::pair<std::string, size_t>> drain(int fd)
{
    std::set<std::pair<std::string, size_t>> got;
    pollfd p{fd, POLLIN, 0};
    while (poll(&p, 1, 500) == 1) {
        sockaddr_in6 from{};
        socklen_t fl = sizeof from;
        unsigned char buf[2048];
        const ssize_t n = recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &fl);
        char text[INET6_ADDRSTRLEN];
        inet_ntop(AF_INET6, &from.sin6_addr, text, sizeof text);
        got.insert({text, static_cast<size_t>(n)});
    }
    return got;
}

void sendfrom(const char *src, uint16_t port, size_t len)
{
    const bool v6 = std::strchr(src, ':') != nullptr;
    const int fd = socket(v6 ? AF_INET6 : AF_INET, SOCK_DGRAM, 0);
    sockaddr_storage a = addr(src), to = addr(v6 ? "::1" : "127.0.0.1");
    const socklen_t sl = v6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&a), sl), 0) << src;
    (v6 ? reinterpret_cast<sockaddr_in6 *>(&to)->sin6_port : reinterpret_cast<sockaddr_in *>(&to)->sin_port) =
        htons(port);
    const bytes junk(len, 0x5a);
    EXPECT_EQ(sendto(fd, junk.data(), len, 0, reinterpret_cast<sockaddr *>(&to), sl), static_cast<ssize_t>(len));
    close(fd);
}

TEST_F(KeyTest, FilterPassesOnlyKeyedLengthFromMembers)
{
    cluster("127.0.0.1", "::1");
    list_ptr list = load();
    const size_t wire = lanhb_pktlen(list->maxnode) + LANHB_TRAILER_SIZE;
    int fd = -1;
    const uint16_t port = freeport(&fd);
    std::vector<sock_filter> prog(4096);
    const int n = lanhb_filterbuild(list.get(), wire, 0, prog.data(), 4096);
    ASSERT_GT(n, 0);
    sock_fprog fp{static_cast<unsigned short>(n), prog.data()};
    ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &fp, sizeof fp), 0);
    lanhb_refusedstart(fd);

    auto sendall = [&] {
        sendfrom("127.0.0.1", port, wire);
        sendfrom("127.0.0.1", port, wire - LANHB_TRAILER_SIZE); // unkeyed length
        sendfrom("127.0.0.1", port, wire + 1);
        sendfrom("127.0.0.2", port, wire); // not a member
        sendfrom("::1", port, wire);
    };
    sendall();
    const std::set<std::pair<std::string, size_t>> want = {{"::ffff:127.0.0.1", wire}, {"::1", wire}};
    EXPECT_EQ(drain(fd), want);
    lanhb_refusedsync(fd);
    EXPECT_EQ(fake::refused()[LANHB_REFUSE_FILTER - 1], 3u);

    // While unsigned datagrams are accepted too, their length passes as well
    // (a new program replaces the old).
    fp.len = static_cast<unsigned short>(
        lanhb_filterbuild(list.get(), wire, wire - LANHB_TRAILER_SIZE, prog.data(), 4096));
    ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &fp, sizeof fp), 0);
    sendall();
    std::set<std::pair<std::string, size_t>> more = want;
    more.insert({"::ffff:127.0.0.1", wire - LANHB_TRAILER_SIZE});
    EXPECT_EQ(drain(fd), more);
    close(fd);
}

TEST_F(KeyTest, RefusalsLoggedOncePerSourcePerMinute)
{
    hbtick_source = fakenow;
    now = 5000;
    int fd = socket(AF_INET6, SOCK_DGRAM, 0);
    lanhb_refusedstart(fd);
    close(fd);
    const sockaddr_storage a = addr("::ffff:198.18.0.20"), b = addr("2001:db8::fe");
    // Unkeyed, a refusal is counted but the log stays silent.
    lanhb_refused(LANHB_REFUSE_LENGTH, reinterpret_cast<const sockaddr *>(&a));
    EXPECT_EQ(lancount("refused "), 0);
    const keybuf key = testkey(0);
    lanhb_keyset(key.data());
    for (int i = 0; i < 3; ++i)
        lanhb_refused(LANHB_REFUSE_SENDER, reinterpret_cast<const sockaddr *>(&a));
    lanhb_refused(LANHB_REFUSE_CODE, reinterpret_cast<const sockaddr *>(&b));
    EXPECT_EQ(lancount("refused 1 datagram(s) from 198.18.0.20: sender"), 1);
    EXPECT_EQ(lancount("refused 1 datagram(s) from 2001:db8::fe: code"), 1);
    EXPECT_EQ(lancount("refused "), 2);
    now += 59 * tckconf;
    lanhb_refused(LANHB_REFUSE_REPLAY, reinterpret_cast<const sockaddr *>(&a));
    EXPECT_EQ(lancount("refused "), 2);
    now += 1 * tckconf;
    lanhb_refused(LANHB_REFUSE_REPLAY, reinterpret_cast<const sockaddr *>(&a));
    EXPECT_EQ(lancount("refused 4 datagram(s) from 198.18.0.20: replay"), 1);
    const std::array<uint64_t, HBEXT_REFUSED_COUNT> want = {1, 3, 1, 2, 0};
    EXPECT_EQ(fake::refused(), want);
}

} // namespace
