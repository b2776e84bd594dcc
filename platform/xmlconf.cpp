// The configuration library: etc/cluster.xml read through key paths, and
// this node's identity from etc/local.xml.
//
// A policy names a group of keys. All keys live in one document here, so
// loading a policy only checks its name and that the configuration is
// loaded, and counts the load; reads do not depend on which policies are
// loaded (the daemon reads some keys with none loaded).
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string_view>

#include <pugixml.hpp>

#include "plat.h"

namespace {

struct xmlfile {
    std::string path;
    std::string text;
    pugi::xml_document doc;

    int line(const pugi::xml_node &n) const
    {
        ptrdiff_t off = n.offset_debug();
        if (off < 0 || static_cast<size_t>(off) > text.size())
            return 0;
        return 1 + static_cast<int>(std::count(text.begin(), text.begin() + off, '\n'));
    }
};

std::string_view trim(std::string_view s)
{
    constexpr std::string_view blanks = " \t\r\n";
    size_t b = s.find_first_not_of(blanks);
    if (b == std::string_view::npos)
        return {};
    size_t e = s.find_last_not_of(blanks);
    return s.substr(b, e - b + 1);
}

// Reads and parses one file; missing is set when it does not exist.
int32_t xml_open(const std::string &path, xmlfile &f, const char *rootname, std::string &err, bool *missing)
{
    f.path = path;
    if (missing != nullptr)
        *missing = false;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT && missing != nullptr)
            *missing = true;
        err = path + ": " + (errno == ENOENT ? "file missing" : strerror(errno));
        return errno == ENOENT ? PLAT_ENOENT : PLAT_EIO;
    }
    char chunk[8192];
    for (;;) {
        ssize_t n = read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            err = path + ": " + strerror(errno);
            close(fd);
            return PLAT_EIO;
        }
        if (n == 0)
            break;
        f.text.append(chunk, static_cast<size_t>(n));
    }
    close(fd);
    pugi::xml_parse_result res = f.doc.load_buffer(f.text.data(), f.text.size());
    if (!res) {
        size_t off = std::min(static_cast<size_t>(std::max<ptrdiff_t>(res.offset, 0)), f.text.size());
        size_t nl = f.text.rfind('\n', off == 0 ? 0 : off - 1);
        int line = 1 + static_cast<int>(std::count(f.text.begin(), f.text.begin() + static_cast<ptrdiff_t>(off), '\n'));
        size_t col = (nl == std::string::npos || off == 0) ? off + 1 : off - nl;
        err = path + ":" + std::to_string(line) + ":" + std::to_string(col) + ": XML error: " + res.description();
        return PLAT_EFORMAT;
    }
    pugi::xml_node top = f.doc.document_element();
    if (std::string_view(top.name()) != rootname) {
        err = path + ":" + std::to_string(f.line(top)) + ": document element is <" + top.name() + ">, expected <" +
              rootname + ">";
        return PLAT_EFORMAT;
    }
    return 0;
}

// Walks a key path from the document: "/root/server@node1/device@0/info".
pugi::xml_node key_find(const pugi::xml_document &doc, std::string_view key)
{
    if (key.empty() || key[0] != '/')
        return {};
    pugi::xml_node cur = doc;
    size_t pos = 1;
    while (pos <= key.size()) {
        size_t end = key.find('/', pos);
        if (end == std::string_view::npos)
            end = key.size();
        std::string_view seg = key.substr(pos, end - pos);
        if (seg.empty())
            return {};
        size_t at = seg.find('@');
        std::string_view name = seg.substr(0, at);
        pugi::xml_node next;
        for (pugi::xml_node c : cur.children()) {
            if (c.type() != pugi::node_element || name != c.name())
                continue;
            if (at != std::string_view::npos && seg.substr(at + 1) != c.attribute("name").value())
                continue;
            next = c;
            break;
        }
        if (!next)
            return {};
        cur = next;
        pos = end + 1;
    }
    return cur;
}

std::string own_hostname()
{
    char buf[256] = {};
    if (gethostname(buf, sizeof buf - 1) != 0)
        return "localhost";
    return buf;
}

// ---- library state ------------------------------------------------------------

