// dev_msg_recv_internal.h - for tests only.
#pragma once

// Hands at most one complete message to dev_msg_dispatch. Thread dev_msg_handle only.
void dev_msg_get(void);
