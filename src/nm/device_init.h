// device_init.h - the bring-up: from a cold start, or after an outage, to online with NM.
// Failed passes are repeated after 10 s; from the fifth failure on after 30 s, from the tenth on after 120 s. Each
// fifth failure also reads config.ini again. nm_session.h has the states.
#pragma once

#include <stdint.h>

// One pass; main thread only.
void device_init_pass(void);

// How the bring-up fares, for the state that others see. Any thread.
struct BringUpFacts {
    bool is_in_pass;
    uint32_t failed_passes; // in a row
};
void device_init_facts_get(BringUpFacts *facts);

// The device says that it has changed the init cfg: forgets a redirection; then restarts the bring-up when the identity
// differs (a pass under way, which has read the old file, does not wait for the old NM any longer), takes the other
// values again when it does not. Any thread but main.
void reload_init_cfg(void);