constexpr std::array<const char *, 4> policies = {"all", "cluster", "lanhb", "cnthb"};

std::shared_mutex cfgmx;
bool cfginit;               // under cfgmx
std::unique_ptr<xmlfile> cfg; // the loaded configuration, under cfgmx
std::array<int, policies.size()> policyloads;

int policy_index(const char *name)
{
    if (name == nullptr)
        return -1;
    for (size_t i = 0; i < policies.size(); i++)
        if (strcmp(name, policies[i]) == 0)
            return static_cast<int>(i);
    return -1;
}

} // namespace

bool plat_parse_i32(const char *text, int32_t *out)
{
    if (text == nullptr)
        return false;
    std::string_view s = trim(text);
    bool neg = false;
    if (!s.empty() && (s[0] == '-' || s[0] == '+')) {
        neg = s[0] == '-';
        s.remove_prefix(1);
    }
    int base = 10;
    if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
        base = 16;
        s.remove_prefix(2);
    }
    if (s.empty() || s[0] == '-' || s[0] == '+')
        return false;
    uint64_t v = 0;
    auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), v, base);
    if (ec != std::errc() || p != s.data() + s.size())
        return false;
    if (neg ? v > uint64_t(INT32_MAX) + 1 : v > uint64_t(INT32_MAX))
        return false;
    *out = neg ? static_cast<int32_t>(-static_cast<int64_t>(v)) : static_cast<int32_t>(v);
    return true;
}

int32_t xmllib_init(const char *module)
{
    if (module == nullptr || *module == '\0')
        return PLAT_EINVAL;
    std::string root = plat_root();
    struct stat st {};
    if (stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || access(root.c_str(), R_OK | X_OK) != 0) {
        plat_seterror(root + ": not a usable directory");
        return PLAT_ENOENT;
    }
    std::unique_lock lk(cfgmx);
    cfginit = true;
    return 0;
}

int32_t xmllib_term(void)
{
    std::unique_lock lk(cfgmx);
    cfginit = false;
    cfg.reset();
    policyloads.fill(0);
    return 0;
}

int32_t xmllib_load_config(void)
{
    auto f = std::make_unique<xmlfile>();
    std::string err;
    int32_t r = xml_open(plat_path("etc/cluster.xml"), *f, "root", err, nullptr);
    if (r != 0) {
        plat_seterror(err);
        return r;
    }
    std::unique_lock lk(cfgmx);
    if (!cfginit) {
        plat_seterror("configuration library not initialised");
        return PLAT_ENOTREADY;
    }
    cfg = std::move(f);
    policyloads.fill(0);
    return 0;
}

int32_t xmllib_unload_config(void)
{
    std::unique_lock lk(cfgmx);
    if (!cfg)
        return PLAT_ENOTREADY;
    cfg.reset();
    policyloads.fill(0);
    return 0;
}

// Counts a policy in (+1) or out (-1); a count never goes below zero.
static int32_t policy_count(const char *policy, int delta)
{
    int i = policy_index(policy);
    if (i < 0)
        return PLAT_EINVAL;
    std::unique_lock lk(cfgmx);
    int &n = policyloads[static_cast<size_t>(i)];
    if (!cfg || n + delta < 0)
        return PLAT_ENOTREADY;
    n += delta;
    return 0;
}

int32_t xmllib_load_policy(const char *policy)
{
    return policy_count(policy, 1);
}

int32_t xmllib_unload_policy(const char *policy)
{
    return policy_count(policy, -1);
}

