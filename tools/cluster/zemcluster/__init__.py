"""A heartbeat cluster of N nodes on one machine.

Every node lives in a network namespace of its own; one more namespace holds
two bridges, one per LAN path: "lan4" carries IPv4 (198.18.0.0/24) and "lan6"
carries IPv6 (2001:db8::/64). Each node is linked to both bridges by a veth
pair and has its own ZEM_ROOT (local.xml, shared memory, logs) with the same
cluster.xml. Nodes 1 and 2 share one heartbeat area for the controller path
(controller numbers 0 and 1): a file, or one disk that each reaches through
a loop device of its own; every further node gets an area file of its own.
A node runs "zemctl run" under nodeinit.py, which is process 1 of a PID
namespace of the node's own.

Everything is named "zst<pid>-..." after the creating process, so parallel
runs never collide and sweep() can remove what a crashed run left behind.

The modules, by concern; users import from the one they need:

    layout     names, paths, priorities and addresses every node shares
    procs      commands, processes in /proc, and clean-up: the clusters
               alive, the handlers that destroy them, sweep() of leftovers
               (loop devices included)
    neigh      the host's neighbour tables, sized for the cluster and put back
    disk       the shared disk of nodes 1 and 2 as two loop devices
    node       one node: its processes, its zemctl, its key and its logs
    cluster    the cluster: network, configuration, life cycle; started()
    wire       datagrams: forged heartbeats, sent, flooded and captured
    observe    what the nodes saw: log records, OFFLINE times, health
"""
