// zemctl check and init: both files of the node's configuration read and
// checked the same way, every note and problem printed, and this host
// checked for what the daemon needs of it (the cluster key files, the own
// address of every LAN path); init then brings run/ and log/ to their modes
// and makes fresh shared memory and, when missing, the heartbeat area, under
// the root's lock so that no daemon starts on half-made files.
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "zemctl.h"

namespace {

bool force = false; // init --force

// What is wrong with a key file, as the daemon would find it at its start
// (it opens the name without following a symbolic link); empty when nothing.
std::string key_problem(const std::string &path)
{
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0)
        return errno == ENOENT ? "missing" : strerror(errno);
    if (S_ISLNK(st.st_mode))
        return "a symbolic link, which the daemon refuses";
    if (!S_ISREG(st.st_mode))
        return "not a regular file";
    if ((st.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        char mode[8];
        snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
        return std::string("mode ") + mode + ", must be 0600 or 0400";
    }
    if (st.st_size != HBEXT_KEY_SIZE)
        return std::to_string(st.st_size) + " bytes, must be " + std::to_string(HBEXT_KEY_SIZE);
    return "";
}

// Whether addr, written as the daemon takes it (a "/prefix" cut off, an IPv6
// zone naming the interface), is an address of one of this host's
// interfaces; why not in *why.
bool on_this_host(const std::string &text, const ifaddrs *ifs, std::string *why)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo *res = nullptr;
    const int r = getaddrinfo(text.substr(0, text.find('/')).c_str(), nullptr, &hints, &res);
    if (r != 0) {
        *why = std::string("cannot be used on this host (") + gai_strerror(r) + ")";
        return false;
    }
    const sockaddr *want = res->ai_addr;
    bool found = false;
    for (const ifaddrs *i = ifs; i != nullptr && !found; i = i->ifa_next) {
        const sockaddr *have = i->ifa_addr;
        if (have == nullptr || have->sa_family != want->sa_family)
            continue;
        if (want->sa_family == AF_INET) {
            const auto *a = reinterpret_cast<const sockaddr_in *>(want);
            const auto *b = reinterpret_cast<const sockaddr_in *>(have);
            found = a->sin_addr.s_addr == b->sin_addr.s_addr;
        } else if (want->sa_family == AF_INET6) {
            const auto *a = reinterpret_cast<const sockaddr_in6 *>(want);
            const auto *b = reinterpret_cast<const sockaddr_in6 *>(have);
            found = memcmp(&a->sin6_addr, &b->sin6_addr, sizeof a->sin6_addr) == 0 &&
                    (a->sin6_scope_id == 0 || b->sin6_scope_id == 0 || a->sin6_scope_id == b->sin6_scope_id);
        }
    }
    freeaddrinfo(res);
    if (!found)
        *why = "is not an address of this host";
    return found;
}

// What this host lacks for the daemon of node `own`: a key file it cannot
// use (the start would fail with status 14), and the LAN paths whose own
// address is on none of its interfaces (the path could neither send nor
// hear itself).
void check_host(const plat_cluster &cl, const std::string &own, std::vector<std::string> &keys,
                std::vector<std::string> &addrs)
{
    const std::string file = plat_path("etc/cluster.xml") + ": ";
    for (const plat_keyref &k : cl.keys) {
        char path[1024];
        std::string shown = k.file, why = "name too long";
        if (hbext_path(k.file.c_str(), path, sizeof path) == 0)
            shown = path, why = key_problem(path);
        if (!why.empty())
            keys.push_back(file + k.key + ": key file " + shown + ": " + why);
    }
    const plat_node *me = nullptr;
    for (const plat_node &n : cl.nodes)
        me = n.name == own ? &n : me;
    if (me == nullptr || cl.rsc[0].empty())
        return;
    ifaddrs *ifs = nullptr;
    if (getifaddrs(&ifs) != 0) {
        addrs.push_back(std::string("this host's addresses cannot be listed: ") + strerror(errno));
        return;
    }
    for (const plat_rsc &r : cl.rsc[0]) {
        auto a = me->addr.find(r.device);
        std::string why;
        if (r.device >= 0 && a != me->addr.end() && !on_this_host(a->second, ifs, &why))
            addrs.push_back(file + "/root/server@" + own + "/device@" + std::to_string(r.device) +
                            "/info: lanhb path " + r.name + ": address " + a->second + " " + why);
    }
    freeifaddrs(ifs);
}

