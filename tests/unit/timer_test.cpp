#include <atomic>
#include <signal.h>

#include "runtime/timer.h"
#include "runtime/wait.h"
#include "support.h"

static std::atomic<int> s_calls, s_finished;
static std::atomic<PluginTimer *> s_argument;
static std::atomic<bool> s_block_released, s_signals_blocked;

static void on_block(PluginTimer *self)
{
    s_argument = self;
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    s_signals_blocked = sigismember(&mask, SIGINT) && sigismember(&mask, SIGTERM) && sigismember(&mask, SIGQUIT) &&
                        sigismember(&mask, SIGALRM);
    s_calls++;
    while (!s_block_released)
        wait_cadence_ms(1);
    s_finished++;
}

static bool reaches(const std::atomic<int> &count, int wanted)
{
    for (int i = 0; i < 5000 && count < wanted; i++)
        wait_cadence_ms(1);
    return count >= wanted;
}

TEST(Timer, CallbacksOverlapAndOutliveTheirTimer)
{
    static PluginTimer timer = {0, 0, 40, on_block};
    LogLines log;
    int64_t start = wait_now_ms();
    start_timer(&timer);
    char id[32];
    snprintf(id, sizeof(id), "0x%lx", (unsigned long)timer.timerid);
    EXPECT_TRUE(reaches(s_calls, 3));
    EXPECT_GE(wait_now_ms() - start, 118); // the first expiry comes after a whole period
    EXPECT_GE(timer_callbacks_running(), 3);
    EXPECT_EQ(&timer, s_argument);
    EXPECT_TRUE(s_signals_blocked);
    // The process sleeps through some: they count once.
    const int before = s_calls;
    EXPECT_EQ(0, system("(sleep 0.4; kill -CONT $PPID) & kill -STOP $PPID"));
    EXPECT_TRUE(reaches(s_calls, before + 1));
    EXPECT_LE(s_calls, before + 4);
    stop_timer(&timer); // does not wait for them
    stop_timer(&timer);
    EXPECT_EQ(0u, timer.timerid);
    EXPECT_EQ(std::string("[INF] Start timer for 'p_timer->handler', len: 0 s, 40 ms, timerid: ") + id +
                  ".\n[INF] Stop timer, timerid: " + id + ".\n",
              log.text());
    EXPECT_EQ(0, s_finished);
    s_block_released = true;
    EXPECT_TRUE(reaches(s_finished, 3));
    for (int i = 0; i < 1000 && timer_callbacks_running() > 0; i++)
        wait_cadence_ms(1);
    EXPECT_EQ(0, timer_callbacks_running());
}
