#include "fake/fake_platform.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>

namespace {

struct State {
    // By op and subject ("": any): the code and how many more calls fail (-1: all).
    std::map<std::pair<std::string, std::string>, std::pair<int32_t, int>> fails;
    std::map<std::string, std::string> keys;
    std::string hostname = "node1";
    bool config = false;
    std::vector<std::string> policies;
    struct Node { std::string name; int32_t pri, hdstat = SHMNM_HDSTAT_OK, nstat = 0; };
    std::vector<Node> nodes;
    struct Rsc { std::string kind, name; int32_t pri; };
    std::vector<Rsc> rscs;
    std::map<std::string, int32_t> svstats, rscstats; // "kind/rsc/nodeid", "kind/rsc"
    int32_t waitstat = 0, nonvol = -1, action = 0, ratio = 1, downnotify = 1;
    int statchanges = 0;
    std::array<unsigned char, ZEMFW_HBSLOTS * ZEMFW_HBINF_SIZE> area{};
    fake::GetHook gethook;
    fake::SetHook sethook;
    std::vector<fake::Call> calls;
    std::vector<fake::LogRecord> logs;
    std::map<std::string, std::pair<int32_t, int32_t>> opened; // log name: level, size
    std::string root = "/fake-root";                            // where hbext_path puts relative names
    std::array<uint64_t, HBEXT_REFUSED_COUNT> refused{};
    std::array<fake::Progress, HBEXT_TH_COUNT> progress{};
    std::map<std::string, std::vector<uint64_t>> counts; // "kind/rsc/nodeid"
};

std::mutex mtx;
State st;
// The names log_init's handles point to: they outlive reset(), a test may still hold one.
std::set<std::string> lognames;

template <class F> auto locked(F body)
{
    std::lock_guard lk(mtx);
    return body();
}

// One operation under the lock: the call recorded, a scripted failure for it
// answered, otherwise `body` run for the result.
template <class F> int32_t op(const std::string &name, const std::string &subject, const std::string &args, F body)
{
    std::lock_guard lk(mtx);
    st.calls.push_back({name, args});
    for (const auto &s : {subject, std::string()}) {
        auto it = st.fails.find({name, s});
        if (it == st.fails.end() || it->second.second == 0)
            continue;
        if (it->second.second > 0)
            --it->second.second;
        return it->second.first;
    }
    return body();
}
int32_t done() { return 0; }

std::string str(const char *s) { return s ? s : "(null)"; }
std::string svkey(const std::string &kind, const std::string &rsc, int32_t id)
{
    return kind + "/" + rsc + "/" + std::to_string(id);
}

State::Node *find_node(const std::string &name)
{
    auto it = std::ranges::find(st.nodes, name, &State::Node::name);
    return it == st.nodes.end() ? nullptr : &*it;
}

// The two-call enumeration protocol: a null buffer asks for the size.
int32_t enumerate(const std::vector<std::string> &names, char *buf, int32_t *size)
{
    if (size == nullptr)
        return 22;
    std::string msz;
    for (const auto &n : names)
        msz += n + '\0';
    msz += std::string(names.empty() ? 2 : 1, '\0');
    if (buf == nullptr)
        return *size = names.empty() ? 0 : static_cast<int32_t>(msz.size()), 0;
    if (*size < static_cast<int32_t>(msz.size()))
        return 34;
    return std::memcpy(buf, msz.data(), msz.size()), 0;
}

// Integer keys as the configuration library reads them: the whole text, in
// range, decimal or with a 0x/0 prefix.
bool parse_int(const std::string &text, int32_t *out)
{
    errno = 0;
    char *end = nullptr;
    const long long v = std::strtoll(text.c_str(), &end, 0);
    if (text.empty() || errno != 0 || *end != '\0' || v < INT32_MIN || v > INT32_MAX)
        return false;
    return *out = static_cast<int32_t>(v), true;
}

// A node's field, or 2 for a node the node manager does not know.
int32_t nodeop(const char *name, const char *node, int32_t *out, int32_t State::Node::*field)
{
    return op(name, str(node), str(node), [&] {
        const auto *n = find_node(str(node));
        return n == nullptr ? 2 : (*out = n->*field, 0);
    });
}
// A state from one of the maps, `none` when never set (lock held).
int32_t stateof(const std::map<std::string, int32_t> &m, const std::string &key, int32_t none)
{
    auto it = m.find(key);
    return it == m.end() ? none : it->second;
}

// Every test of a binary linking the fake starts from a clean platform.
struct ResetListener : ::testing::EmptyTestEventListener {
    void OnTestStart(const ::testing::TestInfo &) override { fake::reset(); }
};
const bool registered = (::testing::UnitTest::GetInstance()->listeners().Append(new ResetListener), true);

} // namespace

