// sim_socket.h - the sockets of the simulators: IPv4, non-blocking, closed on exec.
// Listeners and connections belong to a loop: make, use and free them on its thread.
#pragma once

#include <string>

#include "sim_loop.h"

struct bufferevent;
struct evconnlistener;
struct sockaddr;
typedef struct ssl_ctx_st SSL_CTX;

// A listening or bound socket on ip, port 0 for any free one; the port in force goes to *port. The caller closes it.
// -1 when ip is no address or the port is taken. Any thread.
int sim_listen_tcp(const std::string &ip, int *port);
int sim_bind_udp(const std::string &ip, int *port);
// Keeps a TCP port while nobody listens there: connections are refused, and nobody else is given it. sim_listen_tcp can
// take it back before sim_hold_end. -1 when it is taken.
int sim_hold_tcp(const std::string &ip, int port);
void sim_hold_end(int *held); // closes it unless it is -1, which it is afterwards

// Called for each accepted connection; fd is the callee's from then on.
using SimAccepted = void (*)(evconnlistener *listener, int fd, sockaddr *peer, int peer_len, void *arg);

// The same as sim_listen_tcp, accepting on the loop. recv_buffer: of the accepted sockets, bytes; 0: the system's
// default. nullptr on failure.
evconnlistener *sim_listener_open(SimLoop *loop, const std::string &ip, int *port, int recv_buffer,
                                  SimAccepted accepted, void *arg);
// Frees *listener, if there is one, and sets it to nullptr.
void sim_listener_close(evconnlistener **listener);

// A connection from an accepted fd, which it owns. TCP_NODELAY is set: what is written leaves at once, also while
// earlier bytes have no acknowledgement yet. With tls the connection begins as the server of a TLS handshake.
bufferevent *sim_conn_open(SimLoop *loop, int fd, SSL_CTX *tls);
// Closes and frees; what has not been sent yet is lost. reset: with RST.
void sim_conn_close(bufferevent *conn, bool reset);
