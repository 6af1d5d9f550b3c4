// dev_msg_handle.h - what the device says: results, alarms, port lists and call records go to NM, questions are
// answered, requests are carried out. Thread dev_msg_handle, one message at a time.
#pragma once

#include <stddef.h>
#include <stdint.h>

// What the device asks for and the modules above carry out. Set at start-up.
struct DevMsgCalls {
    void (*init_cfg_changed)(void);      // "init-cfg-changed"
    void (*service_report_wanted)(void); // "service-status"
};
void dev_msg_calls_set(const DevMsgCalls *calls);

// Handles one message. text is NUL-ended content in the message area of area_size bytes, which may be rewritten.
void dev_msg_dispatch(char *text, uint32_t len, uint32_t area_size);

// The message being handled has waited for NM longer than the time-outs of a post allow: in a TLS handshake that NM
// does not answer, and that only NM or a call-off ends. Any thread.
bool dev_msg_is_stuck(void);
