// The toolkit's waits: each ends at once on the stop, a cancellation
// requested before the stop takes effect there, and each shows the waiting
// thread's progress, whose end is told however the thread ends.
#include <sys/socket.h>

#include <functional>

#include "unit/unit.h"

namespace {

constexpr int32_t LONG_MS = 600 * 1000; // far longer than any test may run

// Runs wait in a thread with cancellation disabled, as a heartbeat thread
// works; the thread ends with the wait's result.
struct Waiter {
    std::function<int()> wait;
    std::atomic<bool> inside{false};
    pthread_t th = unit::start(
        [](void *arg) -> void * {
            auto *w = static_cast<Waiter *>(arg);
            const hbth_progress shown(HBEXT_TH_CNTWRITE, 1000, 4000);
            hbth_canceloff(HBLOG_LAN);
            w->inside = true;
            return reinterpret_cast<void *>(static_cast<intptr_t>(w->wait()));
        },
        this);
};

using Waits = unit::FrameTest;

TEST_F(Waits, EveryWaitEndsOnTheStopAndTakesAPendingCancellation)
{
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, sv), 0);
    const std::pair<const char *, std::function<int()>> waits[] = {
        {"pause", [] { return hbwait_ms(HBLOG_LAN, LONG_MS), 0; }},
        {"socket", [&] { return hbwait_fd(HBLOG_LAN, sv[0], LONG_MS); }}};
    for (const auto &[name, body] : waits) {
        for (bool cancel : {false, true}) {
            SCOPED_TRACE(std::string(name) + (cancel ? " cancelled" : ""));
            hbframe_reset();
            const fake::Progress before = fake::progress(HBEXT_TH_CNTWRITE);
            Waiter w{body};
            ASSERT_TRUE(unit::waitfor([&] { return w.inside.load(); }));
            if (cancel)
                pthread_cancel(w.th); // pending: cancellation is disabled
            hbstop_raise();
            EXPECT_EQ(unit::exitvalue(w.th), cancel ? PTHREAD_CANCELED : nullptr);
            EXPECT_EQ(bsigrecv.load(), 1);
            const fake::Progress p = fake::progress(HBEXT_TH_CNTWRITE);
            EXPECT_EQ(std::tuple(p.starts - before.starts, p.stamps - before.stamps, p.ends - before.ends, p.hbint, p.hbto),
                      std::tuple(1, 1, 1, 1000, 4000));
        }
    }
    close(sv[0]), close(sv[1]);
}

// Past a second the seconds carry: a pause lasts its time, not twice it.
TEST_F(Waits, PausePastASecondLastsItsTime)
{
    const int64_t ms = unit::took_ms([] { hbwait_ms(HBLOG_LAN, 1050); });
    EXPECT_TRUE(ms >= 1050 && ms < 2000) << ms;
}

} // namespace
