#include "sim_loop.h"

#include <chrono>
#include <condition_variable>
#include <event2/event.h>
#include <event2/thread.h>
#include <mutex>
#include <set>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/time.h>
#include <thread>
#include <time.h>

struct SimTimer {
    SimLoop *loop;
    event *ev;
    std::function<void()> fn;
};

struct SimLoop {
    event_base *base;
    std::thread thread;
    std::mutex lock;             // guards timers
    std::set<SimTimer *> timers; // waiting for their time
};

static void timer_free(SimTimer *timer)
{
    event_free(timer->ev);
    delete timer;
}

static void timer_fire(evutil_socket_t, short, void *arg)
{
    SimTimer *timer = (SimTimer *)arg;
    {
        std::lock_guard<std::mutex> guard(timer->loop->lock);
        timer->loop->timers.erase(timer);
    }
    timer->fn();
    timer_free(timer);
}

SimLoop *sim_loop_start()
{
    static const int s_threads_ready = evthread_use_pthreads();
    signal(SIGPIPE, SIG_IGN); // a peer may close in the middle of an answer
    SimLoop *loop = new SimLoop;
    loop->base = event_base_new();
    if (s_threads_ready != 0 || !loop->base) {
        fprintf(stderr, "simulator: no event loop\n");
        abort();
    }
    loop->thread = std::thread([loop] { event_base_loop(loop->base, EVLOOP_NO_EXIT_ON_EMPTY); });
    return loop;
}

void sim_loop_stop(SimLoop *loop)
{
    sim_loop_after(loop, 0, [loop] { event_base_loopbreak(loop->base); });
    loop->thread.join();
    for (SimTimer *timer : loop->timers)
        timer_free(timer);
    event_base_free(loop->base);
    delete loop;
}

event_base *sim_loop_base(SimLoop *loop)
{
    return loop->base;
}

void sim_loop_call(SimLoop *loop, const std::function<void()> &fn)
{
    if (std::this_thread::get_id() == loop->thread.get_id()) {
        fn();
        return;
    }
    std::mutex lock;
    std::condition_variable done_cond;
    bool done = false;
    sim_loop_after(loop, 0, [&] {
        fn();
        std::lock_guard<std::mutex> guard(lock);
        done = true;
        done_cond.notify_one();
    });
    std::unique_lock<std::mutex> guard(lock);
    done_cond.wait(guard, [&] { return done; });
}

void sim_loop_after(SimLoop *loop, int delay_ms, std::function<void()> fn)
{
    SimTimer *timer = new SimTimer{loop, nullptr, std::move(fn)};
    timer->ev = event_new(loop->base, -1, 0, timer_fire, timer);
    const timeval delay = {delay_ms / 1000, (delay_ms % 1000) * 1000};
    std::lock_guard<std::mutex> guard(loop->lock); // the timer may fire before event_add returns
    loop->timers.insert(timer);
    event_add(timer->ev, &delay);
}

std::string sim_clock()
{
    timeval now;
    gettimeofday(&now, nullptr);
    tm local;
    time_t seconds = now.tv_sec;
    localtime_r(&seconds, &local);
    char text[64];
    snprintf(text, sizeof(text), "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min, local.tm_sec,
             (int)(now.tv_usec / 1000));
    return text;
}

long long monotonic_ms()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}
