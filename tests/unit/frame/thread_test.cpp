// The toolkit's waits: each ends at once on the stop, and a cancellation
// requested before the stop takes effect there.
#include <sys/socket.h>

#include <functional>

#include "unit/unit.h"

namespace {

constexpr int32_t LONG_MS = 600 * 1000; // far longer than any test may run

// Runs body in a thread with cancellation disabled, as a heartbeat thread
// works; returns how it ended: the body's result, or -2 when cancelled.
struct Waiter {
    std::function<int()> body;
    std::atomic<bool> inside{false};
    pthread_t th = unit::start(
        [](void *arg) -> void * {
            auto *w = static_cast<Waiter *>(arg);
            hbth_canceloff(HBLOG_LAN);
            w->inside = true;
            return reinterpret_cast<void *>(static_cast<intptr_t>(w->body()));
        },
        this);
    int join()
    {
        void *ret = unit::exitvalue(th);
        return ret == PTHREAD_CANCELED ? -2 : static_cast<int>(reinterpret_cast<intptr_t>(ret));
    }
};

using Waits = unit::FrameTest;

TEST_F(Waits, EveryWaitEndsOnTheStopAndTakesAPendingCancellation)
{
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, sv), 0);
    const std::function<int()> sock = [&] { return hbwait_fd(HBLOG_LAN, sv[0], LONG_MS); };
    for (const auto &[name, body] : {std::pair{"pause", std::function<int()>([] { return hbwait_ms(HBLOG_LAN, LONG_MS), 0; })},
                                     std::pair{"socket", sock}}) {
        for (bool cancel : {false, true}) {
            SCOPED_TRACE(std::string(name) + (cancel ? " cancelled" : ""));
            hbframe_reset();
            Waiter w{body};
            ASSERT_TRUE(unit::waitfor([&] { return w.inside.load(); }));
            if (cancel)
                pthread_cancel(w.th); // pending: cancellation is disabled
            hbstop_raise();
            EXPECT_EQ(w.join(), cancel ? -2 : 0);
            EXPECT_EQ(bsigrecv.load(), 1);
        }
    }
    // Without a stop the socket wait ends on a datagram.
    hbframe_reset();
    Waiter w{sock};
    ASSERT_EQ(send(sv[1], "x", 1, 0), 1);
    EXPECT_EQ(w.join(), 1);
    close(sv[0]), close(sv[1]);
}

} // namespace