// Kind 1: *len must be at least 4 and becomes 4. Kind 0: *len is the
// buffer's size and becomes the bytes stored, NUL included. Values are
// taken without surrounding blanks.
int32_t xmllib_get_value(const char *key, int32_t kind, void *value, int32_t *len)
{
    if (key == nullptr || value == nullptr || len == nullptr)
        return PLAT_EINVAL;
    std::shared_lock lk(cfgmx);
    if (!cfg)
        return PLAT_ENOTREADY;
    pugi::xml_node n = key_find(cfg->doc, key);
    if (!n)
        return PLAT_ENOENT;
    std::string_view text = trim(n.child_value());
    if (kind == XMLLIB_KIND_INT) {
        if (*len < static_cast<int32_t>(sizeof(int32_t)))
            return PLAT_ESPACE;
        int32_t v;
        if (!plat_parse_i32(std::string(text).c_str(), &v))
            return PLAT_EFORMAT;
        memcpy(value, &v, sizeof v);
        *len = sizeof v;
        return 0;
    }
    if (kind == XMLLIB_KIND_TEXT) {
        if (*len < 1 || text.size() + 1 > static_cast<size_t>(*len))
            return PLAT_ESPACE;
        if (!text.empty()) // a blank value's view may have no data at all
            memcpy(value, text.data(), text.size());
        static_cast<char *>(value)[text.size()] = '\0';
        *len = static_cast<int32_t>(text.size() + 1);
        return 0;
    }
    return PLAT_EINVAL;
}

int32_t xmllib_gethostname(char *buf, int32_t size)
{
    if (buf == nullptr || size < 1)
        return PLAT_EINVAL;
    plat_local loc;
    if (int32_t r = plat_load_local(loc); r != 0)
        return r;
    if (loc.hostname.size() + 1 > static_cast<size_t>(size))
        return PLAT_ESPACE;
    memcpy(buf, loc.hostname.c_str(), loc.hostname.size() + 1);
    return 0;
}

int32_t plat_cluster_name(std::string &name, std::string &err)
{
    xmlfile f;
    if (int32_t r = xml_open(plat_path("etc/cluster.xml"), f, "root", err, nullptr); r != 0)
        return r;
    // What the daemon's read of the key yields: a value that does not fit
    // its 32-byte buffer, or none, is "unknown" there too.
    pugi::xml_node n = key_find(f.doc, "/root/cluster/name");
    std::string_view v = trim(n.child_value());
    name = !n || v.size() > 31 ? "unknown" : std::string(v);
    return 0;
}

// ---- local.xml ------------------------------------------------------------------

int32_t plat_load_local(plat_local &out)
{
    std::string err;
    int32_t r = plat_load_local(out, err);
    if (r != 0)
        plat_seterror(err);
    return r;
}

int32_t plat_load_local(plat_local &out, std::string &err)
{
    out.hostname = own_hostname();
    out.area = plat_path("run/hbarea");
    out.cntno = 0;
    xmlfile f;
    bool missing = false;
    int32_t r = xml_open(plat_path("etc/local.xml"), f, "local", err, &missing);
    if (missing) {
        err.clear();
        return 0;
    }
    if (r != 0)
        return r;
    pugi::xml_node top = f.doc.document_element();
    auto bad = [&](const pugi::xml_node &n, const char *what, std::string_view text) {
        err = f.path + ":" + std::to_string(f.line(n)) + ": " + what + " \"" + plat_escape(text) + "\"";
        return PLAT_EFORMAT;
    };
    if (pugi::xml_node h = top.child("hostname")) {
        std::string_view name = trim(h.child_value());
        if (name.empty() || name.size() >= XMLLIB_HOSTNAME_SIZE)
            return bad(h, "/local/hostname: empty or longer than 45 characters:", name);
        if (!plat_printable(name))
            return bad(h, "/local/hostname: not printable UTF-8:", name);
        out.hostname = name;
    }
    pugi::xml_node st = top.child("storage");
    if (pugi::xml_node a = st.child("area")) {
        std::string_view area = trim(a.child_value());
        if (area.empty())
            return bad(a, "/local/storage/area: empty:", area);
        out.area = area[0] == '/' ? std::string(area) : plat_root() + "/" + std::string(area);
    }
    if (pugi::xml_node c = st.child("controller")) {
        int32_t v;
        if (!plat_parse_i32(c.child_value(), &v) || v < 0 || v >= ZEMFW_HBSLOTS)
            return bad(c, "/local/storage/controller: not an integer from 0 to 63:", trim(c.child_value()));
        out.cntno = v;
    }
    return 0;
}

// ---- cluster.xml checks -----------------------------------------------------------

