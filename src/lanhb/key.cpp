// The cluster key: the key file, the datagram trailer, the freshness rule,
// the replay window and the keyed acceptance of a datagram.
//
// The code is BLAKE2b-256 keyed with the 32-byte cluster key (libsodium's
// crypto_generichash): a MAC by design, with no HMAC construction around a
// plain hash, and on CPUs without hash instructions several times faster than
// HMAC-SHA256 in software, which keeps a keyed receiver well above the rate
// any burst of a cluster can produce.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <vector>

#include "frame/frame.h"
#include "lanhb/key.h"
#include "services/hbext.h"
#include "services/services.h"

namespace {

// Written on the main thread before any LAN thread starts, read-only after:
// thread creation orders the writes before every read.
bool keyon = false;
unsigned char keybytes[LANHB_KEY_SIZE];
bool key2on = false; // a second key accepted on receipt (a key change)
unsigned char key2bytes[LANHB_KEY_SIZE];
bool unsignedok = false; // unsigned datagrams accepted too (enabling a key)
// BLAKE2b with each key already absorbed: a code then costs the datagram's
// blocks only.
crypto_generichash_state keystate, key2state;
uint64_t windowns = 2000 * 1000000ULL;
uint64_t startmono = 0; // CLOCK_MONOTONIC ns at the receiver's start

// What the receiver keeps per node entry of the table (currsc x curnode),
// the receiver's only once threads run.
struct peer {
    lanhb_seqwin win;
    in6_addr addr{}; // the configured address, IPv4 as mapped
    bool v4 = false; // configured as an IPv4 address
    bool addrok = false;
    uint64_t clocktry = 0; // CLOCK_MONOTONIC ns when a stale datagram's code was last checked
    uint64_t clocklog = 0; // and when the clock line was last written
    int64_t clockoff = 0;  // with this offset
    bool clocklogged = false;
};
std::vector<peer> peers;
const lanhb_list *peersof = nullptr;

// The last sequence handed out. Relaxed order: only the value itself
// matters, and compare-exchange keeps it unique.
std::atomic<uint64_t> lastseq{0};

uint64_t clockns(clockid_t clock)
{
    struct timespec ts {};
    clock_gettime(clock, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<uint64_t>(ts.tv_nsec);
}

uint64_t nextseq()
{
    const uint64_t now = clockns(CLOCK_REALTIME);
    uint64_t prev = lastseq.load(std::memory_order_relaxed);
    uint64_t seq = 0;
    do {
        seq = lanhb_seqnext(prev, now, windowns);
    } while (!lastseq.compare_exchange_weak(prev, seq, std::memory_order_relaxed));
    return seq;
}

void mac(const unsigned char *data, size_t len, unsigned char out[LANHB_MAC_SIZE],
         const crypto_generichash_state &keyed = keystate)
{
    // Per thread (the sender seals, the receiver verifies); it holds nothing
    // the keyed state does not hold already.
    thread_local crypto_generichash_state st;
    st = keyed;
    crypto_generichash_update(&st, data, len);
    crypto_generichash_final(&st, out, LANHB_MAC_SIZE);
}

void putbe64(unsigned char *p, uint64_t v)
{
    for (int i = 7; i >= 0; --i, v >>= 8)
        p[i] = static_cast<unsigned char>(v & 0xff);
}

uint64_t getbe64(const unsigned char *p)
{
    uint64_t v = 0;
    for (int i = 0; i < 8; ++i)
        v = v << 8 | p[i];
    return v;
}

} // namespace

int32_t lanhb_keyfile(const char *path, unsigned char key[LANHB_KEY_SIZE])
{
    // Without blocking: opening a FIFO would wait for a writer for ever.
    const int fd = open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        const int err = errno;
        if (err == ELOOP) {
            HBLOG(HBLOG_LAN, HBLV_ERROR, "key file %s is a symbolic link: refused", path);
            return LANHB_KEY_SYMLINK;
        }
        HBLOG(HBLOG_LAN, HBLV_ERROR, "key file %s: open() failed(errno:%d)", path, err);
        return LANHB_KEY_MISSING;
    }
    struct stat st {};
    int32_t r = LANHB_KEY_OK;
    if (fstat(fd, &st) != 0) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "key file %s: fstat() failed(errno:%d)", path, errno);
        r = LANHB_KEY_READ;
    } else if (!S_ISREG(st.st_mode)) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "key file %s is not a regular file: refused", path);
        r = LANHB_KEY_MODE;
    } else if ((st.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "key file %s: mode %04o: must be a regular file of mode 0600 or 0400", path,
              static_cast<unsigned>(st.st_mode & 07777));
        r = LANHB_KEY_MODE;
    } else if (st.st_size != static_cast<off_t>(LANHB_KEY_SIZE)) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "key file %s: %lld bytes, must be %d", path, static_cast<long long>(st.st_size),
              static_cast<int>(LANHB_KEY_SIZE));
        r = LANHB_KEY_SIZE_BAD;
    } else {
        size_t got = 0;
        while (got < LANHB_KEY_SIZE) {
            const ssize_t n = read(fd, key + got, LANHB_KEY_SIZE - got);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0) {
                HBLOG(HBLOG_LAN, HBLV_ERROR, "key file %s: read() failed(errno:%d)", path, n < 0 ? errno : 0);
                r = LANHB_KEY_READ;
                break;
            }
            got += static_cast<size_t>(n);
        }
    }
    close(fd);
    if (r != LANHB_KEY_OK)
        sodium_memzero(key, LANHB_KEY_SIZE);
    return r;
}

