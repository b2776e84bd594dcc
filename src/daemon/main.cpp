// The daemon: everything happens in the main line.
#include "daemon/daemon.h"

int main()
{
    return zemlanhb_main();
}
