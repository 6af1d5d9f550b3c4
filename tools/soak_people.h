// soak_people.h - the people of the soak: browsers in the web tunnel, a terminal in the telnet tunnel, at random.
#pragma once

// Open a tunnel, use it for a while and close it, again and again, until g_soak.traffic is false. A thread of its own
// each.
void people_run_web(unsigned seed);
void people_run_telnet(unsigned seed);

// Loads size bytes through the web tunnel and checks them: all of them when there has been no fault meanwhile, else the
// first ones.
void people_download(int size, unsigned seed);

// Opens the telnet tunnel; returns when NM has sent the control message. False when that does not come.
bool people_open_telnet();