void lanhb_keyset(const unsigned char *key, const unsigned char *also, bool open)
{
    keyon = key != nullptr;
    key2on = keyon && also != nullptr;
    unsignedok = keyon && open;
    peers.clear();
    peersof = nullptr;
    startmono = clockns(CLOCK_MONOTONIC);
    sodium_memzero(keybytes, sizeof keybytes);
    sodium_memzero(key2bytes, sizeof key2bytes);
    sodium_memzero(&keystate, sizeof keystate);
    sodium_memzero(&key2state, sizeof key2state);
    if (keyon && sodium_init() < 0) // picks the fastest code; nothing to fail with a working library
        HBLOG(HBLOG_LAN, HBLV_ERROR, "sodium_init() failed");
    if (keyon) {
        std::memcpy(keybytes, key, LANHB_KEY_SIZE);
        crypto_generichash_init(&keystate, keybytes, LANHB_KEY_SIZE, LANHB_MAC_SIZE);
    }
    if (key2on) {
        std::memcpy(key2bytes, also, LANHB_KEY_SIZE);
        crypto_generichash_init(&key2state, key2bytes, LANHB_KEY_SIZE, LANHB_MAC_SIZE);
    }
}

void lanhb_keywindow(int32_t ms) { windowns = static_cast<uint64_t>(std::max(ms, 0)) * 1000000ULL; }

bool lanhb_keyed() { return keyon; }

bool lanhb_keyunsigned() { return unsignedok; }

namespace {

// A text value of the policy "cluster"; empty when it cannot be read.
void cfgtext(const char *key, char *out, int32_t size)
{
    int32_t len = size - 1;
    if (xmllib_get_value(key, XMLLIB_KIND_TEXT, out, &len) != 0)
        out[0] = '\0';
    out[size - 1] = '\0';
}

// An optional integer of the policy "cluster"; `dflt` when absent.
int32_t cfgint(const char *key, int32_t dflt)
{
    int32_t v = 0;
    int32_t len = sizeof v;
    return xmllib_get_value(key, XMLLIB_KIND_INT, &v, &len) == 0 ? v : dflt;
}

// Resolves and reads one configured key file into `key`.
int32_t readkey(const char *name, unsigned char key[LANHB_KEY_SIZE])
{
    char path[512];
    if (hbext_path(name, path, sizeof path) != 0) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "key file %s: name too long", name);
        return LANHB_KEY_MISSING;
    }
    return lanhb_keyfile(path, key);
}

