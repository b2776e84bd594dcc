// Placeholder so the daemon links while the controller heartbeat is being
// written. Delete this file once the real definitions exist.
#include "cnthb/cnthb.h"

int32_t cnthb_loadinfo(cnthb_list **) { return 9; }
void *cnthb_hbread(void *) { return nullptr; }
void *cnthb_hbwrite(void *) { return nullptr; }
void *cnthb_hbwatch(void *) { return nullptr; }
void *cnthb_dpwrite(void *) { return nullptr; }
void cnthb_freelist(cnthb_list *) {}
