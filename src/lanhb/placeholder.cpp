// Placeholder so the daemon links while the LAN heartbeat is being written.
// Delete this file once the real definitions exist.
#include "lanhb/lanhb.h"

int32_t lanhb_loadinfo(lanhb_list **) { return 9; }
void *lanhb_hbrecv(void *) { return nullptr; }
void *lanhb_hbsend(void *) { return nullptr; }
void *lanhb_hbwatch(void *) { return nullptr; }
void *lanhb_dpsend(void *) { return nullptr; }
int32_t lanhb_loadexit(lanhb_list *) { return 0; }
int32_t lanhb_loadexit(cnthb_list *) { return 0; }
void lanhb_freelist(lanhb_list *) {}