// Fills the receiving state of every node entry of the table.
void preparepeers(const lanhb_list *list)
{
    auto *l = const_cast<lanhb_list *>(list);
    peers.assign(static_cast<size_t>(list->currsc) * static_cast<size_t>(list->curnode), peer{});
    for (int32_t i = 0; i < list->currsc; ++i) {
        for (int32_t j = 0; j < list->curnode; ++j) {
            peer &p = peers[static_cast<size_t>(i) * static_cast<size_t>(list->curnode) + static_cast<size_t>(j)];
            char ip[LANHB_NAME_SIZE];
            lanhb_ipnozone(lanhb_nodeat(lanhb_rscat(l, i), j)->ip, ip);
            in_addr a4{};
            if (std::strchr(ip, ':') == nullptr && inet_pton(AF_INET, ip, &a4) == 1) {
                p.addr.s6_addr[10] = p.addr.s6_addr[11] = 0xff;
                std::memcpy(p.addr.s6_addr + 12, &a4, 4);
                p.v4 = p.addrok = true;
            } else {
                p.addrok = inet_pton(AF_INET6, ip, &p.addr) == 1;
            }
        }
    }
    peersof = list;
}

peer &peerat(const lanhb_list *list, int32_t i, int32_t j)
{
    if (peersof != list || peers.size() != static_cast<size_t>(list->currsc) * static_cast<size_t>(list->curnode))
        preparepeers(list); // keyed by lanhb_keyset alone, as the tests do
    return peers[static_cast<size_t>(i) * static_cast<size_t>(list->curnode) + static_cast<size_t>(j)];
}

// The source address against the entry's configured one, exactly.
bool addrmatch(const peer &p, const struct sockaddr *from, bool v6mode)
{
    if (!p.addrok)
        return false;
    if (!v6mode)
        return p.v4 && from->sa_family == AF_INET &&
               std::memcmp(&reinterpret_cast<const sockaddr_in *>(from)->sin_addr, p.addr.s6_addr + 12, 4) == 0;
    return from->sa_family == AF_INET6 &&
           std::memcmp(&reinterpret_cast<const sockaddr_in6 *>(from)->sin6_addr, &p.addr, sizeof p.addr) == 0;
}

} // namespace

int32_t lanhb_keyload(lanhb_list *list)
{
    char name[256] = {}, also[256] = {};
    int32_t open = 0, window = 0; // 0: not configured
    if (xmllib_load_policy("cluster") == 0) {
        cfgtext(LANHB_KEYCFG, name, sizeof name);
        cfgtext(LANHB_KEYCFG_ALSO, also, sizeof also);
        open = cfgint(LANHB_KEYCFG_UNSIGNED, 0);
        window = cfgint(LANHB_KEYCFG_WINDOW, 0);
        xmllib_unload_policy("cluster");
    }
    if (name[0] == '\0')
        return LANHB_KEY_OK; // no key: the transition settings mean nothing either
    if (window == 0) {
        window = list->hbto;
    } else if (window < LANHB_WINDOW_MIN || window > LANHB_WINDOW_MAX) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "invalid AUTHWINDOW(%d). set to %d msec.", window, list->hbto);
        window = list->hbto;
    }

    if (sodium_init() < 0) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "sodium_init() failed");
        return LANHB_KEY_READ;
    }
    unsigned char key[LANHB_KEY_SIZE], key2[LANHB_KEY_SIZE];
    int32_t r = readkey(name, key);
    if (r == LANHB_KEY_OK && also[0] != '\0')
        r = readkey(also, key2);
    if (r != LANHB_KEY_OK) {
        sodium_memzero(key, sizeof key);
        return r;
    }
    lanhb_keyset(key, also[0] != '\0' ? key2 : nullptr, open != 0);
    lanhb_keywindow(window);
    sodium_memzero(key, sizeof key);
    sodium_memzero(key2, sizeof key2);
    try {
        preparepeers(list);
    } catch (const std::bad_alloc &) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "malloc(%d) failed(errno:%d)",
              static_cast<int>(sizeof(peer) * list->currsc * list->curnode), ENOMEM);
        lanhb_keyset(nullptr);
        return LANHB_KEY_NOMEM;
    }
    HBLOG(HBLOG_LAN, HBLV_ERROR, "cluster key %s: signed and checked, %d-byte trailer, window %d ms%s%s%s", name,
          static_cast<int>(LANHB_TRAILER_SIZE), window, also[0] != '\0' ? "; also accepted: key " : "", also,
          open != 0 ? "; unsigned datagrams accepted too" : "");
    return LANHB_KEY_OK;
}

