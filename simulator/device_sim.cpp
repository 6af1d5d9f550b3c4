#include "device_sim.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>

#include "device_check.h"
#include "json_text.h"
#include "sim_loop.h"

static const unsigned k_frame_max = 11 * 1048576; // longer lengths are lies

struct DeviceSim {
    DeviceOptions options; // port: the one in force
    SimLoop *loop = nullptr;

    // Loop thread only.
    evconnlistener *listener = nullptr;
    bufferevent *link = nullptr;
    bool reading = true;

    std::mutex lock; // guards everything below
    std::condition_variable changed;
    std::map<std::string, std::string> auto_answers;
    std::vector<DeviceFrame> frames;
    std::map<std::string, int> counts; // frames so far, by type; under "" all
    int conn_count = 0;
    bool connected = false;
};

static long long now_ms()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

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
    char *print = cJSON_PrintUnformatted(answer.get());
    std::string text = print ? print : "";
    cJSON_free(print);
    return text;
}

static void frame_keep_locked(DeviceSim *device, const DeviceFrame &frame)
{
    device->frames.push_back(frame);
    device->counts[""]++;
    if (!frame.type.empty())
        device->counts[frame.type]++;
    device->changed.notify_all();
}

static void frame_received(DeviceSim *device, const std::string &text)
{
    DeviceFrame frame;
    frame.text = text;
    frame.wrong = device_check_frame(text, &frame.type);
    frame.time = sim_clock();
    frame.at_ms = now_ms();
    say(device, "received '" + frame.type + "' (" + std::to_string(text.size()) + " bytes, " +
                    (frame.wrong.empty() ? "all right" : "WRONG: " + frame.wrong) + "): " + json_one_line(text, 600));
    std::string answer;
    {
        std::lock_guard<std::mutex> guard(device->lock);
        auto rule = device->auto_answers.find(frame.type);
        if (rule != device->auto_answers.end())
            answer = auto_answer(rule->second, text);
        frame.conn = device->conn_count;
        frame_keep_locked(device, frame);
    }
    if (!answer.empty()) {
        say(device, "answering: " + json_one_line(answer, 600));
        write_now(device, device_frame_bytes((unsigned)answer.size(), answer));
    }
}

// Takes one frame out of what has come. False when there is no whole one (or the connection is gone).
static bool frame_take(DeviceSim *device)
{
    evbuffer *input = bufferevent_get_input(device->link);
    unsigned char head[4];
    if (evbuffer_copyout(input, head, sizeof(head)) < (ev_ssize_t)sizeof(head))
        return false;
    const unsigned length = head[0] | head[1] << 8 | head[2] << 16 | (unsigned)head[3] << 24;
    if (length > k_frame_max) {
        DeviceFrame frame;
        frame.wrong = "frame of " + std::to_string(length) + " bytes";
        {
            std::lock_guard<std::mutex> guard(device->lock);
            frame_keep_locked(device, frame);
        }
        link_close(device, "WRONG: " + frame.wrong);
        return false;
    }
    if (evbuffer_get_length(input) < 4 + (size_t)length)
        return false;
    std::string text(length, '\0');
    evbuffer_drain(input, 4);
    evbuffer_remove(input, &text[0], length);
    frame_received(device, text);
    return device->link;
}

static void on_read(bufferevent *, void *arg)
{
    while (frame_take((DeviceSim *)arg)) {
    }
}

static void on_event(bufferevent *, short what, void *arg)
{
    if (what & (BEV_EVENT_EOF | BEV_EVENT_ERROR))
        link_close((DeviceSim *)arg, what & BEV_EVENT_EOF ? "closed by the agent" : "reset");
}

static void on_accept(evconnlistener *, evutil_socket_t fd, sockaddr *, int, void *arg)
{
    DeviceSim *device = (DeviceSim *)arg;
    link_close(device, "another connection came");
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    device->link = bufferevent_socket_new(sim_loop_base(device->loop), fd, BEV_OPT_CLOSE_ON_FREE);
    bufferevent_setcb(device->link, on_read, nullptr, on_event, device);
    bufferevent_enable(device->link, device->reading ? EV_READ | EV_WRITE : EV_WRITE);
    say(device, "the agent has connected");
    std::lock_guard<std::mutex> guard(device->lock);
    device->conn_count++;
    device->connected = true;
    device->changed.notify_all();
}

static bool listen_now(DeviceSim *device)
{
    if (device->listener)
        return true;
    const int fd = sim_listen_tcp(device->options.ip, &device->options.port);
    if (fd < 0)
        return false;
    if (device->options.recv_buffer > 0) // connections inherit it
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &device->options.recv_buffer, sizeof(int));
    device->listener = evconnlistener_new(sim_loop_base(device->loop), on_accept, device,
                                          LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, 0, fd);
    return device->listener;
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

bool device_sim_connected(DeviceSim *device)
{
    std::lock_guard<std::mutex> guard(device->lock);
    return device->connected;
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
        if (device->listener) {
            evconnlistener_free(device->listener);
            device->listener = nullptr;
        }
        link_close(device, "the device goes away");
    });
}

bool device_sim_return(DeviceSim *device)
{
    bool ready = false;
    sim_loop_call(device->loop, [&] { ready = listen_now(device); });
    return ready;
}

static int count_locked(DeviceSim *device, const std::string &type)
{
    const auto found = device->counts.find(type);
    return found == device->counts.end() ? 0 : found->second;
}

bool device_sim_wait_for(DeviceSim *device, const std::string &type, int count, int timeout_ms)
{
    std::unique_lock<std::mutex> guard(device->lock);
    return device->changed.wait_for(guard, std::chrono::milliseconds(timeout_ms),
                                    [&] { return count_locked(device, type) >= count; });
}

int device_sim_count(DeviceSim *device, const std::string &type)
{
    std::lock_guard<std::mutex> guard(device->lock);
    return count_locked(device, type);
}

DeviceFrame device_sim_frame(DeviceSim *device, const std::string &type, int index)
{
    DeviceFrame found;
    for (const DeviceFrame &frame : device_sim_frames(device)) {
        if (type.empty() || frame.type == type) {
            found = frame;
            if (index-- == 0)
                return found;
        }
    }
    return index < 0 ? found : DeviceFrame();
}

std::vector<DeviceFrame> device_sim_frames(DeviceSim *device)
{
    std::lock_guard<std::mutex> guard(device->lock);
    return device->frames;
}

std::vector<DeviceFrame> device_sim_take(DeviceSim *device)
{
    std::lock_guard<std::mutex> guard(device->lock);
    std::vector<DeviceFrame> taken;
    taken.swap(device->frames);
    return taken;
}

std::string device_sim_wrong(DeviceSim *device)
{
    std::string wrong;
    for (const DeviceFrame &frame : device_sim_frames(device)) {
        if (!frame.wrong.empty())
            wrong += frame.time + " frame '" + frame.type + "': " + frame.wrong + "\n";
    }
    return wrong;
}
