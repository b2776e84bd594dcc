// Controller heartbeat: the table of controller paths and nodes, the
// heartbeat record, and the reader, writer, watcher and down-write threads.
#pragma once

#include <cstdint>

struct cnthb_list;

int32_t cnthb_loadinfo(cnthb_list **out);
// Releases a table built by cnthb_loadinfo (null is fine), once no worker
// thread can touch it any more.
void cnthb_freelist(cnthb_list *list);

// Thread bodies; each takes the controller table and ends with an integer
// exit value.
void *cnthb_hbread(void *list);
void *cnthb_hbwrite(void *list);
void *cnthb_hbwatch(void *list);
void *cnthb_dpwrite(void *list);