namespace fake {

void reset() { locked([&] { st = State{}; }); }
void fail(const std::string &op, int32_t code, int times) { fail_on(op, "", code, times); }
void fail_on(const std::string &op, const std::string &subject, int32_t code, int times)
{
    locked([&] { st.fails[{op, subject}] = {code, times}; });
}
void set_key(const std::string &key, const std::string &value) { locked([&] { st.keys[key] = value; }); }
void set_hostname(const std::string &name) { locked([&] { st.hostname = name; }); }
bool config_loaded() { return locked([&] { return st.config; }); }
std::vector<std::string> loaded_policies() { return locked([&] { return st.policies; }); }
void add_node(const std::string &name, int32_t pri) { locked([&] { st.nodes.push_back({name, pri}); }); }
void set_hdstat(const std::string &node, int32_t v) { locked([&] { if (auto *n = find_node(node)) n->hdstat = v; }); }
void set_nodestat(const std::string &nd, int32_t v) { locked([&] { if (auto *n = find_node(nd)) n->nstat = v; }); }
void add_rsc(const std::string &kind, const std::string &name, int32_t pri)
{
    locked([&] { st.rscs.push_back({kind, name, pri}); });
}
int32_t svstat(const std::string &kind, const std::string &rsc, int32_t nodeid)
{
    return locked([&] { return stateof(st.svstats, svkey(kind, rsc, nodeid), SHMNM_SVSTAT_UNKNOWN); });
}
void set_svstat(const std::string &kind, const std::string &rsc, int32_t nodeid, int32_t stat)
{
    locked([&] { st.svstats[svkey(kind, rsc, nodeid)] = stat; });
}
int32_t rscstat(const std::string &kind, const std::string &rsc)
{
    return locked([&] { return stateof(st.rscstats, kind + "/" + rsc, -1); });
}
void set_waitstat(int32_t stat) { locked([&] { st.waitstat = stat; }); }
int32_t nonvolstat() { return locked([&] { return st.nonvol; }); }
void set_action(int32_t action) { locked([&] { st.action = action; }); }
void set_ratio(int32_t ratio) { locked([&] { st.ratio = ratio; }); }
void set_downnotify(int32_t ret) { locked([&] { st.downnotify = ret; }); }
int statchange_count() { return locked([&] { return st.statchanges; }); }

std::string slot(int index)
{
    return locked(
        [&] { return std::string(reinterpret_cast<char *>(&st.area.at(index * ZEMFW_HBINF_SIZE)), ZEMFW_HBINF_SIZE); });
}
void set_slot(int index, const void *rec)
{
    locked([&] { std::memcpy(&st.area.at(index * ZEMFW_HBINF_SIZE), rec, ZEMFW_HBINF_SIZE); });
}
void on_gethbinf(GetHook hook) { locked([&] { st.gethook = std::move(hook); }); }
void on_sethbinf(SetHook hook) { locked([&] { st.sethook = std::move(hook); }); }
int32_t default_gethbinf(void *b) { return locked([&] { return std::memcpy(b, st.area.data(), st.area.size()), 0; }); }
int32_t default_sethbinf(uint8_t cntno, const void *hbinf)
{
    return cntno >= ZEMFW_HBSLOTS ? 22 : (set_slot(cntno, hbinf), 0);
}

void set_root(const std::string &root) { locked([&] { st.root = root; }); }
std::array<uint64_t, HBEXT_REFUSED_COUNT> refused() { return locked([&] { return st.refused; }); }
Progress progress(int32_t thread) { return locked([&] { return st.progress.at(thread); }); }
std::vector<uint64_t> counts(const std::string &kind, const std::string &rsc, int32_t nodeid)
{
    return locked([&] {
        auto it = st.counts.find(svkey(kind, rsc, nodeid));
        return it == st.counts.end() ? std::vector<uint64_t>{} : it->second;
    });
}

std::vector<Call> calls() { return locked([&] { return st.calls; }); }
int count(const std::string &op)
{
    return locked([&] { return static_cast<int>(std::ranges::count(st.calls, op, &Call::op)); });
}
void clear_calls() { locked([&] { st.calls.clear(); }); }

std::vector<LogRecord> logs() { return locked([&] { return st.logs; }); }
std::vector<LogRecord> logs_of(const std::string &log)
{
    std::vector<LogRecord> out = logs();
    std::erase_if(out, [&](const LogRecord &r) { return r.log != log; });
    return out;
}
std::vector<std::string> texts(const std::string &log)
{
    std::vector<std::string> out;
    for (const auto &r : logs_of(log))
        if (r.level != LOG_LEVEL_CATALOG)
            out.push_back(r.text);
    return out;
}
bool has_log(const std::string &log, const std::string &text) { return std::ranges::count(texts(log), text) != 0; }
int count_log(const std::string &log, const std::string &substring)
{
    const auto has = [&](const LogRecord &r) { return r.text.find(substring) != std::string::npos; };
    return static_cast<int>(std::ranges::count_if(logs_of(log), has));
}
std::optional<std::pair<int32_t, int32_t>> log_settings(const std::string &log)
{
    return locked([&] { return st.opened.contains(log) ? std::optional(st.opened[log]) : std::nullopt; });
}

} // namespace fake