// Reads and checks both files and this host, printing every note and
// problem; false when there was a problem, said as "zemctl: <what>: N
// error(s)<tail>". With host_warns, an own address that is not on this host
// is only a warning: the interfaces may come up after init.
bool validate(plat_cluster &cl, plat_local &loc, const char *what, const char *tail, bool host_warns)
{
    if (root_missing())
        return false;
    std::vector<std::string> errors, notes, addrs;
    plat_load_cluster(cl, errors, notes);
    std::string err;
    if (plat_load_local(loc, err) != 0) {
        errors.push_back(err);
    } else if (!cl.nodes.empty()) {
        std::string shortname = loc.hostname.substr(0, loc.hostname.find('.'));
        bool found = false;
        for (const plat_node &n : cl.nodes)
            found = found || n.name == shortname;
        if (!found)
            errors.push_back(plat_path("etc/local.xml") + ": /local/hostname: \"" + shortname +
                             "\" is not a <server> of cluster.xml");
        else if (errors.empty())
            check_host(cl, shortname, errors, host_warns ? addrs : errors);
    }
    for (const std::string &n : notes)
        printf("note: %s\n", esc(n).c_str());
    for (const std::string &a : addrs)
        fprintf(stderr, "warning: %s\n", esc(a).c_str());
    for (const std::string &e : errors)
        fprintf(stderr, "error: %s\n", esc(e).c_str());
    if (!errors.empty())
        fprintf(stderr, "zemctl: %s: %zu error(s)%s\n", what, errors.size(), tail);
    return errors.empty();
}

void summary(const plat_cluster &cl, const plat_local &loc)
{
    printf("%zu servers, %zu lanhb paths, %zu cnthb paths; node %s, heartbeat area %s (controller %d)\n",
           cl.nodes.size(), cl.rsc[0].size(), cl.rsc[1].size(), esc(loc.hostname).c_str(), esc(loc.area).c_str(),
           loc.cntno);
}

} // namespace

void opts_init(CLI::App &cmd)
{
    cmd.add_flag("--force", force, "reset even while a daemon runs on this root");
}

int cmd_check()
{
    plat_cluster cl;
    plat_local loc;
    if (!validate(cl, loc, "check", "", false))
        return EXIT_FAILURE;
    printf("%s: configuration OK: ", esc(plat_root()).c_str());
    summary(cl, loc);
    return 0;
}

int cmd_init()
{
    plat_cluster cl;
    plat_local loc;
    if (!validate(cl, loc, "init failed", "; nothing was changed", true))
        return EXIT_FAILURE;
    // Held through the reset, so that no daemon starts on half-made files.
    pid_t holder = 0;
    std::string err;
    int lockfd = plat_lock_take(&holder, err);
    if (lockfd < 0 && !(force && holder != 0)) {
        if (holder != 0)
            fprintf(stderr,
                    "zemctl: init refused: %s; resetting would leave it running on memory nobody sees. Stop it "
                    "first (SIGTERM to its \"zemctl run\", or SIGUSR1 to pid %d), or repeat with --force\n",
                    err.c_str(), static_cast<int>(holder));
        else
            fprintf(stderr, "zemctl: init failed: %s\n", esc(err).c_str());
        return EXIT_FAILURE;
    }
    int32_t r = plat_fix_modes(err);
    if (r == 0)
        r = plat_shm_create(cl, err);
    if (r == 0)
        r = plat_area_create(loc.area, err);
    if (lockfd >= 0)
        close(lockfd);
    if (r != 0) {
        fprintf(stderr, "zemctl: init failed: %s\n", esc(err).c_str());
        return EXIT_FAILURE;
    }
    printf("initialised %s: ", esc(plat_root()).c_str());
    summary(cl, loc);
    return 0;
}
