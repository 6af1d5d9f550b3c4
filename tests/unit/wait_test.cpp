#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

#include "runtime/stop.h"
#include "runtime/stop_internal.h"
#include "runtime/wait.h"

static std::atomic<int> s_sequence_runs;
static std::atomic<int> s_sequence_status{-7};

static void note_sequence(int status)
{
    s_sequence_runs++;
    s_sequence_status = status;
}

static int64_t time_of(const std::function<void()> &action)
{
    int64_t start = wait_now_ms();
    action();
    return wait_now_ms() - start;
}

TEST(Wait, Results)
{
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    int64_t took = time_of([&] { EXPECT_EQ(WAIT_TIMEOUT, wait_fd(ends[0], POLLIN, 60)); });
    EXPECT_GE(took, 59);
    close(ends[1]);
    struct pollfd both[] = {{0, POLLIN, 0}, {ends[0], POLLIN, 0}};
    EXPECT_EQ(WAIT_READY, wait_fds(both, 2, 1000)); // an end is something to read
    EXPECT_EQ(0, both[0].revents);                  // 0 counts as none, whatever stands behind it
    EXPECT_EQ(WAIT_ERROR, wait_fds(both, 13, 0));
    close(ends[0]);
}

// Every kind of wait on another thread ends at once with the request, those that begin later too; none runs the
// closing sequence.
TEST(Wait, StopCutsAllWaits)
{
    static pthread_mutex_t s_mutex = PTHREAD_MUTEX_INITIALIZER;
    static WaitBell s_bell;
    ASSERT_EQ(0, stop_init(note_sequence));
    ASSERT_EQ(0, wait_bell_init(&s_bell));
    pthread_mutex_lock(&s_mutex);
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    const std::function<WaitResult()> k_waits[] = {
        [&] { return wait_fd(ends[0], POLLIN, -1); },
        [] { return wait_sleep_ms(60000); },
        [] { return wait_bell(&s_bell, -1); },
        [] { return wait_lock(&s_mutex); },
    };
    std::atomic<int> cut{0};
    std::thread threads[4];
    for (int i = 0; i < 4; i++)
        threads[i] = std::thread([&, i] {
            for (int turn = 0; turn < 2; turn++)
                cut += k_waits[i]() == WAIT_CUT;
        });
    wait_cadence_ms(50);
    EXPECT_EQ(0, cut);
    int64_t took = time_of([&] {
        stop_request(15);
        for (std::thread &thread : threads)
            thread.join();
    });
    EXPECT_EQ(8, cut);
    EXPECT_LT(took, 1000);
    EXPECT_EQ(0, s_sequence_runs);
    pthread_mutex_unlock(&s_mutex);
    stop_reset_for_test();
}

TEST(Wait, CallOffCutsItsThreadOnly)
{
    static std::atomic<uint32_t> s_counter{3};
    ASSERT_EQ(0, stop_init(note_sequence));
    CallOff before = wait_call_off_set({&s_counter, 3});
    EXPECT_EQ(nullptr, before.counter);
    EXPECT_EQ(WAIT_TIMEOUT, wait_sleep_ms(70)); // longer than a slice
    std::thread caller([] {
        wait_cadence_ms(30);
        s_counter++;
        EXPECT_EQ(WAIT_TIMEOUT, wait_sleep_ms(1)); // has no call-off of its own
    });
    EXPECT_LT(time_of([] { EXPECT_EQ(WAIT_CUT, wait_sleep_ms(10000)); }), 2000);
    EXPECT_TRUE(wait_is_cut());
    EXPECT_EQ(0, s_sequence_runs); // called off is not stopped
    caller.join();

    CallOff outer = {&s_counter, s_counter}; // work within work ends with either
    static std::atomic<uint32_t> s_inner{0};
    wait_call_off_set({&s_inner, 0, &outer});
    EXPECT_FALSE(wait_is_cut());
    s_counter++;
    EXPECT_TRUE(wait_is_cut());
    wait_call_off_set({&s_inner, 1});
    EXPECT_TRUE(wait_is_cut());
    wait_call_off_set(before);
    EXPECT_FALSE(wait_is_cut());
}

// Main quits where it waits, but not between taking a long lock and letting it go.
TEST(Stop, MainQuitsAtWaitsWithoutALock)
{
    static pthread_mutex_t s_mutex = PTHREAD_MUTEX_INITIALIZER;
    ASSERT_EQ(0, stop_init(note_sequence));
    stop_quit_point();
    EXPECT_EQ(0, s_sequence_runs);
    ASSERT_EQ(WAIT_READY, wait_lock(&s_mutex));
    EXPECT_EQ(-1, stop_status());
    stop_request(0);  // 0 is a status like any other
    stop_request(15); // and the first one holds
    EXPECT_EQ(0, stop_status());
    EXPECT_EQ(WAIT_CUT, wait_sleep_ms(10));
    EXPECT_EQ(0, s_sequence_runs);
    wait_unlock(&s_mutex);
    EXPECT_EQ(WAIT_CUT, wait_sleep_ms(10));
    EXPECT_EQ(1, s_sequence_runs);
    EXPECT_EQ(0, s_sequence_status);
    EXPECT_EQ(WAIT_CUT, wait_sleep_ms(10)); // the sequence's own waits do not start it again
    EXPECT_EQ(1, s_sequence_runs);
    stop_reset_for_test();
}
