#include "frame/frame.h"

int main()
{
    return zemlanhb_main();
}
