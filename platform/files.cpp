// Where the platform keeps its files, and how it writes them safely.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>

#include "plat.h"

std::string plat_root()
{
    const char *env = getenv("ZEM_ROOT");
    std::string root = (env != nullptr && *env != '\0') ? env : PLAT_DEFAULT_ROOT;
    while (root.size() > 1 && root.back() == '/')
        root.pop_back();
    return root;
}

std::string plat_path(const char *rel)
{
    const char *env = getenv("ZEM_ROOT");
    if (env == nullptr || *env == '\0') {
        std::string_view r(rel);
        for (auto [dir, sys] : {std::pair{"etc", PLAT_DEFAULT_ETC}, std::pair{"log", PLAT_DEFAULT_LOG}}) {
            std::string_view d(dir);
            if (r.starts_with(d) && (r.size() == d.size() || r[d.size()] == '/'))
                return sys + std::string(r.substr(d.size()));
        }
    }
    return plat_root() + "/" + rel;
}

namespace {
std::mutex errmx;
std::string lasterr;
} // namespace

std::string plat_lasterror()
{
    std::lock_guard lk(errmx);
    return lasterr;
}

void plat_seterror(const std::string &why)
{
    std::lock_guard lk(errmx);
    lasterr = why;
}

int plat_rundir(bool create)
{
    std::string dir = plat_path("run");
    if (create && mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST)
        return -1;
    // O_NOFOLLOW: a run/ that is a symlink is refused, like any link inside it.
    return open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

int plat_replace_file(const char *name, const void *data, size_t size, std::string &err)
{
    int dfd = plat_rundir(true);
    if (dfd < 0) {
        err = plat_path("run") + ": " + strerror(errno);
        return PLAT_EIO;
    }
    // Written aside and renamed over the old one, so no reader ever maps a
    // half-written file and a symlink planted under the name is replaced,
    // never followed.
    std::string tmp = std::string(".") + name + "." + std::to_string(getpid());
    int fd = openat(dfd, tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        err = plat_path("run") + "/" + tmp + ": " + strerror(errno);
        close(dfd);
        return PLAT_EIO;
    }
    const char *p = static_cast<const char *>(data);
    size_t left = size;
    bool ok = true;
    while (left > 0) {
        ssize_t n = write(fd, p, left);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            ok = false;
            break;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    if (ok && fsync(fd) != 0)
        ok = false;
    int werr = errno;
    close(fd);
    if (!ok || renameat(dfd, tmp.c_str(), dfd, name) != 0) {
        if (ok)
            werr = errno;
        unlinkat(dfd, tmp.c_str(), 0);
        close(dfd);
        err = plat_path("run") + "/" + name + ": " + strerror(werr);
        return PLAT_EIO;
    }
    close(dfd);
    return 0;
}

// ---- modes and owners ---------------------------------------------------------

namespace {

// Opens one entry of dfd without following a link and brings it to mode
// and to this process's owner; the descriptor, or -1 with err naming path.
int fix_one(int dfd, const char *name, bool dir, mode_t mode, const std::string &path, std::string &err)
{
    // O_NONBLOCK: a FIFO planted here must not hang the open.
    int fd = openat(dfd, name, (dir ? O_DIRECTORY : O_NONBLOCK) | O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        err = path + (errno == ELOOP ? ": is a symbolic link; remove it" : std::string(": ") + strerror(errno));
        return -1;
    }
    struct stat st {};
    const char *why = nullptr;
    if (fstat(fd, &st) != 0)
        why = strerror(errno);
    else if (dir ? !S_ISDIR(st.st_mode) : !S_ISREG(st.st_mode))
        why = dir ? "not a directory; remove it" : "not a regular file; remove it";
    else if ((st.st_uid != geteuid() || st.st_gid != getegid()) && fchown(fd, geteuid(), getegid()) != 0)
        why = "owned by another user and cannot be taken over";
    else if ((st.st_mode & 07777) != mode && fchmod(fd, mode) != 0)
        why = "its mode cannot be changed";
    if (why != nullptr) {
        char m[8];
        snprintf(m, sizeof m, "%04o", mode);
        err = path + ": " + why + " (wanted mode " + m + ", uid " + std::to_string(geteuid()) + ")";
        close(fd);
        return -1;
    }
    return fd;
}

// The directory and every entry in it.
bool fix_dir(const char *name, mode_t dirmode, mode_t (*filemode)(const char *), std::string &err)
{
    std::string path = plat_path(name);
    int dfd = fix_one(AT_FDCWD, path.c_str(), true, dirmode, path, err);
    if (dfd < 0)
        return false;
    DIR *d = fdopendir(dfd);
    if (d == nullptr) {
        err = path + ": " + strerror(errno);
        close(dfd);
        return false;
    }
    bool ok = true;
    for (struct dirent *e = readdir(d); ok && e != nullptr; e = readdir(d)) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0)
            continue;
        int fd = fix_one(dirfd(d), e->d_name, false, filemode(e->d_name), path + "/" + e->d_name, err);
        ok = fd >= 0;
        if (ok)
            close(fd);
    }
    closedir(d);
    return ok;
}

} // namespace

