#include "nm_serve.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <netinet/in.h>
#include <unistd.h>

#include "nm_check.h"
#include "nm_http.h"
#include "nm_record.h"
#include "nm_reply.h"
#include "sim_socket.h"

constexpr int SECOND_SEGMENT_MS = 30; // between the two parts of an answer in two segments

struct NmConn {
    NmSim *nm;
    int id; // counted from 1
    bufferevent *bev;
};

static void conn_close(NmConn *conn, bool reset)
{
    conn->nm->conns.erase(conn->id);
    sim_conn_close(conn->bev, reset);
    delete conn;
}

// One write call, so one segment (or one TLS record) for up to 16 KB. The connection may have ended by then.
static void conn_write_later(NmSim *nm, int id, int delay_ms, const std::string &bytes)
{
    sim_loop_after(nm->loop, delay_ms, [nm, id, bytes] {
        auto found = nm->conns.find(id);
        if (found != nm->conns.end())
            bufferevent_write(found->second->bev, bytes.data(), bytes.size());
    });
}

static void conn_answer(NmConn *conn, const NmReply &reply)
{
    if (reply.close) {
        conn_close(conn, false);
        return;
    }
    if (!reply.bytes.empty() && reply.delay_ms == 0)
        bufferevent_write(conn->bev, reply.bytes.data(), reply.bytes.size());
    else if (!reply.bytes.empty())
        conn_write_later(conn->nm, conn->id, reply.delay_ms, reply.bytes);
    if (!reply.second.empty())
        conn_write_later(conn->nm, conn->id, reply.delay_ms + SECOND_SEGMENT_MS, reply.second);
}

static std::string bytes_of(evbuffer *input)
{
    const size_t length = evbuffer_get_length(input);
    const char *bytes = (const char *)evbuffer_pullup(input, -1);
    return bytes ? std::string(bytes, length) : "";
}

// The reply is decided before the request is recorded: when a waiting thread finds the record, the fault is spent.
static bool conn_serve(NmConn *conn, const HttpRequest &http, NmRequest *request)
{
    NmSim *nm = conn->nm;
    request->name = nm_request_name(http.path);
    request->serial = nm_request_serial(http.path);
    request->wrong =
        nm_check_request(http, nm->options.ip + ":" + std::to_string(nm->options.port), nm->options.serial);
    NmReply reply;
    {
        std::lock_guard<std::mutex> guard(nm->lock);
        reply = nm_reply_request_locked(nm, request->name, http);
    }
    request->on_purpose = reply.on_purpose;
    nm_record(nm, *request, reply.shown);
    conn_answer(conn, reply);
    return !reply.close;
}

// Extracts and serves one request. False when there is no complete one, or no connection any more.
static bool conn_serve_next(NmConn *conn)
{
    evbuffer *input = bufferevent_get_input(conn->bev);
    HttpRequest http;
    NmRequest request;
    const int length = http_request_cut(bytes_of(input), &http, &request.wrong);
    if (length == 0)
        return false;
    request.line = http.line;
    request.headers = http.headers;
    request.body = http.body;
    request.conn = conn->id;
    if (length < 0) {
        request.name = "?";
        nm_record(conn->nm, request, "connection closed");
        conn_close(conn, false);
        return false;
    }
    evbuffer_drain(input, (size_t)length);
    return conn_serve(conn, http, &request);
}

static void on_read(bufferevent *, void *arg)
{
    while (conn_serve_next((NmConn *)arg)) {
    }
}

static void on_event(bufferevent *, short what, void *arg)
{
    if (what & (BEV_EVENT_EOF | BEV_EVENT_ERROR))
        conn_close((NmConn *)arg, false);
}

// Counts the connection; *fault: the one in force for new connections.
static NmConn *conn_new(NmSim *nm, NmFaultKind *fault)
{
    std::lock_guard<std::mutex> guard(nm->lock);
    *fault = nm_fault_take_locked(nm, "accept").kind;
    nm->changed.notify_all();
    return new NmConn{nm, ++nm->conn_count, nullptr};
}

