// zemctl keygen: a new cluster key file of mode 0600 from the kernel's
// random source. The file named, or by default the key file under the root
// (a relative name is taken under the root too); an existing file is
// replaced only with --force, whole, by a rename.
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <CLI/CLI.hpp>

#include "services/hbext.h"
#include "zemctl.h"

namespace {

std::string name; // keygen [FILE]; empty: the default
bool force = false; // keygen --force

bool fill_random(unsigned char *buf, size_t len)
{
    size_t got = 0;
    while (got < len) {
        const ssize_t n = getrandom(buf + got, len - got, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        got += static_cast<size_t>(n);
    }
    return true;
}

bool write_all(int fd, const unsigned char *buf, size_t len)
{
    for (size_t done = 0; done < len;) {
        const ssize_t n = write(fd, buf + done, len - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return fsync(fd) == 0;
}

} // namespace

void opts_keygen(CLI::App &cmd)
{
    cmd.add_option("file", name, std::string("key file (default <root>/") + HBEXT_KEY_DEFAULT + ")");
    cmd.add_flag("--force", force, "replace an existing key file");
}

int cmd_keygen()
{
    const std::string path = name.empty() ? plat_path(HBEXT_KEY_DEFAULT)
                             : name[0] == '/' ? name
                                              : plat_path(name.c_str());
    unsigned char key[HBEXT_KEY_SIZE];
    if (!fill_random(key, sizeof key)) {
        fprintf(stderr, "zemctl: keygen: getrandom failed: %s\n", strerror(errno));
        return EXIT_FAILURE;
    }
    // Without --force the file must not exist (O_EXCL); with it, a new file
    // is written aside and renamed over the old one, so a daemon starting
    // meanwhile reads either key whole.
    const std::string target = force ? path + ".new" : path;
    if (force)
        unlink(target.c_str());
    const int fd = open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        const int err = errno;
        std::memset(key, 0, sizeof key);
        if (err == EEXIST)
            fprintf(stderr, "zemctl: keygen: %s exists; use --force to replace it\n", path.c_str());
        else
            fprintf(stderr, "zemctl: keygen: cannot create %s: %s\n", target.c_str(), strerror(err));
        return EXIT_FAILURE;
    }
    const bool ok = fchmod(fd, 0600) == 0 && write_all(fd, key, sizeof key);
    const int err = errno;
    std::memset(key, 0, sizeof key);
    close(fd);
    if (!ok || (force && rename(target.c_str(), path.c_str()) != 0)) {
        fprintf(stderr, "zemctl: keygen: cannot write %s: %s\n", path.c_str(), strerror(ok ? errno : err));
        unlink(target.c_str());
        return EXIT_FAILURE;
    }
    printf("wrote a new %d-byte cluster key to %s (mode 0600)\n", HBEXT_KEY_SIZE, path.c_str());
    return 0;
}
