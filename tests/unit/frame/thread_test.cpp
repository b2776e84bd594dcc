// The toolkit's waits: each ends at once on the stop, and a cancellation
// requested before the stop takes effect there.
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "frame/thread.h"
#include "frame_test.h"

using namespace frametest;

namespace {

constexpr int32_t LONG_MS = 600 * 1000; // far longer than any test may run

struct Waits : LogTest {
    void TearDown() override { LogTest::TearDown(), hbframe_reset(); }
};

// Runs body in a thread with cancellation disabled, as a heartbeat thread
// works; returns how it ended: the body's result, or -2 when cancelled.
struct Waiter {
    std::function<int()> body;
    std::atomic<bool> inside{false};
    pthread_t th{};
    void start()
    {
        auto entry = [](void *arg) -> void * {
            auto *w = static_cast<Waiter *>(arg);
            hbth_canceloff(HBLOG_LAN);
            w->inside = true;
            return reinterpret_cast<void *>(static_cast<intptr_t>(w->body()));
        };
        ASSERT_EQ(pthread_create(&th, nullptr, entry, this), 0);
        while (!inside)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    int join()
    {
        void *ret = nullptr;
        pthread_join(th, &ret);
        return ret == PTHREAD_CANCELED ? -2 : static_cast<int>(reinterpret_cast<intptr_t>(ret));
    }
};

TEST_F(Waits, EveryWaitEndsOnTheStopAndTakesAPendingCancellation)
{
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, sv), 0);
    const std::pair<const char *, std::function<int()>> waits[] = {
        {"pause", [] { return hbwait_ms(HBLOG_LAN, LONG_MS), 0; }},
        {"socket", [&] { return hbwait_fd(HBLOG_LAN, sv[0], LONG_MS); }},
    };
    for (const auto &[name, body] : waits) {
        for (bool cancel : {false, true}) {
            SCOPED_TRACE(std::string(name) + (cancel ? " cancelled" : ""));
            hbframe_reset();
            Waiter w{body};
            w.start();
            if (cancel)
                pthread_cancel(w.th); // pending: cancellation is disabled
            hbstop_raise();
            EXPECT_EQ(w.join(), cancel ? -2 : 0);
            EXPECT_EQ(bsigrecv.load(), 1);
        }
    }
    // Without a stop the socket wait ends on a datagram.
    hbframe_reset();
    Waiter w{[&] { return hbwait_fd(HBLOG_LAN, sv[0], LONG_MS); }};
    w.start();
    ASSERT_EQ(send(sv[1], "x", 1, 0), 1);
    EXPECT_EQ(w.join(), 1);
    close(sv[0]), close(sv[1]);
}

} // namespace
