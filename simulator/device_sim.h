// device_sim.h - the device side: a TCP port on loopback that takes the agent's connection and exchanges frames with
// it. A frame is a length (4 bytes, little-endian) and that many bytes of JSON text. Each frame received is checked and
// recorded with what is wrong with it.
// Threads: each instance has a loop thread of its own; all calls below are for other threads.
#pragma once

#include <string>

#include "sim_loop.h"
#include "transcript.h"

struct DeviceOptions {
    std::string ip = "127.0.0.1";
    int port = 0;        // 0: any free port
    int recv_buffer = 0; // SO_RCVBUF of the agent's connection, bytes; 0: the system's default
    SimPrint print;
};

struct DeviceFrame {
    std::string type; // the "type" of its JSON; empty when there is none
    std::string text;
    std::string time;    // sim_clock() of the arrival
    long long at_ms = 0; // monotonic_ms() of the arrival
    int conn = 0;        // the connection that brought it, counted from 1
    std::string wrong;   // what is wrong with it; empty when nothing is
};

using DeviceTranscript = Transcript<DeviceFrame, &DeviceFrame::type>;

struct DeviceSim;

// Starts an instance that listens. nullptr (with a message on stderr) when the port is taken.
DeviceSim *device_sim_start(const DeviceOptions &options);
void device_sim_stop(DeviceSim *device); // closes everything and frees it; nullptr is allowed
int device_sim_port(DeviceSim *device);

// Waits until the agent has connected count times since the start. False after timeout_ms.
bool device_sim_wait_connected(DeviceSim *device, int count, int timeout_ms);
bool device_sim_wait_disconnected(DeviceSim *device, int timeout_ms);

// Queues one frame for sending and returns. False without a connection.
bool device_sim_send(DeviceSim *device, const std::string &text);
// The same for bytes as they are, such as a part of a frame or one with a false length.
bool device_sim_send_raw(DeviceSim *device, const std::string &bytes);
// Sends one frame byte by byte, pause_ms apart. Returns at once.
bool device_sim_send_slowly(DeviceSim *device, const std::string &text, int pause_ms);
// A frame's bytes, with this length in front whatever the text's own.
std::string device_frame_bytes(unsigned length, const std::string &text);

// Answers each frame of that type with result (JSON text), its "sessionid" replaced by that of the frame. An empty
// result removes the rule.
void device_sim_auto_answer(DeviceSim *device, const std::string &type, const std::string &result);

void device_sim_set_reading(DeviceSim *device, bool reading); // false: leaves what arrives in the socket
void device_sim_drop(DeviceSim *device);                      // closes the connection, keeps listening
void device_sim_absent(DeviceSim *device);                    // closes the connection and the listener
bool device_sim_return(DeviceSim *device);                    // listens again on the same port; false when it is taken

// The frames received; the instance owns the transcript.
DeviceTranscript &device_sim_transcript(DeviceSim *device);
// The transcript's calls of these names, with the type as name.
bool device_sim_wait_for(DeviceSim *device, const std::string &type, int count, int timeout_ms);
int device_sim_count(DeviceSim *device, const std::string &type);
DeviceFrame device_sim_frame(DeviceSim *device, const std::string &type, int index);
std::string device_sim_wrong(DeviceSim *device);
