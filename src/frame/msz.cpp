// The node manager's multi-string lists (NUL-terminated names closed by an
// empty one), and a bounded copy of a text.
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

int32_t mszcount(const char *list)
{
    int32_t n = 0;
    for (const char *p = mszfirst(list); p != nullptr; p = msznext(p))
        ++n;
    return n;
}

void hbcopytext(char *dst, size_t size, const char *src)
{
    const size_t len = strnlen(src, size - 1);
    std::memmove(dst, src, len);
    dst[len] = '\0';
}