// ---- the services operations -------------------------------------------------

extern "C" {

int32_t shmnm_attach(void) { return op("shmnm_attach", "", "", done); }
int32_t shmnm_detach(void) { return op("shmnm_detach", "", "", done); }
int32_t shmcm_attach(void) { return op("shmcm_attach", "", "", done); }
int32_t shmcm_detach(void) { return op("shmcm_detach", "", "", done); }
int32_t sem_attach(void) { return op("sem_attach", "", "", done); }
int32_t sem_detach(void) { return op("sem_detach", "", "", done); }
int32_t xmllib_term(void) { return op("xmllib_term", "", "", done); }
int32_t zemstorage_term(void) { return op("zemstorage_term", "", "", done); }
int32_t shmnm_getwaitstat(int32_t *v) { return op("shmnm_getwaitstat", "", "", [&] { return *v = st.waitstat, 0; }); }

int32_t shmnm_enumrsc(const char *kind, char *buf, int32_t *size)
{
    return op("shmnm_enumrsc", str(kind), str(kind), [&] {
        std::vector<std::string> names;
        for (const auto &r : st.rscs)
            if (r.kind == str(kind))
                names.push_back(r.name);
        return enumerate(names, buf, size);
    });
}
int32_t shmnm_enumnode(char *buf, int32_t *size)
{
    return op("shmnm_enumnode", "", "", [&] {
        std::vector<std::string> names;
        for (const auto &n : st.nodes)
            names.push_back(n.name);
        return enumerate(names, buf, size);
    });
}

int32_t shmnm_getnodepri(const char *n, int32_t *v) { return nodeop("shmnm_getnodepri", n, v, &State::Node::pri); }
int32_t shmnm_getnodestat(const char *n, int32_t *v) { return nodeop("shmnm_getnodestat", n, v, &State::Node::nstat); }
int32_t shmnm_gethdstat(const char *n, int32_t *v) { return nodeop("shmnm_gethdstat", n, v, &State::Node::hdstat); }

int32_t shmnm_getrscpri(const char *kind, const char *rsc, int32_t *pri)
{
    return op("shmnm_getrscpri", str(rsc), str(rsc), [&] {
        auto it = std::ranges::find_if(st.rscs, [&](const State::Rsc &r) { return r.kind == str(kind) && r.name == str(rsc); });
        return it == st.rscs.end() ? 2 : (*pri = it->pri, 0);
    });
}

int32_t shmnm_getrscsvstat(const char *kind, const char *rsc, int32_t nodeid, int32_t *stat)
{
    const std::string id = str(rsc) + "/" + std::to_string(nodeid);
    return op("shmnm_getrscsvstat", id, id,
              [&] { return *stat = stateof(st.svstats, svkey(str(kind), str(rsc), nodeid), SHMNM_SVSTAT_UNKNOWN), 0; });
}
int32_t shmnm_setrscsvstat(const char *kind, const char *rsc, int32_t nodeid, int32_t stat)
{
    const std::string id = std::to_string(nodeid);
    const std::string args = str(kind) + "," + str(rsc) + "," + id + "," + std::to_string(stat);
    return op("shmnm_setrscsvstat", str(rsc) + "/" + id, args,
              [&] { return st.svstats[svkey(str(kind), str(rsc), nodeid)] = stat, 0; });
}
int32_t shmnm_setrscstat(const char *kind, const char *rsc, int32_t stat)
{
    return op("shmnm_setrscstat", str(rsc), str(kind) + "," + str(rsc) + "," + std::to_string(stat),
              [&] { return st.rscstats[str(kind) + "/" + str(rsc)] = stat, 0; });
}
int32_t shmnm_setnonvolstat(int32_t v) { return op("shmnm_setnonvolstat", "", "", [&] { return st.nonvol = v, 0; }); }

int32_t shmcm_getedition(char *t)
{
    return op("shmcm_getedition", "", "", [&] { return std::strncpy(t, "E1", SHMCM_TEXT_SIZE), 0; });
}
int32_t shmcm_getversion(char *t)
{
    return op("shmcm_getversion", "", "", [&] { return std::strncpy(t, "1.0", SHMCM_TEXT_SIZE), 0; });
}
int32_t shmcm_getaction(int32_t *action, void *actinfo, void *)
{
    return op("shmcm_getaction", "", "", [&] {
        if (actinfo)
            std::memset(actinfo, 0xA5, SHMCM_ACTINFO_SIZE); // the daemon must not rely on it
        return *action = st.action, 0;
    });
}
int32_t shmcm_getratio(int32_t *ratio, int32_t *second)
{
    return op("shmcm_getratio", "", "", [&] {
        if (second)
            *second = 0;
        return *ratio = st.ratio, 0;
    });
}

int32_t sem_set_statchange(void) { return op("sem_set_statchange", "", "", [] { return ++st.statchanges, 0; }); }
int32_t sem_wait_downnotify(int32_t) { return op("sem_wait_downnotify", "", "", [] { return st.downnotify; }); }

int32_t xmllib_init(const char *) { return op("xmllib_init", "", "", done); }
int32_t xmllib_load_config(void) { return op("xmllib_load_config", "", "", [] { return st.config = true, 0; }); }
int32_t xmllib_unload_config(void) { return op("xmllib_unload_config", "", "", [] { return st.config = false, 0; }); }
int32_t xmllib_load_policy(const char *policy)
{
    return op("xmllib_load_policy", str(policy), str(policy), [&] { return st.policies.push_back(str(policy)), 0; });
}
int32_t xmllib_unload_policy(const char *policy)
{
    return op("xmllib_unload_policy", str(policy), str(policy), [&] {
        if (auto it = std::ranges::find(st.policies, str(policy)); it != st.policies.end())
            st.policies.erase(it);
        return 0;
    });
}

int32_t xmllib_get_value(const char *key, int32_t kind, void *value, int32_t *len)
{
    return op("xmllib_get_value", str(key), str(key), [&] {
        auto it = st.keys.find(str(key));
        if (it == st.keys.end() || value == nullptr || len == nullptr)
            return 2;
        if (kind == XMLLIB_KIND_INT) {
            int32_t v = 0;
            if (*len != 4 || !parse_int(it->second, &v))
                return 3;
            return std::memcpy(value, &v, sizeof v), 0;
        }
        if (kind != XMLLIB_KIND_TEXT)
            return 5;
        if (static_cast<int32_t>(it->second.size()) + 1 > *len)
            return 4;
        std::memcpy(value, it->second.c_str(), it->second.size() + 1);
        return *len = static_cast<int32_t>(it->second.size()), 0;
    });
}

int32_t xmllib_gethostname(char *buf, int32_t size)
{
    return op("xmllib_gethostname", "", "", [&] {
        if (static_cast<int32_t>(st.hostname.size()) + 1 > size)
            return 4;
        return std::memcpy(buf, st.hostname.c_str(), st.hostname.size() + 1), 0;
    });
}

int32_t log_init(const char *name, log_hdl **handle, int32_t level, int32_t size, void *)
{
    const std::string n = str(name);
    return op("log_init", n, n, [&] {
        st.opened[n] = {level, size};
        *handle = reinterpret_cast<log_hdl *>(const_cast<std::string *>(&*lognames.insert(n).first));
        return 0;
    });
}

int32_t log_write(log_hdl *handle, int32_t level, int32_t msgno, const char *file, int32_t line, const char *func,
                  const char *format, ...)
{
    // An ordinary record's text is finished, taken literally.
    fake::LogRecord rec{handle ? *reinterpret_cast<std::string *>(handle) : "(null)",
                        level, msgno, str(file), line, str(func), str(format)};
    if (level == LOG_LEVEL_CATALOG) {
        va_list ap;
        va_start(ap, format);
        const std::string rsc = str(va_arg(ap, const char *)), node = str(va_arg(ap, const char *));
        const int32_t scaled = va_arg(ap, int32_t);
        const int64_t tck = va_arg(ap, int64_t);
        const uint64_t elapsed = va_arg(ap, uint64_t);
        const int32_t rate = va_arg(ap, int32_t);
        va_end(ap);
        rec.text = "delay(" + std::to_string(msgno) + ") rsc=" + rsc + " node=" + node + " hbto=" +
                   std::to_string(scaled) + "s tck=" + std::to_string(tck) + " elapsed=" + std::to_string(elapsed) +
                   " rate=" + std::to_string(rate) + "%";
    }
    std::lock_guard lk(mtx);
    st.calls.push_back({"log_write", rec.log});
    st.logs.push_back(std::move(rec));
    return 0;
}

int32_t log_term(log_hdl *) { return op("log_term", "", "", done); }
int32_t zemstorage_init(uint8_t *cntno) { return op("zemstorage_init", "", "", [&] { return *cntno = 0, 0; }); }

int32_t zemfw_gethbinf(void *hbinf)
{
    fake::GetHook hook;
    if (int32_t rc = op("zemfw_gethbinf", "", "", [&] { return hook = st.gethook, 0; }))
        return rc;
    return hook ? hook(hbinf) : fake::default_gethbinf(hbinf);
}
int32_t zemfw_sethbinf(uint8_t cntno, const void *hbinf)
{
    fake::SetHook hook;
    if (int32_t rc = op("zemfw_sethbinf", "", "", [&] { return hook = st.sethook, 0; }))
        return rc;
    return hook ? hook(cntno, hbinf) : fake::default_sethbinf(cntno, hbinf);
}

int32_t hbext_path(const char *name, char *out, int32_t size)
{
    return locked([&] {
        const std::string p = name[0] == '/' ? std::string(name) : st.root + "/" + name;
        if (size <= 0 || p.size() >= static_cast<size_t>(size))
            return 4;
        return std::memcpy(out, p.c_str(), p.size() + 1), 0;
    });
}
int32_t hbext_setrefused(const uint64_t *c)
{
    return locked([&] { return std::memcpy(st.refused.data(), c, sizeof st.refused), 0; });
}
// Recorded as a call, beside the publication it comes before.
int32_t hbext_setcause(const char *kind, const char *rsc, int32_t nodeid, int32_t cause)
{
    const std::string id = std::to_string(nodeid);
    return op("hbext_setcause", str(rsc) + "/" + id, str(kind) + "," + str(rsc) + "," + id + "," + std::to_string(cause),
              [] { return 0; });
}
// Counted, not recorded as calls: every wait of a thread makes one.
int32_t hbext_progress_start(int32_t thread, int32_t hbint, int32_t hbto)
{
    return locked([&] {
        fake::Progress &p = st.progress.at(thread);
        return ++p.starts, p.hbint = hbint, p.hbto = hbto, 0;
    });
}
// Kept, not recorded as calls: the daemon publishes them every second.
int32_t hbext_setcounts(const char *kind, const char *rsc, int32_t nodeid, const uint64_t *c)
{
    const int n = rsc == nullptr ? int{HBEXT_KC_COUNT} : nodeid < 0 ? int{HBEXT_PC_COUNT} : int{HBEXT_NC_COUNT};
    return locked([&] {
        st.counts[svkey(str(kind), rsc == nullptr ? "" : rsc, rsc == nullptr ? HBEXT_PATH : nodeid)].assign(c, c + n);
        return 0;
    });
}
int32_t hbext_progress(int32_t thread) { return locked([&] { return ++st.progress.at(thread).stamps, 0; }); }
int32_t hbext_progress_end(int32_t thread) { return locked([&] { return ++st.progress.at(thread).ends, 0; }); }

} // extern "C"