namespace {

constexpr const char *int_keys[] = {
    "/root/all/num/server",           "/root/all/num/hbr",
    "/root/cluster/heartbeat/mismatch", "/root/cluster/heartbeat/timeout",
    "/root/cluster/heartbeat/interval", "/root/cluster/heartbeat/port/recv",
    "/root/cluster/heartbeat/port/send", "/root/cluster/delaywarn/heartbeat",
    "/root/cluster/downpacket/interval", "/root/cluster/downpacket/retry",
    "/root/lanhb/log/level",          "/root/lanhb/log/size",
    "/root/cnthb/log/level",          "/root/cnthb/log/size",
    "/root/lanhb/log/syslog",         "/root/cnthb/log/syslog",
    "/root/heartbeat/nice",           "/root/heartbeat/sched/schedule",
    "/root/heartbeat/sched/priority", "/root/lanhb/watchth",
    "/root/lanhb/thread/stacksize",   "/root/lanhb/socket/nbio",
    "/root/cnthb/watchth",            "/root/cnthb/thread/stacksize",
    "/root/cnthb/downpacket/wait",    "/root/cnthb/downpacket/retry",
    "/root/cnthb/rwlock",
};

struct text_key {
    const char *key;
    size_t max; // characters
};
constexpr text_key text_keys[] = {{"/root/heartbeat/mlock", 15}, {"/root/cluster/name", 31}};

// An address as the daemon takes it: a "/prefix" is cut off, and an IPv6
// address may name its interface ("fe80::1%eth0").
bool address_ok(std::string_view text)
{
    std::string a(text.substr(0, text.find('/')));
    const size_t zone = a.find('%');
    unsigned char buf[16];
    if (zone != std::string::npos)
        return zone + 1 < a.size() && inet_pton(AF_INET6, a.substr(0, zone).c_str(), buf) == 1;
    return inet_pton(AF_INET, a.c_str(), buf) == 1 || inet_pton(AF_INET6, a.c_str(), buf) == 1;
}

constexpr const char *key_keys[] = {"/root/cluster/heartbeat/authkey", "/root/cluster/heartbeat/authalso"};

} // namespace

