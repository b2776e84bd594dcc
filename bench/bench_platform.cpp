// What one heartbeat cycle costs on the stand-alone platform: publishing a
// state, the wake-up post, a log record, a controller slot written durably
// and all slots read back (p50 and p99 of single operations, on a file with
// and without direct I/O and on a loop device), and a LAN heartbeat accepted
// with and without the key. Runs on a throw-away root under /tmp.
//
//   build/release/bench/bench_platform [--benchmark_filter=...]
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "cnthb/cnthb.h"
#include "frame/frame.h"
#include "lanhb/key.h"
#include "lanhb/lanhb.h"
#include "loopdev.h"
#include "plat.h"
#include "services/services.h"

namespace fs = std::filesystem;

namespace {

// A root with the example cluster, fresh shared memory and an area file.
class BenchRoot {
public:
    BenchRoot()
    {
        char tmpl[] = "/tmp/zembench.XXXXXX";
        if (mkdtemp(tmpl) == nullptr)
            die("mkdtemp");
        root_ = tmpl;
        fs::create_directories(root_ / "etc");
        fs::copy_file(fs::path(ZEM_EXAMPLES) / "cluster.xml", root_ / "etc/cluster.xml");
        fs::copy_file(fs::path(ZEM_EXAMPLES) / "local-node1.xml", root_ / "etc/local.xml");
        setenv("ZEM_ROOT", root_.c_str(), 1);

        plat_cluster cl;
        std::vector<std::string> errors, notes;
        std::string err;
        plat_local local;
        if (plat_load_cluster(cl, errors, notes) != 0 || plat_shm_create(cl, err) != 0 ||
            plat_load_local(local, err) != 0 || plat_area_create(local.area, err) != 0)
            die("setting up the platform: " + err + (errors.empty() ? "" : errors.front()));
        if (xmllib_init("lanhb") != 0 || xmllib_load_config() != 0)
            die("configuration: " + plat_lasterror());
        if (sem_attach() != 0 || shmcm_attach() != 0 || shmnm_attach() != 0)
            die("attach");
        if (zemstorage_init(&cnthb_mycntno) != 0)
            die("storage: " + plat_lasterror());
        tckconf = sysconf(_SC_CLK_TCK);
        loginit();
    }
    ~BenchRoot()
    {
        logterm();
        zemstorage_term();
        std::error_code ec;
        fs::remove_all(root_, ec);
    }

private:
    [[noreturn]] static void die(const std::string &what)
    {
        std::cerr << "bench_platform: " << what << "\n";
        std::exit(1);
    }
    fs::path root_;
};

BenchRoot &root()
{
    static BenchRoot r;
    return r;
}

void BM_PublishNodeState(benchmark::State &state)
{
    root();
    int32_t stat = 0;
    for (auto _ : state) {
        shmnm_setrscsvstat(HB_KIND_LANHB, "lan1", 1, SHMNM_SVSTAT_ONLINE);
        shmnm_getrscsvstat(HB_KIND_LANHB, "lan1", 1, &stat);
    }
    benchmark::DoNotOptimize(stat);
}
BENCHMARK(BM_PublishNodeState);

void BM_StateChangePost(benchmark::State &state)
{
    root();
    for (auto _ : state)
        sem_set_statchange();
}
BENCHMARK(BM_StateChangePost);

// One record as the heartbeat threads write them: formatted by hblog and
// appended to the LAN log.
void BM_LogRecord(benchmark::State &state)
{
    root();
    for (auto _ : state)
        HBLOG(HBLOG_LAN, 1, " *** %s/node(%s(%d)) : ONLINE ***", "lan1", "node2", 1);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LogRecord)->Threads(1)->Threads(2);

// The delay check every send and receive makes (nothing written: the
// elapsed time is below the threshold).
void BM_DelayCheck(benchmark::State &state)
{
    root();
    for (auto _ : state)
        delaywarn(1, "lan1", "node2", 100, 101, 10000, LOG_MSG_LANSEND);
}
BENCHMARK(BM_DelayCheck);

// The controller's heartbeat area for the two benchmarks below. Arg 0: a
// file on the file system under /tmp through the page cache, as where direct
// I/O is refused; arg 1: the same file with direct I/O; arg 2: a loop device
// over such a file with direct I/O, a real block device as a shared disk is
// (needs root).
bool use_area(benchmark::State &state)
{
    static int64_t current = -1;
    static std::unique_ptr<ptest::LoopDev> loop;
    if (state.range(0) == current)
        return true;
    const std::string dir = std::getenv("ZEM_ROOT");
    std::string area = dir + "/run/hbarea", cluster, err;
    if (state.range(0) == 2) {
        if (!loop) {
            std::ofstream(dir + "/lun.img").close();
            fs::resize_file(dir + "/lun.img", 1 << 20);
            loop = std::make_unique<ptest::LoopDev>(dir + "/lun.img");
            if (!loop->path.empty() && (plat_cluster_name(cluster, err) != 0 ||
                                       plat_area_format(loop->path, cluster, false, err) != 0)) {
                state.SkipWithError(("formatting the loop device: " + err).c_str());
                return false;
            }
        }
        if (loop->path.empty()) {
            state.SkipWithError(("no loop device: " + loop->why).c_str());
            return false;
        }
        area = loop->path;
    }
    std::ofstream(dir + "/etc/local.xml") << "<local><hostname>node1</hostname><storage><area>" << area
                                          << "</area><controller>0</controller></storage></local>";
    plat_area_direct(state.range(0) != 0);
    if (zemstorage_init(&cnthb_mycntno) != 0) {
        state.SkipWithError(("storage: " + plat_lasterror()).c_str());
        return false;
    }
    current = state.range(0);
    return true;
}

double percentile(const std::vector<double> &v, double p)
{
    std::vector<double> s = v;
    std::sort(s.begin(), s.end());
    return s.empty() ? 0 : s[std::min(s.size() - 1, static_cast<size_t>(p * static_cast<double>(s.size())))];
}

// One write or read per repetition, so that the spread shows: p50 and p99
// of single operations.
void per_operation(benchmark::internal::Benchmark *b)
{
    b->Arg(0)->Arg(1)->Arg(2)->Iterations(1)->Repetitions(2000)->ReportAggregatesOnly(true)->UseRealTime();
    b->ComputeStatistics("p50", [](const std::vector<double> &v) { return percentile(v, 0.50); });
    b->ComputeStatistics("p99", [](const std::vector<double> &v) { return percentile(v, 0.99); });
}

// A controller heartbeat write is durable (synchronous I/O): its latency is
// what bounds the controller write cycle.
void BM_ControllerWrite(benchmark::State &state)
{
    root();
    if (!use_area(state))
        return;
    unsigned char rec[ZEMFW_HBINF_SIZE] = "cnthb";
    for (auto _ : state)
        zemfw_sethbinf(cnthb_mycntno, rec);
}
BENCHMARK(BM_ControllerWrite)->Apply(per_operation);

void BM_ControllerReadAll(benchmark::State &state)
{
    root();
    if (!use_area(state))
        return;
    static unsigned char area[ZEMFW_HBSLOTS * ZEMFW_HBINF_SIZE];
    for (auto _ : state)
        zemfw_gethbinf(area);
}
BENCHMARK(BM_ControllerReadAll)->Apply(per_operation);

// Heartbeats of the own node over the loopback through what the receiver
// does with each: receive, accept (with the key: freshness, window, code;
// the socket filter attached) and evaluate. Batches are sent untimed
// beforehand, so items_per_second is the rate one receiver thread accepts,
// per second of its own CPU time: what other work loads the machine with
// does not change the figure.
// Arg: 0 = no key, one datagram per receive call as the unkeyed receiver
// takes them; 1 = keyed, the same; 2 = keyed, in batches as the keyed
// receiver takes them.
void BM_AcceptDatagram(benchmark::State &state)
{
    root();
    static lanhb_list *list = [] {
        lanhb_list *l = nullptr;
        if (lanhb_loadinfo(&l) != 0)
            std::exit(1);
        return l;
    }();
    const unsigned char key[LANHB_KEY_SIZE] = {42};
    const bool keyed = state.range(0) != 0, batched = state.range(0) == 2;
    lanhb_keyset(keyed ? key : nullptr);
    const size_t plain = lanhb_pktlen(list->maxnode), wire = lanhb_wirelen(list->maxnode);

    const int rx = socket(AF_INET, SOCK_DGRAM, 0), tx = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    if (bind(rx, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0 ||
        getsockname(rx, reinterpret_cast<sockaddr *>(&sa), &len) != 0)
        std::exit(1);
    lanhb_socksetup(list, rx);
    lanhb_refusedstart(rx);
    std::vector<unsigned char> out(wire), in(wire + 1);
    auto *pkt = reinterpret_cast<lanhb_packet *>(out.data());
    lanhb_pktinit(pkt, list, LANHB_TAG_HB);
    lanhb_pktrsc(pkt, lanhb_rscat(list, 0));
    std::unique_ptr<lanhb_batch, void (*)(lanhb_batch *)> b(lanhb_batchnew(wire), lanhb_batchfree);
    hbtick_t maxrecv = 0;
    constexpr int BATCH = 1000;
    int64_t received = 0;
    for (auto _ : state) {
        state.PauseTiming();
        for (int i = 0; i < BATCH; ++i)
            sendto(tx, out.data(), lanhb_keyseal(pkt, plain), 0, reinterpret_cast<sockaddr *>(&sa), sizeof sa);
        state.ResumeTiming();
        for (int got = 0; got < BATCH && batched; got += lanhb_recvbatch(list, b.get(), rx, false, &maxrecv))
            ;
        for (int i = 0; i < BATCH && !batched; ++i) {
            sockaddr_in from{};
            socklen_t fl = sizeof from;
            const ssize_t n = recvfrom(rx, in.data(), wire, keyed ? MSG_TRUNC : 0, reinterpret_cast<sockaddr *>(&from), &fl);
            lanhb_rsc *rsc = nullptr;
            lanhb_node *node = nullptr;
            auto *got = reinterpret_cast<lanhb_packet *>(in.data());
            const int32_t why = lanhb_accept(list, got, n, wire, reinterpret_cast<sockaddr *>(&from), false, &rsc, &node);
            if (why == 0)
                lanhb_hbdata(list, rsc, node, got);
            else
                lanhb_refused(why, reinterpret_cast<sockaddr *>(&from));
        }
        received += BATCH;
    }
    uint64_t refused[HBEXT_REFUSED_COUNT] = {};
    plat_getrefused(refused);
    uint64_t nrefused = 0;
    for (uint64_t r : refused)
        nrefused += r;
    state.SetItemsProcessed(received - static_cast<int64_t>(nrefused));
    state.counters["refused"] = static_cast<double>(nrefused);
    close(rx);
    close(tx);
    lanhb_keyset(nullptr);
}
BENCHMARK(BM_AcceptDatagram)->Arg(0)->Arg(1)->Arg(2);

} // namespace

BENCHMARK_MAIN();
