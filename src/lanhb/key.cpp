// The cluster key: the key file, the datagram trailer and the replay window.
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
std::vector<lanhb_seqwin> windows; // currsc x curnode, the receiver's only

// The last sequence handed out. A sequence is the wall-clock time in
// nanoseconds, or one more than the previous when the clock has not moved
// on, so it keeps growing across restarts of the daemon. Relaxed order: only
// the value itself matters, and compare-exchange keeps it unique.
std::atomic<uint64_t> lastseq{0};

uint64_t nextseq()
{
    struct timespec ts {};
    clock_gettime(CLOCK_REALTIME, &ts);
    const uint64_t now = static_cast<uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<uint64_t>(ts.tv_nsec);
    uint64_t prev = lastseq.load(std::memory_order_relaxed);
    uint64_t seq = 0;
    do {
        seq = now > prev ? now : prev + 1;
    } while (!lastseq.compare_exchange_weak(prev, seq, std::memory_order_relaxed));
    return seq;
}

void mac(const unsigned char *data, size_t len, unsigned char out[LANHB_MAC_SIZE],
         const unsigned char *key = keybytes)
{
    crypto_generichash(out, LANHB_MAC_SIZE, data, len, key, LANHB_KEY_SIZE);
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
    const int fd = open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
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
    } else if (!S_ISREG(st.st_mode) || (st.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
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
    windows.clear();
    sodium_memzero(keybytes, sizeof keybytes);
    sodium_memzero(key2bytes, sizeof key2bytes);
    if (keyon)
        std::memcpy(keybytes, key, LANHB_KEY_SIZE);
    if (key2on)
        std::memcpy(key2bytes, also, LANHB_KEY_SIZE);
}

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

} // namespace

int32_t lanhb_keyload(lanhb_list *list)
{
    char name[256] = {}, also[256] = {};
    int32_t open = 0;
    if (xmllib_load_policy("cluster") == 0) {
        cfgtext(LANHB_KEYCFG, name, sizeof name);
        cfgtext(LANHB_KEYCFG_ALSO, also, sizeof also);
        int32_t len = sizeof open;
        if (xmllib_get_value(LANHB_KEYCFG_UNSIGNED, XMLLIB_KIND_INT, &open, &len) != 0)
            open = 0;
        xmllib_unload_policy("cluster");
    }
    if (name[0] == '\0')
        return LANHB_KEY_OK; // no key: the transition settings mean nothing either

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
    sodium_memzero(key, sizeof key);
    sodium_memzero(key2, sizeof key2);
    try {
        windows.assign(static_cast<size_t>(list->currsc) * static_cast<size_t>(list->curnode), lanhb_seqwin{});
    } catch (const std::bad_alloc &) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "malloc(%d) failed(errno:%d)",
              static_cast<int>(sizeof(lanhb_seqwin) * list->currsc * list->curnode), ENOMEM);
        lanhb_keyset(nullptr);
        return LANHB_KEY_NOMEM;
    }
    HBLOG(HBLOG_LAN, HBLV_ERROR, "cluster key %s: datagrams signed and checked (%d-byte trailer)%s%s%s", name,
          static_cast<int>(LANHB_TRAILER_SIZE), also[0] != '\0' ? "; also accepted: key " : "", also,
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
    mac(p, signedlen, want);
    if (sodium_memcmp(want, p + signedlen, LANHB_MAC_SIZE) != 0) {
        if (!key2on)
            return false;
        mac(p, signedlen, want, key2bytes);
        if (sodium_memcmp(want, p + signedlen, LANHB_MAC_SIZE) != 0)
            return false;
    }
    *seq = getbe64(p + signedlen - LANHB_SEQ_SIZE);
    return true;
}

bool lanhb_seqwin_accept(lanhb_seqwin *w, uint64_t seq)
{
    if (seq > w->last) {
        const uint64_t shift = seq - w->last;
        // The old newest becomes bit shift-1; everything older moves along.
        w->seen = shift > LANHB_SEQWIN ? 0 : (w->seen << (shift - 1) << 1) | (1ULL << (shift - 1));
        if (w->last == 0)
            w->seen = 0; // nothing accepted yet: no old newest to remember
        w->last = seq;
        return true;
    }
    const uint64_t back = w->last - seq; // 0: the newest itself
    if (back == 0 || back > LANHB_SEQWIN)
        return false;
    const uint64_t bit = 1ULL << (back - 1);
    if ((w->seen & bit) != 0)
        return false;
    w->seen |= bit;
    return true;
}

lanhb_seqwin *lanhb_keywin(lanhb_list *list, lanhb_rsc *rsc, lanhb_node *node)
{
    for (int32_t i = 0; i < list->currsc; ++i) {
        if (lanhb_rscat(list, i) != rsc)
            continue;
        const size_t j = static_cast<size_t>(node - lanhb_nodeat(rsc, 0));
        const size_t k = static_cast<size_t>(i) * static_cast<size_t>(list->curnode) + j;
        if (k >= windows.size()) // keyed by lanhb_keyset alone: grow once
            windows.resize(static_cast<size_t>(list->currsc) * static_cast<size_t>(list->curnode));
        return &windows[k];
    }
    return nullptr;
}
