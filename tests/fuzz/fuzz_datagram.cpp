// A datagram from anyone on the wire: the first byte picks the sender's
// address (and the receiver's mode), the rest is what recvfrom delivered.
// Acceptance, evaluation and a time-out pass run against the fake; published
// states stay within their sets, an accepted datagram names its node.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>
#include <memory>
#include <vector>

#include "fuzz_common.h"
#include "lanhb/lanhb.h"

using namespace fuzzcommon;

namespace {

// Senders: the peers as configured, an outsider whose text contains a
// peer's, mapped and link-local forms, and (last) 16 raw bytes of the input.
const char *const senders[] = {"198.18.0.2", "198.18.0.254", "::ffff:198.18.0.2", "2001:db8::2",
                               "2001:db8::3", "127.0.0.1",    "fe80::1"};
constexpr size_t NSEND = sizeof senders / sizeof senders[0];

sockaddr_storage address(uint8_t pick, const uint8_t *&data, size_t &size)
{
    sockaddr_storage ss{};
    auto *a4 = reinterpret_cast<sockaddr_in *>(&ss);
    auto *a6 = reinterpret_cast<sockaddr_in6 *>(&ss);
    if (pick % (NSEND + 1) == NSEND && size >= 16) {
        a6->sin6_family = AF_INET6;
        std::memcpy(&a6->sin6_addr, data, 16);
        data += 16, size -= 16;
    } else if (inet_pton(AF_INET, senders[pick % NSEND], &a4->sin_addr) == 1) {
        a4->sin_family = AF_INET;
    } else {
        a6->sin6_family = AF_INET6;
        inet_pton(AF_INET6, senders[pick % NSEND], &a6->sin6_addr);
    }
    return ss;
}

// node1 (this host), node2 on both paths, node3 only on the IPv4 path and
// written with a prefix.
void cluster()
{
    fake::set_hostname("node1");
    for (int i = 1; i <= 3; ++i)
        fake::add_node("node" + std::to_string(i), i);
    fake::add_rsc(HB_KIND_LANHB, "lan4", 0);
    fake::add_rsc(HB_KIND_LANHB, "lan6", 1);
    const char *const keys[][2] = {
        {"heartbeat/lanhb@lan4/device", "0"},         {"heartbeat/lanhb@lan6/device", "1"},
        {"all/num/server", "4"},                      {"server@node1/device@0/info", "198.18.0.1"},
        {"server@node1/device@1/info", "2001:db8::1"}, {"server@node2/device@0/info", "198.18.0.2"},
        {"server@node2/device@1/info", "2001:db8::2"}, {"server@node3/device@0/info", "198.18.0.3/24"}};
    for (const auto &[key, value] : keys)
        fake::set_key(std::string("/root/") + key, value);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    const uint8_t pick = data[0];
    const bool v6mode = (pick & 0x80) != 0;
    ++data, --size;
    sockaddr_storage from = address(pick & 0x7f, data, size);
    if (!v6mode && from.ss_family != AF_INET)
        return 0; // an IPv4 receiver only ever sees IPv4 senders

    fresh();
    cluster();
    lanhb_list *raw = nullptr;
    require(lanhb_loadinfo(&raw) == 0, "table of the fixed cluster");
    std::unique_ptr<lanhb_list, void (*)(lanhb_list *)> list(raw, lanhb_freelist);

    // recvfrom truncates to the buffer, which is one datagram long.
    const size_t len = lanhb_pktlen(list->maxnode);
    std::vector<uint8_t> buf(len, 0);
    const size_t count = std::min(size, len);
    std::memcpy(buf.data(), data, count);
    auto *pkt = reinterpret_cast<lanhb_packet *>(buf.data());

    lanhb_rsc *rsc = nullptr;
    lanhb_node *node = nullptr;
    if (lanhb_accept(list.get(), pkt, static_cast<ssize_t>(count), len, reinterpret_cast<sockaddr *>(&from), v6mode,
                     &rsc, &node) == 0) {
        require(rsc != nullptr && node != nullptr, "accepted datagram without its records");
        require(node->pri == pkt->nodepri && rsc->pri == pkt->rscpri, "accepted for another node or path");
        lanhb_hbdata(list.get(), rsc, node, pkt);
    }
    check_states(HB_KIND_LANHB, {"lan4", "lan6"}, 3, false);
    now += 3600 * 100; // far past every time-out
    lanhb_hbcheck(list.get());
    check_states(HB_KIND_LANHB, {"lan4", "lan6"}, 3, true);
    logterm();
    return 0;
}
