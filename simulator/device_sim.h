// device_sim.h - the box: its local agent on a TCP port of the loopback address, which takes the agent's connection and
// exchanges frames with it. A frame is a length (4 bytes, little-endian) and that many bytes of JSON text.
// Each frame received is checked and kept with what was wrong about it.
// Threads: each instance has a loop thread of its own; all calls below may come from any other thread.
#pragma once

#include <functional>
#include <string>
#include <vector>

struct DeviceOptions {
    std::string ip = "127.0.0.1";
    int port = 0;        // 0: any free port
    int recv_buffer = 0; // socket buffer for what comes in, bytes; 0: the system's
    std::function<void(const std::string &line)>
        print; // called on the loop thread for each event; empty: nothing is said
};

struct DeviceFrame {
    std::string type; // the "type" of its JSON; empty when there is none
    std::string text;
    std::string time;    // sim_clock() of the arrival
    long long at_ms = 0; // monotonic clock
    int conn = 0;        // which connection brought it, counted from 1
    std::string wrong;   // empty when all is right
};

struct DeviceSim;

// Starts an instance that listens. nullptr (with a message on stderr) when the port is taken.
DeviceSim *device_sim_start(const DeviceOptions &options);
void device_sim_stop(DeviceSim *device);
int device_sim_port(DeviceSim *device);

// Waits until the agent has connected for the count-th time since the start. False after timeout_ms.
bool device_sim_wait_connected(DeviceSim *device, int count, int timeout_ms);
bool device_sim_wait_disconnected(DeviceSim *device, int timeout_ms);
bool device_sim_connected(DeviceSim *device);

// Sends one frame. False without a connection. The bytes go out as fast as the agent takes them.
bool device_sim_send(DeviceSim *device, const std::string &text);
// Sends bytes as they are: lying lengths, parts of frames.
bool device_sim_send_raw(DeviceSim *device, const std::string &bytes);
// Sends one frame byte by byte, each in a send of its own, pause_ms apart. Returns at once.
bool device_sim_send_slowly(DeviceSim *device, const std::string &text, int pause_ms);
// The bytes of a frame that claims this length.
std::string device_frame_bytes(unsigned length, const std::string &text);

// Answers each frame of that type with result (JSON text); its "sessionid" is replaced by that of the frame.
// An empty result takes the rule away.
void device_sim_auto_answer(DeviceSim *device, const std::string &type, const std::string &result);

void device_sim_set_reading(DeviceSim *device, bool reading); // false: leaves what comes in the socket
void device_sim_drop(DeviceSim *device);                      // closes the connection, keeps listening
void device_sim_absent(DeviceSim *device);                    // closes it and listens no more
bool device_sim_return(DeviceSim *device);                    // listens again, on the same port

// Waits until count frames of that type have come since the start ("" for all). False after timeout_ms.
bool device_sim_wait_for(DeviceSim *device, const std::string &type, int count, int timeout_ms);
int device_sim_count(DeviceSim *device, const std::string &type);
// The index-th (from 0) frame of that type; the last one for -1. An empty record when there is none.
DeviceFrame device_sim_frame(DeviceSim *device, const std::string &type, int index);
std::vector<DeviceFrame> device_sim_frames(DeviceSim *device);
// Moves the records out, for runs of many hours; the counts above go on, everything else looks at later records only.
std::vector<DeviceFrame> device_sim_take(DeviceSim *device);
// Everything found wrong so far, one line each; empty when all was right.
std::string device_sim_wrong(DeviceSim *device);