int32_t plat_load_cluster(plat_cluster &out, std::vector<std::string> &errors, std::vector<std::string> &notes)
{
    out = {};
    xmlfile f;
    std::string err;
    int32_t r = xml_open(plat_path("etc/cluster.xml"), f, "root", err, nullptr);
    if (r != 0) {
        errors.push_back(err);
        return r;
    }
    size_t nerr = errors.size();
    auto at = [&](const pugi::xml_node &n, const std::string &key) {
        return f.path + ":" + std::to_string(f.line(n)) + ": " + key + ": ";
    };
    // An entry's <priority>: present, from 0 to max and not used twice.
    auto check_pri = [&](const pugi::xml_node &n, const std::string &key, int32_t max, const std::string &range,
                         std::set<int32_t> &used) {
        pugi::xml_node p = n.child("priority");
        int32_t pri = -1;
        if (!p)
            errors.push_back(at(n, key + "/priority") + "missing");
        else if (!plat_parse_i32(p.child_value(), &pri) || pri < 0 || pri > max)
            errors.push_back(at(p, key + "/priority") + range);
        else if (!used.insert(pri).second)
            errors.push_back(at(p, key + "/priority") + "priority " + std::to_string(pri) + " used twice");
        return pri;
    };
    for (const char *key : int_keys) {
        pugi::xml_node n = key_find(f.doc, key);
        int32_t v;
        if (n && !plat_parse_i32(n.child_value(), &v))
            errors.push_back(at(n, key) + "not a 32-bit integer: \"" + plat_escape(trim(n.child_value())) + "\"");
    }
    for (const text_key &t : text_keys) {
        pugi::xml_node n = key_find(f.doc, t.key);
        if (n && trim(n.child_value()).size() > t.max)
            errors.push_back(at(n, t.key) + "longer than " + std::to_string(t.max) + " characters");
    }
    for (const char *key : key_keys)
        if (std::string_view file = trim(key_find(f.doc, key).child_value()); !file.empty())
            out.keys.push_back({key, std::string(file)});

    pugi::xml_node top = f.doc.document_element();
    std::set<std::string> names;
    std::set<int32_t> pris;
    for (pugi::xml_node s : top.children("server")) {
        std::string name = std::string(trim(s.attribute("name").value()));
        std::string key = "/root/server@" + plat_escape(name);
        if (name.empty()) {
            errors.push_back(at(s, "/root/server") + "missing name attribute");
            continue;
        }
        if (!plat_printable(name)) {
            errors.push_back(at(s, key) + "name is not printable UTF-8");
            continue;
        }
        if (name.size() >= XMLLIB_HOSTNAME_SIZE || name.find('/') != std::string::npos) {
            errors.push_back(at(s, key) + "name longer than 45 characters or containing \"/\"");
            continue;
        }
        if (!names.insert(name).second)
            errors.push_back(at(s, key) + "server defined twice");
        int32_t pri = check_pri(s, key, NM_MAXNODE - 1, "not an integer from 0 to " + std::to_string(NM_MAXNODE - 1),
                                pris);
        plat_node node{name, pri};
        for (pugi::xml_node d : s.children("device")) {
            std::string dkey = key + "/device@" + plat_escape(d.attribute("name").value());
            int32_t devid;
            const bool idok = plat_parse_i32(d.attribute("name").value(), &devid) && devid >= 0;
            if (!idok)
                errors.push_back(at(d, dkey) + "device name must be a device id (integer 0 or above)");
            pugi::xml_node info = d.child("info");
            if (info && !address_ok(trim(info.child_value())))
                errors.push_back(at(info, dkey + "/info") + "not an IPv4 or IPv6 address: \"" +
                                 plat_escape(trim(info.child_value())) + "\"");
            else if (info && idok)
                node.addr[devid] = std::string(trim(info.child_value()));
        }
        out.nodes.push_back(node);
    }
    if (out.nodes.empty())
        errors.push_back(f.path + ": no <server> defined");
    if (out.nodes.size() > NM_MAXNODE)
        errors.push_back(f.path + ": more than " + std::to_string(NM_MAXNODE) + " servers");

    pugi::xml_node hb = top.child("heartbeat");
    for (int k = 0; k < 2; k++) {
        const char *kind = k == 0 ? HB_KIND_LANHB : HB_KIND_CNTHB;
        std::set<std::string> rnames;
        std::set<int32_t> rpris;
        for (pugi::xml_node rn : hb.children(kind)) {
            std::string name = std::string(trim(rn.attribute("name").value()));
            std::string key = std::string("/root/heartbeat/") + kind + "@" + plat_escape(name);
            if (name.empty() || name.size() >= NM_RSCNAME || name.find('/') != std::string::npos) {
                errors.push_back(at(rn, key) + "name missing, longer than 31 characters or containing \"/\"");
                continue;
            }
            if (!plat_printable(name)) {
                errors.push_back(at(rn, key) + "name is not printable UTF-8");
                continue;
            }
            if (!rnames.insert(name).second)
                errors.push_back(at(rn, key) + "path defined twice");
            int32_t pri = check_pri(rn, key, INT32_MAX, "not an integer of 0 or above", rpris);
            int32_t device = -1;
            if (k == 0) {
                pugi::xml_node d = rn.child("device");
                int32_t devid;
                if (!d) {
                    notes.push_back(at(rn, key) + "no <device>: the path stays invalid (state UNKNOWN)");
                } else if (!plat_parse_i32(d.child_value(), &devid) || devid < 0) {
                    errors.push_back(at(d, key + "/device") + "not a device id (integer 0 or above)");
                } else {
                    device = devid;
                    for (const plat_node &n : out.nodes)
                        if (!key_find(f.doc, "/root/server@" + n.name + "/device@" + std::to_string(devid) + "/info"))
                            notes.push_back(at(rn, key) + "server " + n.name + " has no address for device " +
                                            std::to_string(devid) + ": unused on this path");
                }
            }
            out.rsc[k].push_back({name, pri, device});
        }
        if (out.rsc[k].size() > NM_MAXRSC)
            errors.push_back(f.path + ": more than " + std::to_string(NM_MAXRSC) + " " + kind + " paths");
    }
    return errors.size() == nerr ? 0 : PLAT_EFORMAT;
}
