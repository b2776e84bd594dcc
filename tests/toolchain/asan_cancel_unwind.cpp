// A thread cancelled at pthread_testcancel under ASan, nothing of the daemon
// in it: each C++ clean-up of the forced unwinding calls ASan's no-return
// hook, which trips over the redzones the unwound frames (waitdeep) left
// poisoned (GCC 12's libasan; clang 14's likewise). Plain it fails; with
// -DCLEAR_FIRST the hook runs first from a clean-up around pthread_testcancel,
// as in hbth_cancelpoint(), and clears the stack's shadow.
#include <pthread.h>
#include <unistd.h>

#include <cstdio>

#ifdef CLEAR_FIRST
extern "C" void __asan_handle_no_return();
static void clearstack(void *) { __asan_handle_no_return(); }
#endif

static volatile int sink;

__attribute__((noinline)) static void use(char *p) { sink = sink + p[0]; }

__attribute__((noinline)) static void cancelpoint()
{
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
#ifdef CLEAR_FIRST
    pthread_cleanup_push(clearstack, nullptr);
    pthread_testcancel();
    pthread_cleanup_pop(0);
#else
    pthread_testcancel();
#endif
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}

// Many small address-taken arrays: a frame that is mostly redzones.
#define A8(n) char n##0[8], n##1[8], n##2[8], n##3[8], n##4[8], n##5[8], n##6[8], n##7[8]
#define U8(n) use(n##0), use(n##1), use(n##2), use(n##3), use(n##4), use(n##5), use(n##6), use(n##7)

__attribute__((noinline)) static void waitdeep()
{
    A8(a); A8(b); A8(c); A8(d); A8(e); A8(f); A8(g); A8(h);
    for (;;) {
        U8(a), U8(b), U8(c), U8(d), U8(e), U8(f), U8(g), U8(h);
        cancelpoint();
        usleep(1000); // cancellation off, as in the daemon's waits
    }
}

struct onexit {
    ~onexit() { sink = 1; }
};

static void *worker(void *)
{
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    onexit guard;
    waitdeep();
    return nullptr;
}

int main()
{
    pthread_t th;
    if (pthread_create(&th, nullptr, worker, nullptr) != 0)
        return 2;
    usleep(20000);
    pthread_cancel(th);
    void *ret = nullptr;
    pthread_join(th, &ret);
    std::printf("cancelled: %s\n", ret == PTHREAD_CANCELED ? "yes" : "no");
    return ret == PTHREAD_CANCELED ? 0 : 1;
}
