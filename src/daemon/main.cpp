// The daemon: everything happens in the main line.
#include <cstdio>
#include <cstring>

#include "daemon/daemon.h"
#include "zem_version.h"

// The daemon takes no arguments: it is started by its supervisor, and any
// it is given change nothing. Only --version is answered, so that what is
// installed can be told apart.
int main(int argc, char **argv)
{
    if (argc == 2 && strcmp(argv[1], "--version") == 0) {
        puts(ZEM_VERSION_TEXT);
        return 0;
    }
    return zemlanhb_main();
}
