// What an operator writes: cluster.xml, local.xml and a key, separated by NUL
// bytes: the platform's validation, the lookup of the key in both kinds, and
// for a configuration that passes, the shared memory init builds from it,
// which must show the cluster back unchanged.
#include <unistd.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "fuzz_common.h"
#include "plat.h"

using namespace fuzzcommon;

namespace {

void lookup(const char *key)
{
    int32_t v = 0;
    int32_t len = sizeof v;
    xmllib_get_value(key, XMLLIB_KIND_INT, &v, &len);
    char text[64];
    len = sizeof text;
    if (xmllib_get_value(key, XMLLIB_KIND_TEXT, text, &len) == 0)
        require(len >= 1 && len <= static_cast<int32_t>(sizeof text) && text[len - 1] == '\0', "text value length");
}

void created_matches(const plat_cluster &cl)
{
    std::string err;
    if (plat_shm_create(cl, err) != 0 || shmnm_attach() != 0)
        return;
    std::vector<char> buf(64 * 64);
    int32_t size = static_cast<int32_t>(buf.size());
    if (shmnm_enumnode(buf.data(), &size) == 0) {
        size_t n = 0;
        for (const char *p = buf.data(); *p != '\0'; p += std::strlen(p) + 1, ++n) {
            int32_t pri = -1;
            require(n < cl.nodes.size() && cl.nodes[n].name == p, "node order");
            require(shmnm_getnodepri(p, &pri) == 0 && pri == cl.nodes[n].pri, "node priority");
        }
        require(n == cl.nodes.size(), "node count");
    }
    shmnm_detach();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view in(reinterpret_cast<const char *>(data), size);
    std::string_view part[3];
    for (auto &p : part) {
        const size_t cut = std::min(in.find('\0'), in.size());
        p = in.substr(0, cut);
        in.remove_prefix(std::min(cut + 1, in.size()));
    }
    putfile("etc/cluster.xml", part[0]);
    putfile("etc/local.xml", part[1]);
    const std::string key(part[2]);

    plat_cluster cl;
    std::vector<std::string> errors, notes;
    const int32_t r = plat_load_cluster(cl, errors, notes);
    require((r == 0) == errors.empty(), "result agrees with the problems found");
    if (r == 0) {
        std::set<std::string> names;
        std::set<int32_t> pris;
        for (const plat_node &n : cl.nodes) {
            require(n.pri >= 0 && n.pri < NM_MAXNODE && pris.insert(n.pri).second, "node priority");
            require(!n.name.empty() && names.insert(n.name).second, "node name");
        }
        created_matches(cl);
    }
    plat_local loc;
    plat_load_local(loc);
    char host[64];
    xmllib_gethostname(host, sizeof host);

    int32_t v = 0;
    plat_parse_i32(key.c_str(), &v);
    if (xmllib_init("fuzz") == 0 && xmllib_load_config() == 0) {
        // Keys the daemon reads too, so the lookup walks real paths as well.
        for (const char *k : {key.c_str(), "/root/cluster/heartbeat/timeout", "/root/cluster/heartbeat/interval",
                              "/root/all/num/server", "/root/heartbeat/lanhb@lan4/device",
                              "/root/server@node1/device@0/info"})
            lookup(k);
        xmllib_unload_config();
    }
    xmllib_term();
    return 0;
}
