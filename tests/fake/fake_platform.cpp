#include "fake/fake_platform.h"

#include <gtest/gtest.h>
#include <unistd.h>

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
    bool inited = false;
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
    std::map<std::string, int32_t> svstats; // "kind/rsc/nodeid"
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

std::string join(std::initializer_list<std::string> parts)
{
    std::string out;
    for (const auto &p : parts) {
        if (!out.empty())
            out += ',';
        out += p;
    }
    return out;
}

std::string str(const char *s) { return s ? s : "(null)"; }

std::string svkey(const std::string &kind, const std::string &rsc, int32_t nodeid)
{
    return kind + "/" + rsc + "/" + std::to_string(nodeid);
}

const State::Node *find_node(const char *name)
{
    for (const auto &n : st.nodes)
        if (name && n.name == name)
            return &n;
    return nullptr;
}

State::Node *find_node_mut(const std::string &name)
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
    for (const auto &n : names) {
        msz += n;
        msz += '\0';
    }
    msz += '\0';
    if (names.empty())
        msz += '\0';
    if (buf == nullptr) {
        *size = names.empty() ? 0 : static_cast<int32_t>(msz.size());
        return 0;
    }
    if (*size < static_cast<int32_t>(msz.size()))
        return 34;
    std::memcpy(buf, msz.data(), msz.size());
    return 0;
}

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

void reset()
{
    std::lock_guard lk(mtx);
    st = State{};
}

void fail(const std::string &op, int32_t code, int times)
{
    std::lock_guard lk(mtx);
    st.fails[op] = {code, times};
}

void fail_on(const std::string &op, const std::string &subject, int32_t code, int times)
{
    std::lock_guard lk(mtx);
    st.fails_on[{op, subject}] = {code, times};
}

void set_key(const std::string &key, const std::string &value)
{
    std::lock_guard lk(mtx);
    st.keys[key] = value;
}

void erase_key(const std::string &key)
{
    std::lock_guard lk(mtx);
    st.keys.erase(key);
}

void set_hostname(const std::string &name)
{
    std::lock_guard lk(mtx);
    st.hostname = name;
}

bool config_loaded()
{
    std::lock_guard lk(mtx);
    return st.config;
}

std::vector<std::string> loaded_policies()
{
    std::lock_guard lk(mtx);
    return {st.policies.begin(), st.policies.end()};
}

void add_node(const std::string &name, int32_t pri)
{
    std::lock_guard lk(mtx);
    st.nodes.push_back({name, pri});
}

void set_hdstat(const std::string &node, int32_t hdstat)
{
    std::lock_guard lk(mtx);
    if (auto *n = find_node_mut(node))
        n->hdstat = hdstat;
}

