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

// The handle log_init gives out: one per log name, never freed.
struct Log {
    std::string name;
    int32_t level = 0;
    int32_t size = 0;
};

struct Failure {
    int32_t code;
    int times; // -1: always
};

struct State {
    std::map<std::string, Failure> fails;                            // by op
    std::map<std::pair<std::string, std::string>, Failure> fails_on; // by op and subject

    std::map<std::string, std::string> keys;
    std::string hostname = "node1";
    bool config = false;
    std::multiset<std::string> policies;

    struct Node {
        std::string name;
        int32_t pri;
        int32_t hdstat = SHMNM_HDSTAT_OK;
        int32_t nodestat = 0;
    };
    std::vector<Node> nodes;
    struct Rsc {
        std::string kind, name;
        int32_t pri;
    };
    std::vector<Rsc> rscs;
    std::map<std::string, int32_t> svstats;  // "kind/rsc/nodeid"
    std::map<std::string, int32_t> rscstats; // "kind/rsc"
    int32_t waitstat = 0;
    int32_t nonvol = -1;

    std::string edition = "E1";
    std::string version = "1.0";
    int32_t action = 0;
    int32_t ratio = 1;

    int statchanges = 0;
    int32_t downnotify = 1;

    uint8_t cntno = 0;
    std::array<unsigned char, ZEMFW_HBSLOTS * ZEMFW_HBINF_SIZE> area{};
    fake::GetHook gethook;
    fake::SetHook sethook;

    std::vector<fake::Call> calls;
    std::vector<fake::LogRecord> logs;
    std::map<std::string, Log *> handles;
};

std::mutex mtx;
State st;

// Handles outlive reset() on purpose: a test may still hold one.
std::map<std::string, Log> &log_objects()
{
    static std::map<std::string, Log> objs;
    return objs;
}

// Records the call and answers a scripted failure for it, if any (lock held).
int32_t enter(const std::string &op, const std::string &subject, const std::string &args)
{
    st.calls.push_back({op, args});
    auto take = [](Failure &f) {
        if (f.times == 0)
            return 0;
        if (f.times > 0)
            --f.times;
        return f.code;
    };
    if (auto it = st.fails_on.find({op, subject}); it != st.fails_on.end())
        if (int32_t rc = take(it->second))
            return rc;
    if (auto it = st.fails.find(op); it != st.fails.end())
        return take(it->second);
    return 0;
}

// One operation under the lock: the call recorded, its scripted failure
// answered, otherwise `body` run for the result.
template <class F> int32_t op(const std::string &name, const std::string &subject, const std::string &args, F body)
{
    std::lock_guard lk(mtx);
    if (int32_t rc = enter(name, subject, args))
        return rc;
    return body();
}
int32_t done() { return 0; }
template <class F> auto locked(F body)
{
    std::lock_guard lk(mtx);
    return body();
}

std::string join(std::initializer_list<std::string> parts)
{
    std::string out;
    for (const auto &p : parts)
        out += (out.empty() ? "" : ",") + p;
    return out;
}

std::string str(const char *s) { return s ? s : "(null)"; }

std::string svkey(const std::string &kind, const std::string &rsc, int32_t nodeid)
{
    return kind + "/" + rsc + "/" + std::to_string(nodeid);
}

State::Node *find_node(const std::string &name)
{
    for (auto &n : st.nodes)
        if (n.name == name)
            return &n;
    return nullptr;
}

// The two-call enumeration protocol: a null buffer asks for the size.
int32_t enumerate(const std::vector<std::string> &names, char *buf, int32_t *size)
{
    if (size == nullptr)
        return 22;
    std::string msz;
    for (const auto &n : names)
        msz += n + '\0';
    msz += names.empty() ? std::string(2, '\0') : std::string(1, '\0');
    if (buf == nullptr) {
        *size = names.empty() ? 0 : static_cast<int32_t>(msz.size());
        return 0;
    }
    if (*size < static_cast<int32_t>(msz.size()))
        return 34;
    std::memcpy(buf, msz.data(), msz.size());
    return 0;
}

// Integer keys as the configuration library reads them: the whole text, in
// range, decimal or with a 0x/0 prefix.
bool parse_int(const std::string &text, int32_t *out)
{
    if (text.empty())
        return false;
    errno = 0;
    char *end = nullptr;
    long long v = std::strtoll(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || v < INT32_MIN || v > INT32_MAX)
        return false;
    *out = static_cast<int32_t>(v);
    return true;
}

// A node's field, or 2 for a node the node manager does not know.
template <class F> int32_t nodeop(const char *name, const char *node, int32_t *out, F field)
{
    return op(name, str(node), str(node), [&] {
        const auto *n = find_node(str(node));
        return n == nullptr ? 2 : (*out = field(*n), 0);
    });
}
struct ResetListener : ::testing::EmptyTestEventListener {
    void OnTestStart(const ::testing::TestInfo &) override { fake::reset(); }
};