int32_t plat_fix_modes(std::string &err)
{
    std::string root = plat_root();
    int rootfd = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (rootfd < 0) {
        err = root + ": " + strerror(errno);
        return PLAT_ENOENT;
    }
    if (mkdirat(rootfd, "run", 0700) != 0 && errno != EEXIST) {
        err = plat_path("run") + ": " + strerror(errno);
        close(rootfd);
        return PLAT_EIO;
    }
    auto runmode = [](const char *n) -> mode_t { return strcmp(n, "hbarea") == 0 ? 0640 : 0600; };
    bool ok = fix_dir("run", 0700, runmode, err);
    if (ok && faccessat(AT_FDCWD, plat_path("log").c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0)
        ok = fix_dir("log", 0750, [](const char *) -> mode_t { return 0640; }, err);
    close(rootfd);
    return ok ? 0 : PLAT_EIO;
}

// ---- printable names ------------------------------------------------------------

namespace {

// Length of the valid, printable UTF-8 sequence at s (0: none). Refuses
// control characters (C0, DEL, C1), overlong forms and surrogates.
size_t printable_at(std::string_view s)
{
    auto c = static_cast<unsigned char>(s[0]);
    if (c < 0x20 || c == 0x7f)
        return 0;
    if (c < 0x80)
        return 1;
    size_t n = c >= 0xf0 ? 4 : c >= 0xe0 ? 3 : c >= 0xc2 ? 2 : 0;
    if (n == 0 || c > 0xf4 || s.size() < n)
        return 0;
    uint32_t cp = c & (0x7f >> n);
    for (size_t i = 1; i < n; i++) {
        auto b = static_cast<unsigned char>(s[i]);
        if ((b & 0xc0) != 0x80)
            return 0;
        cp = (cp << 6) | (b & 0x3f);
    }
    static constexpr uint32_t least[5] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < least[n] || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff) || (cp >= 0x80 && cp < 0xa0))
        return 0;
    return n;
}

} // namespace

bool plat_printable(std::string_view text)
{
    for (size_t n = 0; !text.empty(); text.remove_prefix(n))
        if ((n = printable_at(text)) == 0)
            return false;
    return true;
}

std::string plat_escape(std::string_view text)
{
    std::string out;
    while (!text.empty()) {
        size_t n = printable_at(text);
        if (n > 0) {
            out.append(text.substr(0, n));
        } else {
            char buf[8];
            snprintf(buf, sizeof buf, "\\x%02x", static_cast<unsigned char>(text[0]));
            out += buf;
            n = 1;
        }
        text.remove_prefix(n);
    }
    return out;
}