size_t lanhb_wirelen(int32_t maxnode) { return lanhb_pktlen(maxnode) + (keyon ? LANHB_TRAILER_SIZE : 0); }

void lanhb_keysealseq(lanhb_packet *pkt, size_t len, uint64_t seq)
{
    unsigned char *p = reinterpret_cast<unsigned char *>(pkt);
    putbe64(p + len, seq);
    mac(p, len + LANHB_SEQ_SIZE, p + len + LANHB_SEQ_SIZE);
}

size_t lanhb_keyseal(lanhb_packet *pkt, size_t len)
{
    if (!keyon)
        return len;
    lanhb_keysealseq(pkt, len, nextseq());
    return len + LANHB_TRAILER_SIZE;
}

bool lanhb_keyverify(const lanhb_packet *pkt, size_t wirelen, uint64_t *seq)
{
    if (wirelen < LANHB_TRAILER_SIZE)
        return false;
    const unsigned char *p = reinterpret_cast<const unsigned char *>(pkt);
    const size_t signedlen = wirelen - LANHB_MAC_SIZE;
    unsigned char want[LANHB_MAC_SIZE];
    static_assert(LANHB_MAC_SIZE == crypto_verify_32_BYTES); // compared in constant time
    mac(p, signedlen, want);
    if (crypto_verify_32(want, p + signedlen) != 0) {
        if (!key2on)
            return false;
        mac(p, signedlen, want, key2state);
        if (crypto_verify_32(want, p + signedlen) != 0)
            return false;
    }
    *seq = getbe64(p + signedlen - LANHB_SEQ_SIZE);
    return true;
}

uint64_t lanhb_seqnext(uint64_t prev, uint64_t now, uint64_t window)
{
    return now > prev || prev - now > window ? now : prev + 1;
}

bool lanhb_seqfresh(uint64_t seq, uint64_t now, uint64_t up, uint64_t window)
{
    return seq <= now + window && seq >= now - std::min({up, window, now});
}

bool lanhb_seqwin_new(const lanhb_seqwin *w, uint64_t seq)
{
    if (seq > w->last)
        return true;
    const uint64_t back = w->last - seq; // 0: the newest itself
    return back != 0 && back <= LANHB_SEQWIN && (w->seen & (1ULL << (back - 1))) == 0;
}

bool lanhb_seqwin_accept(lanhb_seqwin *w, uint64_t seq)
{
    if (!lanhb_seqwin_new(w, seq))
        return false;
    if (seq > w->last) {
        const uint64_t shift = seq - w->last;
        // The old newest becomes bit shift-1; everything older moves along.
        w->seen = shift > LANHB_SEQWIN ? 0 : (w->seen << (shift - 1) << 1) | (1ULL << (shift - 1));
        if (w->last == 0)
            w->seen = 0; // nothing accepted yet: no old newest to remember
        w->last = seq;
    } else {
        w->seen |= 1ULL << (w->last - seq - 1);
    }
    return true;
}

