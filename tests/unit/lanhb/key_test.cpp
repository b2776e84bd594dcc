// The cluster key where only a unit test reaches cheaply: key file refusals,
// the trailer's bytes, the replay window, freshness at its edges, acceptance
// with one and two keys, the loopback socket and the batch receive, the
// kernel filter on real loopback sockets, and the rate-limited refusal log.
#include <poll.h>
#include <sodium.h>
#include <sys/stat.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <set>
#include <tuple>

#include "lanhb_test.h"

using namespace lanhbtest;

namespace {

using KeyTest = LanTest;
using keybuf = std::array<unsigned char, LANHB_KEY_SIZE>;

keybuf testkey(unsigned char first)
{
    keybuf k;
    std::iota(k.begin(), k.end(), first);
    return k;
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
    std::string hex;
    for (size_t i = 320; i < buf.size(); ++i)
        hex += "0123456789abcdef"[buf[i] >> 4], hex += "0123456789abcdef"[buf[i] & 15];
    EXPECT_EQ(hex, "0102030405060708"
                   "7e600c169180f8af722baa5835a87942cbf6d8aec24ad4104c27b4ded3b8d245");
    uint64_t seq = 0;
    EXPECT_TRUE(lanhb_keyverify(pkt, buf.size(), &seq));
    EXPECT_EQ(seq, 0x0102030405060708ULL);
    for (size_t at : {size_t{0}, size_t{299}, size_t{320}, size_t{328}, buf.size() - 1}) {
        bytes bad = buf;
        bad[at] ^= 0x01;
        EXPECT_FALSE(lanhb_keyverify(reinterpret_cast<lanhb_packet *>(bad.data()), bad.size(), &seq)) << at;
    }
}

TEST_F(KeyTest, ReplayWindow)
{
    // the same again; late but unseen, then a replay; remembered after a move;
    // 64 below the newest is the window's edge; a jump forgets all below.
    const std::pair<uint64_t, bool> steps[] = {
        {1000, true}, {1000, false}, {999, true}, {999, false}, {1010, true},  {1000, false}, {1001, true},
        {946, true},  {945, false},  {2000, true}, {1010, false}, {1999, true}, {2001, true},
    };
    lanhb_seqwin w;
    for (const auto &[seq, ok] : steps)
        EXPECT_EQ(lanhb_seqwin_accept(&w, seq), ok) << seq;
}

TEST_F(KeyTest, FreshnessAndNextSequenceAtTheirEdges)
{
    constexpr uint64_t W = 2000, NOW = 1000000, LONG = 10 * W;
    // sequence, receiver up for, fresh: within the window either way, never
    // from before the receiver's start
    const std::tuple<uint64_t, uint64_t, bool> fresh[] = {
        {NOW, LONG, true},      {NOW + W, LONG, true},  {NOW + W + 1, LONG, false}, {NOW - W, LONG, true},
        {NOW - W - 1, LONG, false}, {NOW - 500, 500, true}, {NOW - 501, 500, false},  {NOW + W, 0, true},
        {NOW - 1, 0, false},    {0, LONG, false},       {UINT64_MAX, LONG, false},
    };
    for (const auto &[seq, up, want] : fresh)
        EXPECT_EQ(lanhb_seqfresh(seq, NOW, up, W), want) << seq << " up " << up;
    // previous, clock, next: the clock while it moves on, one more while it
    // stands or went back within the window, the clock again past that
    const std::tuple<uint64_t, uint64_t, uint64_t> next[] = {
        {0, NOW, NOW},         {NOW, NOW, NOW + 1},         {NOW, NOW + 5, NOW + 5},
        {NOW + W, NOW, NOW + W + 1}, {NOW + W + 1, NOW, NOW}, {NOW + 86400 * W, NOW, NOW},
    };
    for (const auto &[prev, clock, want] : next)
        EXPECT_EQ(lanhb_seqnext(prev, clock, W), want) << prev << " at " << clock;
}

TEST_F(KeyTest, KeyFileChecks)
{
    namespace fs = std::filesystem;
    const fs::path dir = fs::temp_directory_path() / ("zemkey-" + std::to_string(getpid()));
    fs::create_directories(dir);
    const keybuf k7 = testkey(7);
    const std::tuple<const char *, size_t, mode_t, int32_t> cases[] = {
        {"good", LANHB_KEY_SIZE, 0600, LANHB_KEY_OK},       {"readonly", LANHB_KEY_SIZE, 0400, LANHB_KEY_OK},
        {"group", LANHB_KEY_SIZE, 0640, LANHB_KEY_MODE},    {"other", LANHB_KEY_SIZE, 0604, LANHB_KEY_MODE},
        {"short", LANHB_KEY_SIZE - 1, 0600, LANHB_KEY_SIZE_BAD}, {"long", LANHB_KEY_SIZE + 1, 0600, LANHB_KEY_SIZE_BAD},
        {"link", 0, 0, LANHB_KEY_SYMLINK},                 {"dir", 0, 0, LANHB_KEY_MODE},
        {"fifo", 0, 0, LANHB_KEY_MODE},                    {"missing", 0, 0, LANHB_KEY_MISSING},
    };
    const std::string raw(k7.begin(), k7.end());
    for (const auto &[name, size, mode, want] : cases)
        if (mode != 0)
            std::ofstream(dir / name) << (raw + raw).substr(0, size), fs::permissions(dir / name, fs::perms(mode));
    fs::create_symlink(dir / "good", dir / "link");
    fs::create_directory(dir / "dir");
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0); // opening it must not wait for a writer
    for (const auto &[name, size, mode, want] : cases) {
        keybuf k{};
        EXPECT_EQ(lanhb_keyfile((dir / name).c_str(), k.data()), want) << name;
        EXPECT_EQ(k == k7, want == LANHB_KEY_OK) << name;
    }
    EXPECT_TRUE(lanlog("key file " + (dir / "fifo").string() + " is not a regular file: refused"));

