// The daemon: everything happens in the main line.
#include <cstdio>
#include <cstring>

#include "daemon/daemon.h"
#include "services/hbexit.h"
#include "zem_version.h"

namespace {

constexpr char USAGE[] = "usage: zemlanhb [--version | --help]\n"
                         "The heartbeat daemon takes no arguments: its supervisor (\"zemctl run\") starts it,\n"
                         "and it tells that parent when it is up.\n";

} // namespace

// The daemon takes no arguments: it is started by its supervisor. Only
// --version and --help are answered, so that what is installed can be told
// apart; anything else is a usage error, and none of these starts anything
// or signals the parent (a shell that ran it by hand would die of it).
int main(int argc, char **argv)
{
    if (argc == 1)
        return zemlanhb_main();
    if (argc == 2 && strcmp(argv[1], "--version") == 0) {
        puts(ZEM_VERSION_TEXT);
        return HBEXIT_OK;
    }
    const bool help = argc == 2 && strcmp(argv[1], "--help") == 0;
    fputs(USAGE, help ? stdout : stderr);
    return help ? HBEXIT_OK : HBEXIT_USAGE;
}
