#include "transport/nm_wait.h"

std::atomic<uint32_t> g_restart_count{0};

CallOff nm_wait_begin(void)
{
    return wait_call_off_set({&g_restart_count, g_restart_count});
}

void nm_waits_call_off(void)
{
    CallOff own = wait_call_off_set({nullptr, 0});
    g_restart_count++;
    if (own.counter == &g_restart_count)
        own.value++;
    wait_call_off_set(own);
}
