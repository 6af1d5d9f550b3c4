#include <arpa/inet.h>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/bufferevent_ssl.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <algorithm>

#include "nm_check.h"
#include "nm_sim_internal.h"

static void conn_close(NmConn *conn, bool reset)
{
    if (reset) {
        const linger hard = {1, 0};
        setsockopt(bufferevent_getfd(conn->bev), SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
    }
    conn->nm->conns.erase(conn->id);
    bufferevent_free(conn->bev);
    delete conn;
}

// One write call each, so one segment (or one TLS record) for a text of up to 16 KB.
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
        conn_write_later(conn->nm, conn->id, reply.delay_ms + 30, reply.second);
}

// Takes one request out of what has come. False when there is no whole one (or the connection is gone).
static bool conn_serve_one(NmConn *conn)
{
    NmSim *nm = conn->nm;
    evbuffer *input = bufferevent_get_input(conn->bev);
    const size_t length = evbuffer_get_length(input);
    if (length == 0)
        return false;
    HttpRequest http;
    NmRequest request;
    const char *bytes = (const char *)evbuffer_pullup(input, -1);
    const int taken = http_request_cut(std::string(bytes, length), &http, &request.wrong);
    if (taken == 0)
        return false;
    request.name = taken < 0 ? "?" : nm_request_name(http.path);
    request.line = http.line;
    request.headers = http.headers;
    request.body = http.body;
    request.conn = conn->id;
    if (taken < 0) {
        nm_record(nm, request, "connection closed");
        conn_close(conn, false);
        return false;
    }
    request.wrong = nm_check_request(http, nm->options.ip + ":" + std::to_string(nm->options.port), nm->options.serial);
    evbuffer_drain(input, (size_t)taken);
    NmReply reply;
    {
        std::lock_guard<std::mutex> guard(nm->lock);
        reply = nm_reply_request_locked(nm, request.name, http);
    }
    nm_record(nm, request, reply.shown);
    conn_answer(conn, reply);
    return !reply.close;
}

static void on_read(bufferevent *, void *arg)
{
    while (conn_serve_one((NmConn *)arg)) {
    }
}

static void on_event(bufferevent *, short what, void *arg)
{
    if (what & (BEV_EVENT_EOF | BEV_EVENT_ERROR))
        conn_close((NmConn *)arg, false);
}

static void on_accept(evconnlistener *, evutil_socket_t fd, sockaddr *, int, void *arg)
{
    NmSim *nm = (NmSim *)arg;
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    NmFaultKind fault;
    NmConn *conn = new NmConn{nm, 0, nullptr};
    {
        std::lock_guard<std::mutex> guard(nm->lock);
        conn->id = ++nm->conn_count;
        fault = nm_fault_take_locked(nm, "accept").kind;
        nm->changed.notify_all();
    }
    nm->conns[conn->id] = conn;
    if (fault == NM_FAULT_SILENCE) { // nobody reads, so not even a TLS handshake is answered
        conn->bev = bufferevent_socket_new(sim_loop_base(nm->loop), fd, BEV_OPT_CLOSE_ON_FREE);
        nm_say(nm, "connection " + std::to_string(conn->id) + " accepted and left alone on purpose");
        return;
    }
    if (nm->ssl_context) {
        conn->bev = bufferevent_openssl_socket_new(sim_loop_base(nm->loop), fd, SSL_new(nm->ssl_context),
                                                   BUFFEREVENT_SSL_ACCEPTING, BEV_OPT_CLOSE_ON_FREE);
        bufferevent_openssl_set_allow_dirty_shutdown(conn->bev, 1);
    } else {
        conn->bev = bufferevent_socket_new(sim_loop_base(nm->loop), fd, BEV_OPT_CLOSE_ON_FREE);
    }
    bufferevent_setcb(conn->bev, on_read, nullptr, on_event, conn);
    bufferevent_enable(conn->bev, EV_READ | EV_WRITE);
}

bool nm_serve_start(NmSim *nm)
{
    int fd = sim_listen_tcp(nm->options.ip, &nm->options.port);
    if (fd < 0)
        return false;
    nm->listener = evconnlistener_new(sim_loop_base(nm->loop), on_accept, nm,
                                      LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, 0, fd);
    return nm->listener;
}

void nm_serve_drop(NmSim *nm, bool reset)
{
    while (!nm->conns.empty())
        conn_close(nm->conns.begin()->second, reset);
}

void nm_serve_stop(NmSim *nm)
{
    if (nm->listener) {
        evconnlistener_free(nm->listener);
        nm->listener = nullptr;
    }
    nm_serve_drop(nm, false);
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
    request.wrong = nm_check_datagram(request.body, nm->options.serial);
    NmReply reply;
    {
        std::lock_guard<std::mutex> guard(nm->lock);
        reply = nm_reply_datagram_locked(nm);
    }
    nm_record(nm, request, reply.shown);
    if (reply.bytes.empty())
        return;
    if (reply.delay_ms == 0)
        udp_send(nm, from, reply);
    else
        sim_loop_after(nm->loop, reply.delay_ms, [nm, from, reply] { udp_send(nm, from, reply); });
}

bool nm_udp_start(NmSim *nm)
{
    int stranger_port = 0;
    nm->udp = sim_bind_udp(nm->options.ip, &nm->options.udp_port);
    nm->udp_stranger = sim_bind_udp(nm->options.ip, &stranger_port);
    if (nm->udp < 0)
        return false;
    nm->udp_event = event_new(sim_loop_base(nm->loop), nm->udp, EV_READ | EV_PERSIST, on_datagram, nm);
    return event_add(nm->udp_event, nullptr) == 0;
}

void nm_udp_stop(NmSim *nm)
{
    if (nm->udp_event) {
        event_free(nm->udp_event);
        nm->udp_event = nullptr;
    }
    for (int *fd : {&nm->udp, &nm->udp_stranger}) {
        if (*fd >= 0)
            close(*fd);
        *fd = -1;
    }
}