    // Through the configuration: a relative name is taken under the root; no
    // name at all leaves the daemon unkeyed without a word in its log.
    cluster();
    list_ptr list = load();
    fake::set_root(dir.string());
    const size_t before = fake::texts(HB_KIND_LANHB).size();
    fake::set_key(LANHB_KEYCFG_WINDOW, "50"); // below 100 ms: the time-out
    for (auto [name, want] : {std::pair{"", LANHB_KEY_OK}, {"group", LANHB_KEY_MODE}, {"good", LANHB_KEY_OK}}) {
        if (*name != '\0')
            fake::set_key(LANHB_KEYCFG, name);
        EXPECT_EQ(lanhb_keyload(list.get()), want) << name;
        EXPECT_EQ(lanhb_keyed(), std::string(name) == "good") << name;
        EXPECT_EQ(fake::texts(HB_KIND_LANHB).size() == before, *name == '\0') << name;
    }
    EXPECT_FALSE(lanhb_keyunsigned()); // unless configured, unsigned datagrams are refused
    fake::set_key(LANHB_KEYCFG_ALSO, "missing"); // the second key counts as much as the first
    EXPECT_EQ(lanhb_keyload(list.get()), LANHB_KEY_MISSING);
    EXPECT_TRUE(lanlog("invalid AUTHWINDOW(50). set to " + std::to_string(list->hbto) + " msec."));
    EXPECT_EQ(lancount(", window " + std::to_string(list->hbto) + " ms"), 1);
    fake::set_root("/fake-root");
    fs::remove_all(dir);
}