void set_nodestat(const std::string &node, int32_t stat)
{
    std::lock_guard lk(mtx);
    if (auto *n = find_node_mut(node))
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

void set_waitstat(int32_t stat)
{
    std::lock_guard lk(mtx);
    st.waitstat = stat;
}

int32_t nonvolstat()
{
    std::lock_guard lk(mtx);
    return st.nonvol;
}

void set_action(int32_t action)
{
    std::lock_guard lk(mtx);
    st.action = action;
}

void set_ratio(int32_t ratio)
{
    std::lock_guard lk(mtx);
    st.ratio = ratio;
}

void set_downnotify(int32_t ret)
{
    std::lock_guard lk(mtx);
    st.downnotify = ret;
}

int statchange_count()
{
    std::lock_guard lk(mtx);
    return st.statchanges;
}

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

void on_gethbinf(GetHook hook)
{
    std::lock_guard lk(mtx);
    st.gethook = std::move(hook);
}

void on_sethbinf(SetHook hook)
{
    std::lock_guard lk(mtx);
    st.sethook = std::move(hook);
}

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

void Gate::wait()
{
    ++entered_;
    ++waiting_;
    // Decrement on every way out, cancellation unwinding included.
    struct Leave {
        std::atomic<int> &n;
        ~Leave() { --n; }
    } leave{waiting_};
    while (!opened_)
        usleep(1000);
}

std::vector<Call> calls()
{
    std::lock_guard lk(mtx);
    return st.calls;
}

int count(const std::string &op)
{
    std::lock_guard lk(mtx);
    return static_cast<int>(std::count_if(st.calls.begin(), st.calls.end(), [&](const Call &c) { return c.op == op; }));
}

void clear_calls()
{
    std::lock_guard lk(mtx);
    st.calls.clear();
}

std::vector<LogRecord> logs()
{
    std::lock_guard lk(mtx);
    return st.logs;
}

std::vector<LogRecord> logs_of(const std::string &log)
{
    std::lock_guard lk(mtx);
    std::vector<LogRecord> out;
    for (const auto &r : st.logs)
        if (r.log == log)
            out.push_back(r);
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

bool has_log(const std::string &log, const std::string &text)
{
    auto t = texts(log);
    return std::find(t.begin(), t.end(), text) != t.end();
}

int count_log(const std::string &log, const std::string &substring)
{
    int n = 0;
    for (const auto &r : logs_of(log))
        if (r.text.find(substring) != std::string::npos)
            ++n;
    return n;
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

using fake::Call;

extern "C" {

int32_t shmnm_attach(void)
{
    std::lock_guard lk(mtx);
    return enter("shmnm_attach", "", "");
}

int32_t shmnm_detach(void)
{
    std::lock_guard lk(mtx);
    return enter("shmnm_detach", "", "");
}

int32_t shmnm_getwaitstat(int32_t *waitstat)
{
    std::lock_guard lk(mtx);
    if (int32_t rc = enter("shmnm_getwaitstat", "", ""))
        return rc;
    *waitstat = st.waitstat;
    return 0;
}

int32_t shmnm_enumrsc(const char *kind, char *buf, int32_t *size)
{
    std::lock_guard lk(mtx);
    if (int32_t rc = enter("shmnm_enumrsc", str(kind), join({str(kind), buf ? "buf" : "null"})))
        return rc;
    std::vector<std::string> names;
    for (const auto &r : st.rscs)
        if (kind && r.kind == kind)
            names.push_back(r.name);
    return enumerate(names, buf, size);
}

int32_t shmnm_enumnode(char *buf, int32_t *size)
{
    std::lock_guard lk(mtx);
    if (int32_t rc = enter("shmnm_enumnode", "", buf ? "buf" : "null"))
        return rc;
    std::vector<std::string> names;
    for (const auto &n : st.nodes)
        names.push_back(n.name);
    return enumerate(names, buf, size);
}

int32_t shmnm_getnodepri(const char *node, int32_t *pri)
{
    std::lock_guard lk(mtx);
    if (int32_t rc = enter("shmnm_getnodepri", str(node), str(node)))
        return rc;
    const auto *n = find_node(node);
    if (n == nullptr)
        return 2;
    *pri = n->pri;
    return 0;
}

int32_t shmnm_getnodestat(const char *node, int32_t *stat)
{
    std::lock_guard lk(mtx);
    if (int32_t rc = enter("shmnm_getnodestat", str(node), str(node)))
        return rc;
    const auto *n = find_node(node);
    if (n == nullptr)
        return 2;
    *stat = n->nodestat;
    return 0;
}

int32_t shmnm_getrscpri(const char *kind, const char *rsc, int32_t *pri)
{
    std::lock_guard lk(mtx);
    if (int32_t rc = enter("shmnm_getrscpri", str(rsc), join({str(kind), str(rsc)})))
        return rc;
    for (const auto &r : st.rscs)
        if (kind && rsc && r.kind == kind && r.name == rsc) {
            *pri = r.pri;
            return 0;
        }
    return 2;
}

int32_t shmnm_getrscsvstat(const char *kind, const char *rsc, int32_t nodeid, int32_t *stat)
{
    std::lock_guard lk(mtx);
    std::string subject = str(rsc) + "/" + std::to_string(nodeid);
    if (int32_t rc = enter("shmnm_getrscsvstat", subject, join({str(kind), str(rsc), std::to_string(nodeid)})))
        return rc;
    auto it = st.svstats.find(svkey(str(kind), str(rsc), nodeid));
    *stat = it == st.svstats.end() ? SHMNM_SVSTAT_UNKNOWN : it->second;
    return 0;
}

int32_t shmnm_setrscsvstat(const char *kind, const char *rsc, int32_t nodeid, int32_t stat)
{
    std::lock_guard lk(mtx);
    std::string subject = str(rsc) + "/" + std::to_string(nodeid);
    if (int32_t rc = enter("shmnm_setrscsvstat", subject,
                           join({str(kind), str(rsc), std::to_string(nodeid), std::to_string(stat)})))
        return rc;
    st.svstats[svkey(str(kind), str(rsc), nodeid)] = stat;
    return 0;
}

int32_t shmnm_setrscstat(const char *kind, const char *rsc, int32_t stat)
{
    std::lock_guard lk(mtx);
    if (int32_t rc = enter("shmnm_setrscstat", str(rsc), join({str(kind), str(rsc), std::to_string(stat)})))
        return rc;
    st.rscstats[str(kind) + "/" + str(rsc)] = stat;
    return 0;
}

int32_t shmnm_gethdstat(const char *node, int32_t *hdstat)
{
    std::lock_guard lk(mtx);
    if (int32_t rc = enter("shmnm_gethdstat", str(node), str(node)))
        return rc;
    const auto *n = find_node(node);
    if (n == nullptr)
        return 2;
    *hdstat = n->hdstat;
    return 0;
}

int32_t shmnm_setnonvolstat(int32_t stat)
{
    std::lock_guard lk(mtx);
    if (int32_t rc = enter("shmnm_setnonvolstat", "", std::to_string(stat)))
        return rc;
    st.nonvol = stat;
    return 0;
}

int32_t shmcm_attach(void)
{
    std::lock_guard lk(mtx);
    return enter("shmcm_attach", "", "");
}

int32_t shmcm_detach(void)
{
    std::lock_guard lk(mtx);
    return enter("shmcm_detach", "", "");
}

static void copy_text(char *dst, const std::string &src)
{
    std::memset(dst, 0, SHMCM_TEXT_SIZE);
    std::memcpy(dst, src.data(), std::min<size_t>(src.size(), SHMCM_TEXT_SIZE - 1));
}

int32_t shmcm_getedition(char *edition)
{
    std::lock_guard lk(mtx);
    if (int32_t rc = enter("shmcm_getedition", "", ""))
        return rc;
    copy_text(edition, st.edition);
    return 0;
}

int32_t shmcm_getversion(char *version)
{
    std::lock_guard lk(mtx);
    if (int32_t rc = enter("shmcm_getversion", "", ""))
        return rc;
    copy_text(version, st.version);
    return 0;
}

int32_t shmcm_getaction(int32_t *action, void *actinfo, void *)
{
    std::lock_guard lk(mtx);
    if (int32_t rc = enter("shmcm_getaction", "", ""))
        return rc;
    *action = st.action;
    if (actinfo)
        std::memset(actinfo, 0xA5, SHMCM_ACTINFO_SIZE); // the daemon must not rely on it
    return 0;
}

int32_t shmcm_getratio(int32_t *ratio, int32_t *second)
{
    std::lock_guard lk(mtx);
    if (int32_t rc = enter("shmcm_getratio", "", ""))
        return rc;
    *ratio = st.ratio;
    if (second)
        *second = 0;
    return 0;
}

int32_t sem_attach(void)
{
    std::lock_guard lk(mtx);
    return enter("sem_attach", "", "");
}

int32_t sem_detach(void)
{
    std::lock_guard lk(mtx);
    return enter("sem_detach", "", "");
}

int32_t sem_set_statchange(void)
{
    std::lock_guard lk(mtx);
    if (int32_t rc = enter("sem_set_statchange", "", ""))
        return rc;
    ++st.statchanges;
    return 0;
}

int32_t sem_wait_downnotify(int32_t flag)
{
    std::lock_guard lk(mtx);
    if (int32_t rc = enter("sem_wait_downnotify", "", std::to_string(flag)))
        return rc;
    return st.downnotify;
}

int32_t xmllib_init(const char *module)
{
    std::lock_guard lk(mtx);
    if (int32_t rc = enter("xmllib_init", str(module), str(module)))
        return rc;
    st.inited = true;
    return 0;
}

int32_t xmllib_term(void)
{
    std::lock_guard lk(mtx);
    st.inited = false;
    return enter("xmllib_term", "", "");
}

int32_t xmllib_load_config(void)
{
    std::lock_guard lk(mtx);
    if (int32_t rc = enter("xmllib_load_config", "", ""))
        return rc;
    st.config = true;
    return 0;
}

int32_t xmllib_unload_config(void)
{
    std::lock_guard lk(mtx);
    if (int32_t rc = enter("xmllib_unload_config", "", ""))
        return rc;
    st.config = false;
    return 0;
}

int32_t xmllib_load_policy(const char *policy)
{
    std::lock_guard lk(mtx);
    if (int32_t rc = enter("xmllib_load_policy", str(policy), str(policy)))
        return rc;
    st.policies.insert(str(policy));
    return 0;
}

int32_t xmllib_unload_policy(const char *policy)
{
    std::lock_guard lk(mtx);
    if (int32_t rc = enter("xmllib_unload_policy", str(policy), str(policy)))
        return rc;
    if (auto it = st.policies.find(str(policy)); it != st.policies.end())
        st.policies.erase(it);
    return 0;
}

int32_t xmllib_get_value(const char *key, int32_t kind, void *value, int32_t *len)
{
    std::lock_guard lk(mtx);
    if (int32_t rc = enter("xmllib_get_value", str(key),
                           join({str(key), std::to_string(kind), std::to_string(len ? *len : -1)})))
        return rc;
    auto it = key ? st.keys.find(key) : st.keys.end();
    if (it == st.keys.end() || value == nullptr || len == nullptr)
        return 2;
    if (kind == XMLLIB_KIND_INT) {
        int32_t v = 0;
        if (*len != 4 || !parse_int(it->second, &v))
            return 3;
        std::memcpy(value, &v, sizeof v);
        return 0;
    }
    if (kind == XMLLIB_KIND_TEXT) {
        if (static_cast<int32_t>(it->second.size()) + 1 > *len)
            return 4;
        std::memcpy(value, it->second.c_str(), it->second.size() + 1);
        *len = static_cast<int32_t>(it->second.size());
        return 0;
    }
    return 5;
}

int32_t xmllib_gethostname(char *buf, int32_t size)
{
    std::lock_guard lk(mtx);
    if (int32_t rc = enter("xmllib_gethostname", "", std::to_string(size)))
        return rc;
    if (static_cast<int32_t>(st.hostname.size()) + 1 > size)
        return 4;
    std::memcpy(buf, st.hostname.c_str(), st.hostname.size() + 1);
    return 0;
}

int32_t log_init(const char *name, log_hdl **handle, int32_t level, int32_t size, void *)
{
    std::lock_guard lk(mtx);
    std::string n = str(name);
    if (int32_t rc = enter("log_init", n, join({n, std::to_string(level), std::to_string(size)})))
        return rc;
    Log &obj = log_objects()[n];
    obj = {n, level, size};
    st.handles[n] = &obj;
    *handle = reinterpret_cast<log_hdl *>(&obj);
    return 0;
}

int32_t log_write(log_hdl *handle, int32_t level, int32_t msgno, const char *file, int32_t line, const char *func,
                  const char *format, ...)
{
    fake::LogRecord rec;
    rec.log = handle ? reinterpret_cast<Log *>(handle)->name : "(null)";
    rec.level = level;
    rec.msgno = msgno;
    rec.file = str(file);
    rec.line = line;
    rec.func = str(func);
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
    std::lock_guard lk(mtx);
    return enter("log_term", "", handle ? reinterpret_cast<Log *>(handle)->name : "(null)");
}

int32_t zemstorage_init(uint8_t *cntno)
{
    std::lock_guard lk(mtx);
    if (int32_t rc = enter("zemstorage_init", "", ""))
        return rc;
    *cntno = st.cntno;
    return 0;
}

int32_t zemstorage_term(void)
{
    std::lock_guard lk(mtx);
    return enter("zemstorage_term", "", "");
}

int32_t zemfw_gethbinf(void *hbinf)
{
    fake::GetHook hook;
    {
        std::lock_guard lk(mtx);
        if (int32_t rc = enter("zemfw_gethbinf", "", ""))
            return rc;
        hook = st.gethook;
    }
    return hook ? hook(hbinf) : fake::default_gethbinf(hbinf);
}

int32_t zemfw_sethbinf(uint8_t cntno, const void *hbinf)
{
    fake::SetHook hook;
    {
        std::lock_guard lk(mtx);
        if (int32_t rc = enter("zemfw_sethbinf", "", std::to_string(cntno)))
            return rc;
        hook = st.sethook;
    }
    return hook ? hook(cntno, hbinf) : fake::default_sethbinf(cntno, hbinf);
}

} // extern "C"
