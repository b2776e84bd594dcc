// Exit statuses: the daemon's, and beside them those of zemctl, which also
// hands the daemon's on as its own ("zemctl run"). The one list of them: the
// daemon returns these, zemctl explains them, and the service unit's
// RestartPreventExitStatus= and the manual pages name the same numbers.
#pragma once

enum hbexit : int {
    HBEXIT_OK = 0,       // normal stop
    HBEXIT_ATTACH = 1,   // storage library or cluster attachment failed
    HBEXIT_USAGE = 2,    // an argument or value that is not taken
    HBEXIT_NODAEMON = 3, // zemctl status: no daemon attached; watch: no change in time
    HBEXIT_XMLINIT = 4,  // configuration library not initialised
    HBEXIT_STALLED = 5,  // zemctl status: a daemon is attached but has made no progress past the limit
    HBEXIT_CONFIG = 12,  // configuration not loaded
    HBEXIT_LOAD = 13,    // a heartbeat table could not be built
    HBEXIT_KEY = 14,     // a cluster key is configured but unusable
    HBEXIT_LOCKED = 16,  // zemctl run: another daemon holds this root's lock
    HBEXIT_NOEXEC = 127, // zemctl run: the daemon cannot be executed
};

struct hbexit_text {
    int status;
    const char *meaning;
};

// What each status means, in words an operator reads.
inline constexpr hbexit_text HBEXIT_TEXTS[] = {
    {HBEXIT_OK, "normal stop"},
    {HBEXIT_ATTACH, "storage library or cluster attachment failed"},
    {HBEXIT_USAGE, "usage error"},
    {HBEXIT_NODAEMON, "no daemon attached"},
    {HBEXIT_XMLINIT, "configuration library not initialised"},
    {HBEXIT_STALLED, "daemon running but stalled"},
    {HBEXIT_CONFIG, "configuration not loaded"},
    {HBEXIT_LOAD, "a heartbeat table could not be built"},
    {HBEXIT_KEY, "cluster key configured but unusable"},
    {HBEXIT_LOCKED, "another daemon runs on this root"},
    {HBEXIT_NOEXEC, "the daemon cannot be executed"},
};

// The meaning of a status, or null for one not in the list.
constexpr const char *hbexit_meaning(int status)
{
    for (const hbexit_text &t : HBEXIT_TEXTS)
        if (t.status == status)
            return t.meaning;
    return nullptr;
}