// A down packet of node2 on lan1 with the trailer of `seq` under key `k`;
// `forged` spoils the code.
bytes sealed(const lanhb_list *list, const keybuf &k, uint64_t seq, bool forged = false)
{
    const size_t plain = lanhb_pktlen(list->maxnode);
    bytes buf(plain + LANHB_TRAILER_SIZE);
    auto *pkt = reinterpret_cast<lanhb_packet *>(buf.data());
    lanhb_pktinit(pkt, list, LANHB_TAG_DOWN);
    pkt->nodepri = static_cast<int32_t>(htonl(2)), pkt->rscpri = static_cast<int32_t>(htonl(10));
    for (int i = 0; i < 8; ++i)
        buf[plain + size_t(i)] = static_cast<unsigned char>(seq >> (56 - 8 * i));
    crypto_generichash(buf.data() + plain + 8, 32, buf.data(), plain + 8, k.data(), k.size());
    buf.back() ^= forged ? 1 : 0;
    return buf;
}

// Where keyed acceptance differs from the plain one (forgery, replay and other
// keys end to end are the system tests'): the sender's address must be exact,
// the sequence fresh and new, checked before the code but recorded only after
// it; and while keys change a second key and unsigned datagrams count too.
TEST_F(KeyTest, KeyedAcceptance)
{
    cluster("127.0.0.1", "198.18.0.2");
    list_ptr list = load();
    const keybuf key = testkey(0), other = testkey(9);
    const size_t plain = lanhb_pktlen(list->maxnode), wire = plain + LANHB_TRAILER_SIZE;
    const char *peer = "::ffff:198.18.0.2", *near = "::ffff:198.18.0.20"; // contains the peer's text
    constexpr int64_t W = 2000000000, BEFORE = INT64_MIN;                 // BEFORE: the receiver's start - 1
    // key, sequence (ns after the start), forged, length, source, verdict with the key, while keys change
    const std::tuple<const keybuf *, int64_t, bool, size_t, const char *, int32_t, int32_t> rows[] = {
        {&key, BEFORE, false, wire, peer, LANHB_REFUSE_STALE, LANHB_REFUSE_STALE},
        {&key, 1, false, wire, peer, LANHB_ACCEPTED, LANHB_ACCEPTED},
        {&key, 1, false, wire, peer, LANHB_REFUSE_REPLAY, LANHB_REFUSE_REPLAY},
        {&key, 3, true, wire, peer, LANHB_REFUSE_CODE, LANHB_REFUSE_CODE},
        {&key, 3, false, wire, peer, LANHB_ACCEPTED, LANHB_ACCEPTED}, // the forgery recorded nothing
        {&key, 2, false, wire, peer, LANHB_ACCEPTED, LANHB_ACCEPTED}, // late but unseen
        {&key, 3 * W, false, wire, peer, LANHB_REFUSE_STALE, LANHB_REFUSE_STALE},
        {&key, 4, false, wire, near, LANHB_REFUSE_SENDER, LANHB_REFUSE_SENDER},
        {&key, 5, false, plain, peer, LANHB_REFUSE_LENGTH, LANHB_ACCEPTED},
        {&key, 5, false, plain, near, LANHB_REFUSE_LENGTH, LANHB_REFUSE_SENDER},
        {&other, 6, false, wire, peer, LANHB_REFUSE_CODE, LANHB_ACCEPTED},
    };
    lanhb_keywindow(2000);
    for (bool changing : {false, true}) {
        const uint64_t before = lanhb_keyclocknow().now;
        changing ? lanhb_keyset(key.data(), other.data(), true) : lanhb_keyset(key.data()); // fresh windows
        const uint64_t start = lanhb_keyclocknow().now;
        for (const auto &[k, at, forged, count, from, keyed, both] : rows)
            EXPECT_EQ(verdict(list.get(), sealed(list.get(), *k, at == BEFORE ? before - 1 : start + uint64_t(at), forged),
                              count, wire, from, true),
                      changing ? both : keyed)
                << from << " " << count << " at " << at << " changing " << changing;
    }
    // The datagram from a clock 6 s ahead was genuine: the log says so, once a start.
    EXPECT_EQ(lancount("lan1/node(node2(2)) : datagram dated +"), 2);
    EXPECT_EQ(lancount(" ms off this node's clock, window 2000 ms"), 2);
}

