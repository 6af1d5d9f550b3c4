#include "device_sim.h"

#include <chrono>
#include <condition_variable>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <map>
#include <mutex>
#include <stdio.h>

#include "device_check.h"
#include "json_text.h"
#include "sim_loop.h"
#include "sim_socket.h"

constexpr unsigned FRAME_MAX = 11 * 1048576; // bytes; a larger length is an error of the agent

struct DeviceSim {
    DeviceOptions options; // port: the one in force
    SimLoop *loop = nullptr;

    // Loop thread only.
    evconnlistener *listener = nullptr;
    int held = -1; // the port, while the device is absent
    bufferevent *link = nullptr;
    bool reading = true;

    DeviceTranscript transcript;

    std::mutex lock; // guards everything below
    std::condition_variable changed;
    std::map<std::string, std::string> auto_answers;
    int conn_count = 0; // connections accepted so far
    bool connected = false;
};

static void say(DeviceSim *device, const std::string &line)
{
    if (device->options.print)
        device->options.print(line);
}

std::string device_frame_bytes(unsigned length, const std::string &text)
{
    std::string bytes;
    for (int shift = 0; shift < 32; shift += 8)
        bytes += (char)(length >> shift & 0xff);
    return bytes + text;
}

static bool write_now(DeviceSim *device, const std::string &bytes)
{
    return device->link && bufferevent_write(device->link, bytes.data(), bytes.size()) == 0;
}

static void link_close(DeviceSim *device, const std::string &why)
{
    if (!device->link)
        return;
    evbuffer *output = bufferevent_get_output(device->link);
    evbuffer_unfreeze(output, 1); // what was sent just before still goes out, as far as the socket takes it
    evbuffer_write(output, bufferevent_getfd(device->link));
    bufferevent_free(device->link);
    device->link = nullptr;
    say(device, "connection ended: " + why);
    std::lock_guard<std::mutex> guard(device->lock);
    device->connected = false;
    device->changed.notify_all();
}

// The scripted answer to a command, with the command's own session in it.
static std::string auto_answer(const std::string &result, const std::string &command)
{
    JsonTree answer = json_parse(result);
    JsonTree asked = json_parse(command);
    if (!answer || !asked)
        return result;
    cJSON_DeleteItemFromObjectCaseSensitive(answer.get(), "sessionid");
    cJSON_AddStringToObject(answer.get(), "sessionid", json_text(asked.get(), "sessionid").c_str());
    return json_print_plain(answer.get());
}

// Completes the record and keeps it.
static void frame_keep(DeviceSim *device, DeviceFrame frame)
{
    frame.time = sim_clock();
    frame.at_ms = monotonic_ms();
    {
        std::lock_guard<std::mutex> guard(device->lock);
        frame.conn = device->conn_count;
    }
    device->transcript.add(std::move(frame));
}

// What the rules of device_sim_auto_answer answer to a frame; "" without a rule for it.
static std::string answer_to(DeviceSim *device, const DeviceFrame &frame)
{
    std::lock_guard<std::mutex> guard(device->lock);
    const auto rule = device->auto_answers.find(frame.type);
    return rule == device->auto_answers.end() ? "" : auto_answer(rule->second, frame.text);
}

static void frame_received(DeviceSim *device, const std::string &text)
{
    DeviceFrame frame;
    frame.text = text;
    frame.wrong = device_check_frame(text, &frame.type);
    say(device, "received '" + frame.type + "' (" + std::to_string(text.size()) + " bytes, " +
                    (frame.wrong.empty() ? "all right" : "WRONG: " + frame.wrong) + "): " + json_one_line(text, 600));
    const std::string answer = answer_to(device, frame);
    frame_keep(device, std::move(frame));
    if (!answer.empty()) {
        say(device, "answering: " + json_one_line(answer, 600));
        write_now(device, device_frame_bytes((unsigned)answer.size(), answer));
    }
}

static void length_refused(DeviceSim *device, unsigned length)
{
    DeviceFrame frame;
    frame.wrong = "frame of " + std::to_string(length) + " bytes";
    frame_keep(device, frame);
    link_close(device, "WRONG: " + frame.wrong);
}

// Extracts one frame from what has come. False when there is no complete one, or no connection any more.
static bool frame_extract(DeviceSim *device)
{
    evbuffer *input = bufferevent_get_input(device->link);
    unsigned char head[4];
    if (evbuffer_copyout(input, head, sizeof(head)) < (ev_ssize_t)sizeof(head))
        return false;
    const unsigned length = head[0] | head[1] << 8 | head[2] << 16 | (unsigned)head[3] << 24;
    if (length > FRAME_MAX) {
        length_refused(device, length);
        return false;
    }
    if (evbuffer_get_length(input) < sizeof(head) + length)
        return false;
    std::string text(length, '\0');
    evbuffer_drain(input, sizeof(head));
    evbuffer_remove(input, &text[0], length);
    frame_received(device, text);
    return device->link;
}

static void on_read(bufferevent *, void *arg)
{
    while (frame_extract((DeviceSim *)arg)) {
    }
}

