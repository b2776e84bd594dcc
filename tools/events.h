// The published states as zemctl reads them: one snapshot of every path and
// node with its history, read through the daemon's own enumeration calls,
// and the names and texts status and watch show them by.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "plat.h"

using ojson = nlohmann::ordered_json;
inline constexpr const char *ev_kinds[2] = {HB_KIND_LANHB, HB_KIND_CNTHB};

// A state by name, or in hex when it has none ("0x2a"): one spelling for
// the table and the JSON alike.
std::string svstat_text(int32_t s);
std::string rscstat_text(int32_t s);
// JSON text that never throws on a name that is not UTF-8.
std::string dump(const ojson &j, int indent = -1);
// Now as local time to the millisecond, as watch stamps its lines.
std::string now_text();

struct node_view {
    std::string name;
    int32_t pri;
    int32_t stat;
    nm_hist hist;
};
struct rsc_view {
    std::string name;
    int32_t pri;
    int32_t stat;
    nm_hist hist;
    std::vector<node_view> nodes;
};
using snapshot = std::vector<rsc_view>[2];

// Every path of both kinds with every node on it (node-manager memory
// attached).
void take(snapshot &snap);
