// nm_msg_table.h - which function handles which command of NM.
#pragma once

// Registers all commands. Start-up, before any NM traffic.
void nm_msg_table_init(void);
