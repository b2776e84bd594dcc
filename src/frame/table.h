// The layout both heartbeat tables share (hbshape): one heap block of the
// header, then per path one path record immediately followed by curnode node
// records. Its addressing, the node-state layer's view of it, and the
// loading steps both kinds take alike on it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "frame/frame.h"
#include "frame/nodestate.h"

// List, Rsc and Node are a kind's header (an hbheader), path and node
// records; Last is the node record's tick of its last heartbeat. A path
// record has name, pri, stat and count (HBEXT_PC_COUNT counters); a node
// record name, pri, stat and count (HBEXT_NC_COUNT counters).
template <class List, class Rsc, class Node, hbtick_t Node::*Last> struct hbshape {
    static size_t stride(int32_t curnode) { return sizeof(Rsc) + static_cast<size_t>(curnode) * sizeof(Node); }
    static size_t size(int32_t currsc, int32_t curnode)
    {
        return sizeof(List) + static_cast<size_t>(currsc) * stride(curnode);
    }
    static Rsc *rscat(List *list, int32_t i)
    {
        return reinterpret_cast<Rsc *>(reinterpret_cast<char *>(list + 1) +
                                       static_cast<size_t>(i) * stride(list->curnode));
    }
    static Node *nodeat(Rsc *rsc, int32_t j) { return reinterpret_cast<Node *>(rsc + 1) + j; }

    // ---- the node-state layer's view ----
    static hbnoderef ref(List *list, Rsc *rsc, Node *node)
    {
        return {list, rsc, node, rsc->name, node->name, node->pri, &node->stat, &(node->*Last), node->count, rsc->count};
    }
    static hbtable table(const hbkind &kind, List *list)
    {
        return {&kind, list, list};
    }
    // The layer's walk of such a table, with the kind's re-evaluation of a
    // path and its hook for a node taken offline.
    template <int32_t (*Setrscstat)(List *, Rsc *)> static constexpr hbtableops ops(void (*offline)(void *) = nullptr)
    {
        return {anyrsc, anynode, anypath<Setrscstat>, offline};
    }
    static void *anyrsc(void *list, int32_t i) { return rscat(static_cast<List *>(list), i); }
    static hbnoderef anynode(void *list, void *rsc, int32_t j)
    {
        return ref(static_cast<List *>(list), static_cast<Rsc *>(rsc), nodeat(static_cast<Rsc *>(rsc), j));
    }
    template <int32_t (*F)(List *, Rsc *)> static int32_t anypath(void *list, void *rsc)
    {
        return F(static_cast<List *>(list), static_cast<Rsc *>(rsc));
    }

    // ---- loading ----
    // Names and priorities of the paths of the kind and of the nodes, in
    // enumeration order (at most currsc and curnode); each(rsc, node) after
    // each node, done(rsc) after each path's nodes. Returns 0 or the
    // enumerations' loader code.
    template <class Each, class Done>
    static int32_t names(int module, const char *kind, List *list, Each each, Done done, hbwhere at = {})
    {
        hbmsz rscs;
        if (const int32_t r = hbcfg_enum(module, kind, true, &rscs, at))
            return r;
        int32_t i = 0;
        for (const char *p = mszfirst(rscs.get()); p != nullptr && i < list->currsc; p = msznext(p), ++i) {
            Rsc *rsc = rscat(list, i);
            rsc->pri = hbcfg_namepri(module, kind, p, rsc->name, sizeof rsc->name, at);
        }
        hbmsz nodes;
        if (const int32_t r = hbcfg_enum(module, kind, false, &nodes, at))
            return r;
        for (i = 0; i < list->currsc; ++i) {
            Rsc *rsc = rscat(list, i);
            int32_t j = 0;
            for (const char *p = mszfirst(nodes.get()); p != nullptr && j < list->curnode; p = msznext(p), ++j) {
                Node *node = nodeat(rsc, j);
                node->pri = hbcfg_namepri(module, nullptr, p, node->name, sizeof node->name, at);
                each(rsc, node);
            }
            done(rsc);
        }
        return 0;
    }
};
