#include "monitor/agent_state.h"

#include <string.h>

#include "nm/nm_session.h"
#include "remote/remote_telnet.h"
#include "remote/remote_web.h"
#include "runtime/wait.h"
#include "status/service_status.h"
#include "transport/conn_registry.h"

static void session_collect(AgentState *state)
{
    AgentFacts *facts = &state->facts;
    BringUpFacts bring_up;
    device_init_facts_get(&bring_up);
    facts->failed_passes = bring_up.failed_passes;
    facts->session = bring_up.is_in_pass ? SESSION_PASS : g_init_done ? SESSION_ONLINE : SESSION_WAITING;
    state->next_pass_ms = nm_session_next_pass_ms();
    (void)text_set(facts->dma_status, dma_status_describe(facts->dma_cause));
    heartbeat_facts_get(&facts->heartbeat);
}

static void peers_collect(AgentFacts *facts)
{
    PluginInfo info;
    plugin_info_get(&info);
    (void)text_set(facts->nm_method, info.nm_method);
    (void)text_set(facts->nm_ip, info.nm_ip);
    (void)text_set(facts->nm_port, info.nm_port);
    facts->is_nm_redirected = info.nm_redirected != 0;
    facts->is_device_connected = conn_is_connected(DEV_TCP);
    (void)text_set(facts->device_ip, info.dev.remote_ip);
    (void)text_set(facts->device_port, info.dev.remote_port);
}

static void threads_collect(AgentState *state, int32_t stuck_s)
{
    state->thread_count = thread_watch_get(state->threads);
    for (int i = 0; i < state->thread_count; i++) {
        if (state->threads[i].working_ms / 1000 >= (uint32_t)stuck_s)
            (void)text_set(state->facts.stuck, state->threads[i].name);
    }
}

void agent_state_collect(AgentState *state, int32_t stuck_s)
{
    memset(state, 0, sizeof(*state)); // with the padding: facts are compared byte by byte
    state->now_ms = wait_now_ms();
    session_collect(state);
    peers_collect(&state->facts);
    remote_web_facts_get(&state->facts.web);
    remote_telnet_facts_get(&state->facts.telnet);
    nm_post_facts_get(&state->facts.posts);
    state->facts.is_service_reporting = service_status_is_enabled();
    threads_collect(state, stuck_s);
}