// Every test of a binary linking the fake starts from a clean platform.
const bool registered = [] {
    ::testing::UnitTest::GetInstance()->listeners().Append(new ResetListener);
    return true;
}();

} // namespace

namespace fake {

void reset() { locked([&] { st = State{}; }); }
void fail(const std::string &op, int32_t code, int times) { locked([&] { st.fails[op] = {code, times}; }); }
void fail_on(const std::string &op, const std::string &subject, int32_t code, int times)
{
    std::lock_guard lk(mtx);
    st.fails_on[{op, subject}] = {code, times};
}

void set_key(const std::string &key, const std::string &value) { locked([&] { st.keys[key] = value; }); }
void erase_key(const std::string &key) { locked([&] { st.keys.erase(key); }); }
void set_hostname(const std::string &name) { locked([&] { st.hostname = name; }); }
bool config_loaded() { return locked([&] { return st.config; }); }
std::vector<std::string> loaded_policies() { return locked([&] { return std::vector(st.policies.begin(), st.policies.end()); }); }

void add_node(const std::string &name, int32_t pri) { locked([&] { st.nodes.push_back({name, pri}); }); }
void set_hdstat(const std::string &node, int32_t hdstat)
{
    std::lock_guard lk(mtx);
    if (auto *n = find_node(node))
        n->hdstat = hdstat;
}
void set_nodestat(const std::string &node, int32_t stat)
{
    std::lock_guard lk(mtx);
    if (auto *n = find_node(node))
        n->nodestat = stat;
}
void add_rsc(const std::string &kind, const std::string &name, int32_t pri)
{
    std::lock_guard lk(mtx);
    st.rscs.push_back({kind, name, pri});
}
int32_t svstat(const std::string &kind, const std::string &rsc, int32_t nodeid)
{
    std::lock_guard lk(mtx);
    auto it = st.svstats.find(svkey(kind, rsc, nodeid));
    return it == st.svstats.end() ? SHMNM_SVSTAT_UNKNOWN : it->second;
}
void set_svstat(const std::string &kind, const std::string &rsc, int32_t nodeid, int32_t stat)
{
    std::lock_guard lk(mtx);
    st.svstats[svkey(kind, rsc, nodeid)] = stat;
}
int32_t rscstat(const std::string &kind, const std::string &rsc)
{
    std::lock_guard lk(mtx);
    auto it = st.rscstats.find(kind + "/" + rsc);
    return it == st.rscstats.end() ? -1 : it->second;
}
void set_waitstat(int32_t stat) { locked([&] { st.waitstat = stat; }); }
int32_t nonvolstat() { return locked([&] { return st.nonvol; }); }
void set_action(int32_t action) { locked([&] { st.action = action; }); }
void set_ratio(int32_t ratio) { locked([&] { st.ratio = ratio; }); }
void set_downnotify(int32_t ret) { locked([&] { st.downnotify = ret; }); }
int statchange_count() { return locked([&] { return st.statchanges; }); }

std::string slot(int index)
{
    std::lock_guard lk(mtx);
    if (index < 0 || index >= ZEMFW_HBSLOTS)
        return {};
    return std::string(reinterpret_cast<const char *>(st.area.data()) + index * ZEMFW_HBINF_SIZE,
                       ZEMFW_HBINF_SIZE);
}
void set_slot(int index, const void *rec)
{
    std::lock_guard lk(mtx);
    if (index >= 0 && index < ZEMFW_HBSLOTS)
        std::memcpy(st.area.data() + index * ZEMFW_HBINF_SIZE, rec, ZEMFW_HBINF_SIZE);
}
void on_gethbinf(GetHook hook) { locked([&] { st.gethook = std::move(hook); }); }
void on_sethbinf(SetHook hook) { locked([&] { st.sethook = std::move(hook); }); }
int32_t default_gethbinf(void *hbinf)
{
    std::lock_guard lk(mtx);
    std::memcpy(hbinf, st.area.data(), st.area.size());
    return 0;
}
int32_t default_sethbinf(uint8_t cntno, const void *hbinf)
{
    std::lock_guard lk(mtx);
    if (cntno >= ZEMFW_HBSLOTS)
        return 22;
    std::memcpy(st.area.data() + cntno * ZEMFW_HBINF_SIZE, hbinf, ZEMFW_HBINF_SIZE);
    return 0;
}

std::vector<Call> calls() { return locked([&] { return st.calls; }); }
int count(const std::string &op)
{
    std::lock_guard lk(mtx);
    return static_cast<int>(std::count_if(st.calls.begin(), st.calls.end(), [&](const Call &c) { return c.op == op; }));
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
    const auto all = logs_of(log);
    return static_cast<int>(
        std::count_if(all.begin(), all.end(), [&](const LogRecord &r) { return r.text.find(substring) != std::string::npos; }));
}
std::optional<LogRecord> find_log(const std::string &log, const std::string &substring)
{
    for (const auto &r : logs_of(log))
        if (r.text.find(substring) != std::string::npos)
            return r;
    return std::nullopt;
}
std::optional<std::pair<int32_t, int32_t>> log_settings(const std::string &log)
{
    std::lock_guard lk(mtx);
    auto it = st.handles.find(log);
    if (it == st.handles.end())
        return std::nullopt;
    return std::make_pair(it->second->level, it->second->size);
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

int32_t shmnm_getwaitstat(int32_t *waitstat)
{
    return op("shmnm_getwaitstat", "", "", [&] { return *waitstat = st.waitstat, 0; });
}

int32_t shmnm_enumrsc(const char *kind, char *buf, int32_t *size)
{
    return op("shmnm_enumrsc", str(kind), join({str(kind), buf ? "buf" : "null"}), [&] {
        std::vector<std::string> names;
        for (const auto &r : st.rscs)
            if (r.kind == str(kind))
                names.push_back(r.name);
        return enumerate(names, buf, size);
    });
}

int32_t shmnm_enumnode(char *buf, int32_t *size)
{
    return op("shmnm_enumnode", "", buf ? "buf" : "null", [&] {
        std::vector<std::string> names;
        for (const auto &n : st.nodes)
            names.push_back(n.name);
        return enumerate(names, buf, size);
    });
}

int32_t shmnm_getnodepri(const char *node, int32_t *pri)
{
    return nodeop("shmnm_getnodepri", node, pri, [](const State::Node &n) { return n.pri; });
}
int32_t shmnm_getnodestat(const char *node, int32_t *stat)
{
    return nodeop("shmnm_getnodestat", node, stat, [](const State::Node &n) { return n.nodestat; });
}
int32_t shmnm_gethdstat(const char *node, int32_t *hdstat)
{
    return nodeop("shmnm_gethdstat", node, hdstat, [](const State::Node &n) { return n.hdstat; });
}

int32_t shmnm_getrscpri(const char *kind, const char *rsc, int32_t *pri)
{
    return op("shmnm_getrscpri", str(rsc), join({str(kind), str(rsc)}), [&] {
        for (const auto &r : st.rscs)
            if (r.kind == str(kind) && r.name == str(rsc))
                return *pri = r.pri, 0;
        return 2;
    });
}

int32_t shmnm_getrscsvstat(const char *kind, const char *rsc, int32_t nodeid, int32_t *stat)
{
    const std::string id = std::to_string(nodeid);
    return op("shmnm_getrscsvstat", str(rsc) + "/" + id, join({str(kind), str(rsc), id}), [&] {
        auto it = st.svstats.find(svkey(str(kind), str(rsc), nodeid));
        return *stat = it == st.svstats.end() ? SHMNM_SVSTAT_UNKNOWN : it->second, 0;
    });
}

int32_t shmnm_setrscsvstat(const char *kind, const char *rsc, int32_t nodeid, int32_t stat)
{
    const std::string id = std::to_string(nodeid);
    return op("shmnm_setrscsvstat", str(rsc) + "/" + id, join({str(kind), str(rsc), id, std::to_string(stat)}),
              [&] { return st.svstats[svkey(str(kind), str(rsc), nodeid)] = stat, 0; });
}

int32_t shmnm_setrscstat(const char *kind, const char *rsc, int32_t stat)
{
    return op("shmnm_setrscstat", str(rsc), join({str(kind), str(rsc), std::to_string(stat)}),
              [&] { return st.rscstats[str(kind) + "/" + str(rsc)] = stat, 0; });
}

int32_t shmnm_setnonvolstat(int32_t stat)
{
    return op("shmnm_setnonvolstat", "", std::to_string(stat), [&] { return st.nonvol = stat, 0; });
}

static int32_t copy_text(char *dst, const std::string &src)
{
    std::memset(dst, 0, SHMCM_TEXT_SIZE);
    std::memcpy(dst, src.data(), std::min<size_t>(src.size(), SHMCM_TEXT_SIZE - 1));
    return 0;
}
int32_t shmcm_getedition(char *edition) { return op("shmcm_getedition", "", "", [&] { return copy_text(edition, st.edition); }); }
int32_t shmcm_getversion(char *version) { return op("shmcm_getversion", "", "", [&] { return copy_text(version, st.version); }); }

int32_t shmcm_getaction(int32_t *action, void *actinfo, void *)
{
    return op("shmcm_getaction", "", "", [&] {
        *action = st.action;
        if (actinfo)
            std::memset(actinfo, 0xA5, SHMCM_ACTINFO_SIZE); // the daemon must not rely on it
        return 0;
    });
}

int32_t shmcm_getratio(int32_t *ratio, int32_t *second)
{
    return op("shmcm_getratio", "", "", [&] {
        *ratio = st.ratio;
        if (second)
            *second = 0;
        return 0;
    });
}

int32_t sem_set_statchange(void) { return op("sem_set_statchange", "", "", [] { return ++st.statchanges, 0; }); }
int32_t sem_wait_downnotify(int32_t flag)
{
    return op("sem_wait_downnotify", "", std::to_string(flag), [] { return st.downnotify; });
}

int32_t xmllib_init(const char *module) { return op("xmllib_init", str(module), str(module), done); }
int32_t xmllib_load_config(void) { return op("xmllib_load_config", "", "", [] { return st.config = true, 0; }); }
int32_t xmllib_unload_config(void) { return op("xmllib_unload_config", "", "", [] { return st.config = false, 0; }); }
int32_t xmllib_load_policy(const char *policy)
{
    return op("xmllib_load_policy", str(policy), str(policy), [&] { return st.policies.insert(str(policy)), 0; });
}
int32_t xmllib_unload_policy(const char *policy)
{
    return op("xmllib_unload_policy", str(policy), str(policy), [&] {
        if (auto it = st.policies.find(str(policy)); it != st.policies.end())
            st.policies.erase(it);
        return 0;
    });
}

int32_t xmllib_get_value(const char *key, int32_t kind, void *value, int32_t *len)
{
    return op("xmllib_get_value", str(key), join({str(key), std::to_string(kind), std::to_string(len ? *len : -1)}),
              [&] {
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
    return op("xmllib_gethostname", "", std::to_string(size), [&] {
        if (static_cast<int32_t>(st.hostname.size()) + 1 > size)
            return 4;
        return std::memcpy(buf, st.hostname.c_str(), st.hostname.size() + 1), 0;
    });
}

int32_t log_init(const char *name, log_hdl **handle, int32_t level, int32_t size, void *)
{
    const std::string n = str(name);
    return op("log_init", n, join({n, std::to_string(level), std::to_string(size)}), [&] {
        Log &obj = log_objects()[n];
        obj = {n, level, size};
        st.handles[n] = &obj;
        *handle = reinterpret_cast<log_hdl *>(&obj);
        return 0;
    });
}

int32_t log_write(log_hdl *handle, int32_t level, int32_t msgno, const char *file, int32_t line, const char *func,
                  const char *format, ...)
{
    fake::LogRecord rec;
    rec.log = handle ? reinterpret_cast<Log *>(handle)->name : "(null)";
    rec.level = level, rec.msgno = msgno, rec.line = line;
    rec.file = str(file), rec.func = str(func);
    if (level == LOG_LEVEL_CATALOG) {
        va_list ap;
        va_start(ap, format);
        rec.rsc = str(va_arg(ap, const char *));
        rec.node = str(va_arg(ap, const char *));
        rec.scaled = va_arg(ap, int32_t);
        rec.tck = va_arg(ap, int64_t);
        rec.elapsed = va_arg(ap, uint64_t);
        rec.rate = va_arg(ap, int32_t);
        va_end(ap);
        rec.text = "delay(" + std::to_string(msgno) + ") rsc=" + rec.rsc + " node=" + rec.node +
                   " hbto=" + std::to_string(rec.scaled) + "s tck=" + std::to_string(rec.tck) +
                   " elapsed=" + std::to_string(rec.elapsed) + " rate=" + std::to_string(rec.rate) + "%";
    } else {
        rec.text = str(format); // finished text, taken literally
    }
    std::lock_guard lk(mtx);
    st.calls.push_back({"log_write", rec.log + "," + std::to_string(level)});
    st.logs.push_back(std::move(rec));
    return 0;
}

int32_t log_term(log_hdl *handle)
{
    return op("log_term", "", handle ? reinterpret_cast<Log *>(handle)->name : "(null)", done);
}

int32_t zemstorage_init(uint8_t *cntno) { return op("zemstorage_init", "", "", [&] { return *cntno = st.cntno, 0; }); }

// The hooks run without the lock, so that one may block.
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
    if (int32_t rc = op("zemfw_sethbinf", "", std::to_string(cntno), [&] { return hook = st.sethook, 0; }))
        return rc;
    return hook ? hook(cntno, hbinf) : fake::default_sethbinf(cntno, hbinf);
}

} // extern "C"