static void on_accept(evconnlistener *, int fd, sockaddr *, int, void *arg)
{
    NmSim *nm = (NmSim *)arg;
    NmFaultKind fault;
    NmConn *conn = conn_new(nm, &fault);
    nm->conns[conn->id] = conn;
    if (fault == NM_FAULT_SILENCE) { // nobody reads, so not even a TLS handshake is answered
        conn->bev = sim_conn_open(nm->loop, fd, nullptr);
        nm_say(nm, "connection " + std::to_string(conn->id) + " accepted and left alone on purpose");
        return;
    }
    conn->bev = sim_conn_open(nm->loop, fd, nm->ssl_context);
    bufferevent_setcb(conn->bev, on_read, nullptr, on_event, conn);
    bufferevent_enable(conn->bev, EV_READ | EV_WRITE);
}

static void drop_all(NmSim *nm, bool reset)
{
    while (!nm->conns.empty())
        conn_close(nm->conns.begin()->second, reset);
}

void nm_serve_drop(NmSim *nm)
{
    drop_all(nm, true);
}

static void udp_send(NmSim *nm, const sockaddr_in &to, const NmReply &reply)
{
    const int fd = reply.stranger ? nm->udp_stranger : nm->udp;
    for (int i = 0; i < (reply.twice ? 2 : 1) && fd >= 0; i++)
        (void)sendto(fd, reply.bytes.data(), reply.bytes.size(), 0, (const sockaddr *)&to, sizeof(to));
}

static void on_datagram(evutil_socket_t fd, short, void *arg)
{
    NmSim *nm = (NmSim *)arg;
    char buffer[2048];
    sockaddr_in from = {};
    socklen_t from_len = sizeof(from);
    const ssize_t length = recvfrom(fd, buffer, sizeof(buffer), 0, (sockaddr *)&from, &from_len);
    if (length < 0)
        return; // an ICMP error of an earlier answer
    NmRequest request;
    request.name = "udp";
    request.body.assign(buffer, (size_t)length);
    request.serial = nm_datagram_serial(request.body);
    request.wrong = nm_check_datagram(request.body, nm->options.serial);
    NmReply reply;
    {
        std::lock_guard<std::mutex> guard(nm->lock);
        reply = nm_reply_datagram_locked(nm, request.serial);
    }
    request.on_purpose = reply.on_purpose;
    nm_record(nm, request, reply.shown);
    if (reply.bytes.empty())
        return;
    if (reply.delay_ms == 0)
        udp_send(nm, from, reply);
    else
        sim_loop_after(nm->loop, reply.delay_ms, [nm, from, reply] { udp_send(nm, from, reply); });
}

static bool udp_start(NmSim *nm)
{
    int stranger_port = 0;
    nm->udp = sim_bind_udp(nm->options.ip, &nm->options.udp_port);
    nm->udp_stranger = sim_bind_udp(nm->options.ip, &stranger_port);
    if (nm->udp < 0)
        return false;
    nm->udp_event = event_new(sim_loop_base(nm->loop), nm->udp, EV_READ | EV_PERSIST, on_datagram, nm);
    return event_add(nm->udp_event, nullptr) == 0;
}

static void udp_stop(NmSim *nm)
{
    if (nm->udp_event)
        event_free(nm->udp_event);
    nm->udp_event = nullptr;
    for (int *fd : {&nm->udp, &nm->udp_stranger}) {
        if (*fd >= 0)
            close(*fd);
        *fd = -1;
    }
}

bool nm_serve_start(NmSim *nm)
{
    if (nm->listener)
        return true;
    nm->listener = sim_listener_open(nm->loop, nm->options.ip, &nm->options.port, 0, on_accept, nm);
    return nm->listener && udp_start(nm);
}

void nm_serve_stop(NmSim *nm)
{
    sim_listener_close(&nm->listener);
    drop_all(nm, false);
    udp_stop(nm);
}