// The node's own heartbeats come in on a socket of their own, in batches;
// nobody can bind the port beside it then, not even with SO_REUSEPORT.
TEST_F(KeyTest, LoopbackSocketTakesOwnHeartbeatsInBatches)
{
    const keybuf key = testkey(0);
    lanhb_keyset(key.data());
    int main = -1;
    const uint16_t port = freeport(&main);
    cluster("127.0.0.1", "198.18.0.2");
    fake::set_key("/root/cluster/heartbeat/port/recv", std::to_string(port));
    list_ptr list = load();
    const int own = lanhb_loopsock(list.get(), main), intruder = socket(AF_INET, SOCK_DGRAM, 0), on = 1;
    sockaddr_storage to = addr("127.0.0.1");
    reinterpret_cast<sockaddr_in *>(&to)->sin_port = htons(port);
    setsockopt(intruder, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
    ASSERT_GE(own, 0);
    EXPECT_NE(bind(intruder, sap(&to), sizeof(sockaddr_in)), 0);
    const size_t wire = lanhb_wirelen(list->maxnode);
    bytes out(wire);
    auto *pkt = reinterpret_cast<lanhb_packet *>(out.data());
    lanhb_pktinit(pkt, list.get(), LANHB_TAG_HB);
    lanhb_pktrsc(pkt, lanhb_rscat(list.get(), 0));
    for (int i = 0; i < 4; ++i) // the last one a replay of the third
        sendto(intruder, out.data(), i < 3 ? lanhb_keyseal(pkt, wire - LANHB_TRAILER_SIZE) : wire, 0, sap(&to),
               sizeof(sockaddr_in));
    pollfd p{own, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 2000), 1);
    usleep(50000);
    std::unique_ptr<lanhb_batch, void (*)(lanhb_batch *)> b(lanhb_batchnew(wire), lanhb_batchfree);
    hbtick_t maxrecv = 0;
    EXPECT_EQ(lanhb_recvbatch(list.get(), b.get(), main, true, &maxrecv), 0); // nothing on the wildcard socket
    EXPECT_EQ(lanhb_recvbatch(list.get(), b.get(), own, false, &maxrecv), 4);
    EXPECT_EQ(fake::svstat(HB_KIND_LANHB, "lan1", 1), SHMNM_SVSTAT_ONLINE);
    EXPECT_EQ(fake::refused()[LANHB_REFUSE_REPLAY - 1], 1u);
    hbcount_publish(); // every datagram of the batch received, the fresh ones accepted
    EXPECT_EQ(fake::counts(HB_KIND_LANHB)[HBEXT_KC_RECEIVED], 4u);
    EXPECT_EQ(fake::counts(HB_KIND_LANHB, "lan1", 1)[HBEXT_NC_ACCEPTED], 3u);
    for (int fd : {own, main, intruder})
        close(fd);
}

// Sends `len` bytes from `src` (IPv4 as mapped) to the loopback's `port`.
void sendfrom(const char *src, uint16_t port, size_t len)
{
    const int fd = socket(AF_INET6, SOCK_DGRAM, 0);
    sockaddr_storage from = addr(src), to = addr(std::strchr(src, '.') ? "::ffff:127.0.0.1" : "::1");
    reinterpret_cast<sockaddr_in6 *>(&to)->sin6_port = htons(port);
    ASSERT_EQ(bind(fd, sap(&from), sizeof(sockaddr_in6)), 0) << src;
    const bytes junk(len, 0x5a);
    EXPECT_EQ(sendto(fd, junk.data(), len, 0, sap(&to), sizeof(sockaddr_in6)), ssize_t(len));
    close(fd);
}

