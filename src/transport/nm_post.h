// nm_post.h - posting to NM, with the identity headers: reports on the connection that is kept for them, everything
// else on a connection of its own. An answer takes 2 s at most on the kept connection, 5 s on a connection of its own;
// connecting and limits otherwise as in http_client.h.
#pragma once

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "runtime/plugin_info.h"

constexpr size_t NM_URI_SIZE = 512;

// Serialises the posts on the kept connection with their answer handling. A long lock: taken with wait_lock. Never held
// together with the lock of the device message buffer.
extern pthread_mutex_t g_nm_post_mutex;

// NM's path for a message of this device: "/dev-api/<serial number>", and a slash and tail unless tail is null.
void nm_uri_build(char (&path)[NM_URI_SIZE], const char *tail);
void nm_uri_format(char *path, size_t cap, const char *dev_sn, const char *tail);

// Posts body (not empty) to path on the kept connection, opening it when it is missing, dead, or was opened to another
// NM. What is left of earlier answers is read away before the request is sent. A time-out leaves the connection open.
// Result as http_request. Callers hold g_nm_post_mutex; any thread but main.
int http_post_nm(const char *path, const char *body, char *rsp, size_t rsp_cap);

// Posts to path on a connection of its own. Result as http_request. Any thread.
int nm_http_post(const char *path, const char *body, char *rsp, size_t rsp_cap);

// Posts a device's message on a connection of its own and logs both ways. rsp has 10240 bytes, zeroed. 1 when NM
// answered (the answer's length in *rsp_len), else 0. Any thread.
int nm_send_device_response(const char *path, const char *msg, char *rsp, size_t rsp_cap, int *rsp_len);

enum ReportType : uint32_t {
    REPORT_HEARTBEAT = 0,
    REPORT_RUN_STATUS = 1,
    REPORT_WORKING_SERVICES = 2,
    REPORT_CALL_HISTORY = 3,
};
constexpr uint32_t REPORT_TYPE_COUNT = 4;

// Posts a report on the kept connection, one at a time. 0; -1 on failure (a heartbeat: unless NM's answer was one of
// its three words). A heartbeat may run a command of NM or restart the bring-up. Any thread but main.
int tx_nms_message(uint32_t type, const char *body, size_t len);

// How the posts fare, for the state that others see; a post that a stop or restart cut short does not count. Any
// thread.
constexpr size_t POST_FAILURE_SIZE = 128;
struct PostFacts {
    uint32_t sent; // answered
    uint32_t failed;
    int64_t failed_ms;                   // the last failure, on the monotonic clock; 0: none yet
    char failure[POST_FAILURE_SIZE];     // its log line
    uint32_t reports[REPORT_TYPE_COUNT]; // answered, by type
};
void nm_post_facts_get(PostFacts *facts);

// What a heartbeat's answer leads to is decided above: NM may have a command, or want a restart. Called under
// g_nm_post_mutex with NM's answer, null when there was none; the result is that of tx_nms_message. *after, null
// before, is called once the lock is released. Set at start-up.
typedef void (*HeartbeatAfter)(void);
typedef int (*HeartbeatAnswered)(const char *answer, HeartbeatAfter *after);
void nm_post_heartbeat_answered_set(HeartbeatAnswered answered);
