// Reading the configuration: the helpers both loaders and the frame share.
#include "frame/frame.h"
#include "services/services.h"

int32_t hbcfg_getint(int module, const char *key, int32_t dflt)
{
    int32_t value = 0;
    int32_t len = sizeof value;
    const int32_t r = xmllib_get_value(key, XMLLIB_KIND_INT, &value, &len);
    if (r != 0) {
        HBLOG(module, 1, "xmllib_get_value(%s) failed(ret:%d)", key, r);
        return dflt;
    }
    return value;
}