static void on_event(bufferevent *, short what, void *arg)
{
    if (what & (BEV_EVENT_EOF | BEV_EVENT_ERROR))
        link_close((DeviceSim *)arg, what & BEV_EVENT_EOF ? "closed by the agent" : "reset");
}

static void on_accept(evconnlistener *, int fd, sockaddr *, int, void *arg)
{
    DeviceSim *device = (DeviceSim *)arg;
    link_close(device, "another connection came");
    device->link = sim_conn_open(device->loop, fd, nullptr);
    bufferevent_setcb(device->link, on_read, nullptr, on_event, device);
    bufferevent_enable(device->link, device->reading ? EV_READ | EV_WRITE : EV_WRITE);
    say(device, "the agent has connected");
    std::lock_guard<std::mutex> guard(device->lock);
    device->conn_count++;
    device->connected = true;
    device->changed.notify_all();
}

DeviceSim *device_sim_start(const DeviceOptions &options)
{
    DeviceSim *device = new DeviceSim;
    device->options = options;
    device->loop = sim_loop_start();
    if (!device_sim_return(device)) {
        fprintf(stderr, "device_sim: port %d of %s is taken\n", options.port, options.ip.c_str());
        device_sim_stop(device);
        return nullptr;
    }
    return device;
}

void device_sim_stop(DeviceSim *device)
{
    if (!device)
        return;
    device_sim_absent(device);
    sim_loop_stop(device->loop);
    sim_hold_end(&device->held);
    delete device;
}

int device_sim_port(DeviceSim *device)
{
    return device->options.port;
}

bool device_sim_wait_connected(DeviceSim *device, int count, int timeout_ms)
{
    std::unique_lock<std::mutex> guard(device->lock);
    return device->changed.wait_for(guard, std::chrono::milliseconds(timeout_ms),
                                    [&] { return device->conn_count >= count; });
}

bool device_sim_wait_disconnected(DeviceSim *device, int timeout_ms)
{
    std::unique_lock<std::mutex> guard(device->lock);
    return device->changed.wait_for(guard, std::chrono::milliseconds(timeout_ms), [&] { return !device->connected; });
}

bool device_sim_send(DeviceSim *device, const std::string &text)
{
    return device_sim_send_raw(device, device_frame_bytes((unsigned)text.size(), text));
}

bool device_sim_send_raw(DeviceSim *device, const std::string &bytes)
{
    bool sent = false;
    sim_loop_call(device->loop, [&] { sent = write_now(device, bytes); });
    return sent;
}

static void send_byte(DeviceSim *device, const std::string &bytes, size_t at, int pause_ms)
{
    if (at < bytes.size() && write_now(device, bytes.substr(at, 1)))
        sim_loop_after(device->loop, pause_ms, [=] { send_byte(device, bytes, at + 1, pause_ms); });
}

bool device_sim_send_slowly(DeviceSim *device, const std::string &text, int pause_ms)
{
    const std::string bytes = device_frame_bytes((unsigned)text.size(), text);
    bool linked = false;
    sim_loop_call(device->loop, [&] {
        linked = device->link;
        send_byte(device, bytes, 0, pause_ms);
    });
    return linked;
}

void device_sim_auto_answer(DeviceSim *device, const std::string &type, const std::string &result)
{
    std::lock_guard<std::mutex> guard(device->lock);
    if (result.empty())
        device->auto_answers.erase(type);
    else
        device->auto_answers[type] = result;
}

void device_sim_set_reading(DeviceSim *device, bool reading)
{
    sim_loop_call(device->loop, [=] {
        device->reading = reading;
        if (device->link)
            (reading ? bufferevent_enable : bufferevent_disable)(device->link, EV_READ);
    });
}

void device_sim_drop(DeviceSim *device)
{
    sim_loop_call(device->loop, [=] { link_close(device, "dropped on purpose"); });
}

void device_sim_absent(DeviceSim *device)
{
    sim_loop_call(device->loop, [=] {
        sim_listener_close(&device->listener);
        if (device->held < 0)
            device->held = sim_hold_tcp(device->options.ip, device->options.port);
        link_close(device, "the device goes away");
    });
}

bool device_sim_return(DeviceSim *device)
{
    bool ready = false;
    sim_loop_call(device->loop, [&] {
        if (!device->listener)
            device->listener = sim_listener_open(device->loop, device->options.ip, &device->options.port,
                                                 device->options.recv_buffer, on_accept, device);
        ready = device->listener;
        sim_hold_end(&device->held);
    });
    return ready;
}

DeviceTranscript &device_sim_transcript(DeviceSim *device)
{
    return device->transcript;
}

bool device_sim_wait_for(DeviceSim *device, const std::string &type, int count, int timeout_ms)
{
    return device->transcript.wait_for(type, count, timeout_ms);
}

int device_sim_count(DeviceSim *device, const std::string &type)
{
    return device->transcript.count(type);
}

DeviceFrame device_sim_frame(DeviceSim *device, const std::string &type, int index)
{
    return device->transcript.at(type, index);
}

std::string device_sim_wrong(DeviceSim *device)
{
    return device->transcript.wrong();
}
