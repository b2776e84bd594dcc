// Down-packet settings read again at an orderly stop, so that the down
// notices use the configuration in force then, not the one at start-up.
#include "frame/frame.h"
#include "lanhb/lanhb.h"
#include "services/services.h"

// Shared by both tables: only the two given fields change, and only when the
// configuration and its policy could be loaded.
int32_t lanhb_loadexit(int32_t *dpint, int32_t *dpretry)
{
    if (dpint == nullptr || dpretry == nullptr) {
        HBLOG(HBLOG_LAN, HBLV_ERROR, "IGNORE: lanhb_plist is NULL");
        return 0;
    }
    if (xmllib_load_config() != 0)
        return HBRET_CONFIG;
    if (hbcfg_load(HBLOG_LAN, "cluster", "cluster") != 0)
        return HBRET_POLICY;
    const int32_t interval = hbcfg_read(HBLOG_LAN, LANHB_SET_DPINT);
    const int32_t retry = hbcfg_read(HBLOG_LAN, HB_SET_DPRETRY);
    hbcfg_unload(HBLOG_LAN, "cluster", "nm");
    const int32_t r = xmllib_unload_config();
    if (r != 0)
        HBLOG(HBLOG_LAN, HBLV_ERROR, "xmllib_unload_config() failed(ret:%d)", r);
    *dpint = interval;
    *dpretry = retry;
    HBLOG(HBLOG_LAN, HBLV_ERROR, "dpint:%d(msec),dpretry:%d", interval, retry);
    return 0;
}

