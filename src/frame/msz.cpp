#include "frame/frame.h"

#include <cstring>

const char *mszfirst(const char *list)
{
    if (list == nullptr || (list[0] == '\0' && list[1] == '\0'))
        return nullptr;
    return list;
}

const char *msznext(const char *cur)
{
    if (cur == nullptr || (cur[0] == '\0' && cur[1] == '\0'))
        return nullptr;
    const char *next = cur + std::strlen(cur) + 1;
    return *next == '\0' ? nullptr : next;
}