TEST_F(KeyTest, FilterPassesOnlyKeyedLengthFromMembers)
{
    int fd = -1;
    const uint16_t port = freeport(&fd);
    // node2 at ::1 passes; at ::2 the loopback's ::1, one word off, does not. The
    // second program also lets the unsigned length through (keys changing).
    for (auto [ip2, alt] : {std::pair{"::1", false}, {"::2", true}}) {
        reload();
        cluster("127.0.0.1", ip2);
        list_ptr list = load();
        const size_t wire = lanhb_pktlen(list->maxnode) + LANHB_TRAILER_SIZE, plain = wire - LANHB_TRAILER_SIZE;
        std::vector<sock_filter> prog(4096);
        const int n = lanhb_filterbuild(list.get(), wire, alt ? plain : 0, prog.data(), 4096);
        ASSERT_GT(n, 0);
        sock_fprog fp{static_cast<unsigned short>(n), prog.data()};
        ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &fp, sizeof fp), 0);
        lanhb_refusedstart(fd);
        const char *v4 = "::ffff:127.0.0.1";
        for (auto [src, len] : {std::pair{v4, wire}, {v4, plain}, {v4, wire + 1}, {"::ffff:127.0.0.2", wire}, {"::1", wire}})
            sendfrom(src, port, len);
        std::set<std::pair<std::string, size_t>> want = {{v4, wire}, {alt ? v4 : "::1", alt ? plain : wire}}, got;
        pollfd p{fd, POLLIN, 0};
        for (unsigned char buf[2048]; poll(&p, 1, 500) == 1;) {
            sockaddr_in6 from{};
            socklen_t fl = sizeof from;
            const ssize_t r = recvfrom(fd, buf, sizeof buf, 0, sap(&from), &fl);
            char text[INET6_ADDRSTRLEN];
            got.insert({inet_ntop(AF_INET6, &from.sin6_addr, text, sizeof text), size_t(r)});
        }
        EXPECT_EQ(got, want) << ip2;
        lanhb_refusedsync(fd);
        EXPECT_EQ(fake::refused()[LANHB_REFUSE_FILTER - 1], 3u) << ip2;
    }
    close(fd);
}

TEST_F(KeyTest, RefusalsLoggedOncePerSourcePerMinuteByReason)
{
    hbtick_source = fakenow;
    now = 5000;
    const int fd = socket(AF_INET6, SOCK_DGRAM, 0);
    lanhb_refusedstart(fd);
    close(fd);
    const sockaddr_storage a = addr("::ffff:198.18.0.20"), b = addr("2001:db8::fe");
    auto refuse = [](int32_t why, const sockaddr_storage &from) { lanhb_refused(why, sap(&from)); };
    refuse(LANHB_REFUSE_LENGTH, a); // unkeyed: counted, the log stays silent
    EXPECT_EQ(lancount("refused "), 0);
    const keybuf key = testkey(0);
    lanhb_keyset(key.data());
    for (int i = 0; i < 3; ++i)
        refuse(LANHB_REFUSE_SENDER, a);
    refuse(LANHB_REFUSE_CODE, b);
    EXPECT_EQ(lancount("refused 1 datagram(s) from 198.18.0.20: sender 1 (unknown path, node or address)"), 1);
    EXPECT_EQ(lancount("refused 1 datagram(s) from 2001:db8::fe: code 1 ("), 1);
    now += 59 * tckconf;
    refuse(LANHB_REFUSE_REPLAY, a);
    EXPECT_EQ(lancount("refused "), 2);
    now += 1 * tckconf;
    refuse(LANHB_REFUSE_STALE, a);
    EXPECT_EQ(lancount("refused 4 datagram(s) from 198.18.0.20: sender 2 (unknown path, node or address), "
                       "replay 1 (accepted once already), stale 1 ("),
              1);
    EXPECT_EQ(fake::refused(), (std::array<uint64_t, HBEXT_REFUSED_COUNT>{1, 3, 1, 1, 0, 1}));
}

} // namespace
