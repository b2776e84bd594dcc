// LAN heartbeat: the table of LAN paths and nodes, the datagram, and the
// receiver, sender, watcher and down-packet threads.
#pragma once

#include <cstdint>

struct lanhb_list;
struct cnthb_list;

int32_t lanhb_loadinfo(lanhb_list **out);
// Releases a table built by lanhb_loadinfo (null is fine).
void lanhb_freelist(lanhb_list *list);

// Thread bodies; each takes the LAN table and ends with a pointer to a short
// decimal text ("0" on a normal stop).
void *lanhb_hbrecv(void *list);
void *lanhb_hbsend(void *list);
void *lanhb_hbwatch(void *list);
void *lanhb_dpsend(void *list);

// Re-reads the down-packet interval and retry into the given table.
int32_t lanhb_loadexit(lanhb_list *list);
int32_t lanhb_loadexit(cnthb_list *list);