namespace {

constexpr uint64_t CLOCK_TRY_NS = 1000000000ULL;   // a stale datagram's code is checked at most this often per entry
constexpr uint64_t CLOCK_LOG_NS = 60000000000ULL;  // and the clock line written at most this often

// A stale datagram dated further from this node's clock than the window
// says something about the sender's clock, but only when its code is
// genuine: checked now and then, never for every datagram of a flood. The
// line comes once a minute, or at once when the offset moved by more than
// the window (a clock stepped again).
void clockcheck(peer &p, const lanhb_packet *pkt, size_t buflen, const lanhb_rsc *rsc, const lanhb_node *node,
                uint64_t seq, const lanhb_keyclock &c)
{
    if (seq <= c.now + windowns && seq + windowns >= c.now)
        return; // within the window: from before this receiver's start, not a clock matter
    if (p.clocktry != 0 && c.mono - p.clocktry < CLOCK_TRY_NS)
        return;
    const auto off = static_cast<int64_t>(seq - c.now);
    const uint64_t diff = static_cast<uint64_t>(off) - static_cast<uint64_t>(p.clockoff);
    const uint64_t moved = std::min(diff, 0 - diff); // either way, without overflow
    if (p.clocklogged && c.mono - p.clocklog < CLOCK_LOG_NS && moved <= windowns)
        return;
    p.clocktry = c.mono;
    uint64_t verified = 0;
    if (!lanhb_keyverify(pkt, buflen, &verified))
        return;
    p.clocklog = c.mono;
    p.clockoff = off;
    p.clocklogged = true;
    const int64_t rem = off % 1000000; // to the nearest millisecond
    const int64_t ms = off / 1000000 + (rem >= 500000 ? 1 : rem <= -500000 ? -1 : 0);
    HBLOG(HBLOG_LAN, HBLV_ERROR, "%s/node(%s(%d)) : datagram dated %+lld ms off this node's clock, window %d ms",
          rsc->name, node->name, node->pri, static_cast<long long>(ms), static_cast<int>(windowns / 1000000));
}

} // namespace

lanhb_keyclock lanhb_keyclocknow() { return {clockns(CLOCK_REALTIME), clockns(CLOCK_MONOTONIC)}; }

int32_t lanhb_keyaccept(lanhb_list *list, lanhb_packet *pkt, ssize_t count, size_t buflen,
                        const struct sockaddr *from, bool v6mode, lanhb_rsc **rsc, lanhb_node **node,
                        const lanhb_keyclock *clock)
{
    if (count <= 0 || static_cast<size_t>(count) != buflen || buflen < sizeof(lanhb_packet) + LANHB_TRAILER_SIZE)
        return LANHB_REFUSE_LENGTH;
    if (!lanhb_tagok(pkt))
        return LANHB_REFUSE_LENGTH;
    // Found on the words as received: nothing is converted before the code verifies.
    const int32_t rscpri = static_cast<int32_t>(ntohl(static_cast<uint32_t>(pkt->rscpri)));
    const int32_t nodepri = static_cast<int32_t>(ntohl(static_cast<uint32_t>(pkt->nodepri)));
    int32_t i = 0, j = 0;
    while (i < list->currsc && lanhb_rscat(list, i)->pri != rscpri)
        ++i;
    if (i == list->currsc)
        return LANHB_REFUSE_SENDER;
    lanhb_rsc *r = lanhb_rscat(list, i);
    while (j < list->curnode && lanhb_nodeat(r, j)->pri != nodepri)
        ++j;
    if (j == list->curnode)
        return LANHB_REFUSE_SENDER;
    peer &p = peerat(list, i, j);
    if (!addrmatch(p, from, v6mode))
        return LANHB_REFUSE_SENDER;

    // The sequence as claimed can only get the datagram refused here; it is
    // recorded only once the code has shown it genuine.
    const unsigned char *bytes = reinterpret_cast<const unsigned char *>(pkt);
    const uint64_t claimed = getbe64(bytes + buflen - LANHB_TRAILER_SIZE);
    if (!lanhb_seqwin_new(&p.win, claimed))
        return LANHB_REFUSE_REPLAY;
    const lanhb_keyclock c = clock != nullptr ? *clock : lanhb_keyclocknow();
    if (!lanhb_seqfresh(claimed, c.now, c.mono - startmono, windowns)) {
        clockcheck(p, pkt, buflen, r, lanhb_nodeat(r, j), claimed, c);
        return LANHB_REFUSE_STALE;
    }
    uint64_t seq = 0;
    if (!lanhb_keyverify(pkt, buflen, &seq))
        return LANHB_REFUSE_CODE;
    lanhb_seqwin_accept(&p.win, seq);
    lanhb_pktorder(pkt);
    *rsc = r;
    *node = lanhb_nodeat(r, j);
    return LANHB_ACCEPTED;
}
