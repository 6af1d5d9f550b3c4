#include "monitor/monitor.h"

#include <stdlib.h>
#include <string.h>

#include "monitor/agent_state.h"
#include "monitor/notify.h"
#include "monitor/state_file.h"
#include "runtime/log.h"
#include "runtime/options.h"
#include "runtime/text.h"
#include "runtime/wait.h"

constexpr int TURN_MS = 1000;
constexpr int REPEAT_MS = 10000; // of the file and the ping, however little happens
constexpr int STOPPED_PAUSE_MS = 10;

// All of the monitor's thread, but for the options, which main sets before.
static MonitorOptions s_options;
static int64_t s_begin_ms;
static AgentState s_state; // of this turn
static AgentFacts s_written;
static int64_t s_written_ms; // 0: never
static int64_t s_pinged_ms;  // 0: never
static char s_told[AGENT_LINE_SIZE];
static bool s_is_stopped;

bool monitor_is_wanted(void)
{
    Options options;
    options_get(&options);
    s_options = options.monitor;
    s_begin_ms = wait_now_ms();
    return s_options.state_file[0] || s_options.notify_socket[0];
}

static void state_write(void)
{
    bool is_due = s_written_ms == 0 || s_state.now_ms - s_written_ms >= REPEAT_MS;
    // Both were zeroed with their padding.
    // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison,cert-exp42-c,cert-flp37-c)
    if (!is_due && memcmp(&s_written, &s_state.facts, sizeof(s_written)) == 0)
        return;
    char *text = agent_state_json(&s_state, s_begin_ms);
    if (text)
        state_file_replace(s_options.state_file, text);
    free(text);
    memcpy(&s_written, &s_state.facts, sizeof(s_written));
    s_written_ms = s_state.now_ms;
}

// What fails is tried again in the next turn.
static void supervisor_tell(void)
{
    char line[AGENT_LINE_SIZE];
    char message[AGENT_LINE_SIZE + 32];
    agent_state_line(&s_state.facts, line);
    bool is_first = s_told[0] == '\0';
    if (strcmp(line, s_told) != 0) {
        (void)text_fmt(message, "%sSTATUS=%s", is_first ? "READY=1\n" : "", line);
        if (notify_send(s_options.notify_socket, message) == 0)
            (void)text_set(s_told, line);
    }
    bool is_due = s_pinged_ms == 0 || s_state.now_ms - s_pinged_ms >= REPEAT_MS;
    if (is_due && !s_state.facts.stuck[0] && notify_send(s_options.notify_socket, "WATCHDOG=1") == 0)
        s_pinged_ms = s_state.now_ms;
}

static void stuck_log(const char *stuck_before)
{
    const char *stuck = s_state.facts.stuck;
    if (stuck[0] && strcmp(stuck, stuck_before) != 0)
        log_error("Thread %s has been in one unit of work for more than %d s!", stuck, s_options.stuck_s);
}

static void look(void)
{
    char stuck_before[WATCHED_NAME_SIZE];
    (void)text_set(stuck_before, s_state.facts.stuck);
    agent_state_collect(&s_state, s_options.stuck_s);
    stuck_log(stuck_before);
    if (s_options.state_file[0])
        state_write();
    if (s_options.notify_socket[0])
        supervisor_tell();
}

static void stop(void)
{
    if (s_options.state_file[0])
        state_file_remove(s_options.state_file);
    if (s_options.notify_socket[0])
        (void)notify_send(s_options.notify_socket, "STOPPING=1");
    s_is_stopped = true;
}

void monitor_turn(void)
{
    if (!wait_is_cut())
        look();
    if (wait_sleep_ms(TURN_MS) != WAIT_CUT)
        return;
    if (!s_is_stopped)
        stop();
    wait_cadence_ms(STOPPED_PAUSE_MS);
}
