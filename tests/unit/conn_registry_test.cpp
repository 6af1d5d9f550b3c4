#include "net_peer.h"

#include <thread>

#include "runtime/stop_internal.h"
#include "runtime/wait.h"
#include "transport/conn_life.h"
#include "transport/conn_registry.h"

static const char k_ip[] = "127.0.0.1";

struct Listener {
    int fd;
    std::string port;
};

static Listener listener_new()
{
    start_process_once();
    Listener listener;
    listener.fd = listen_socket(&listener.port);
    return listener;
}

// A fresh connection and, when asked for, the peer's end of it.
static SocketConn connect_to(const Listener &listener, int *peer = nullptr)
{
    SocketConn conn = tcp_connect(k_ip, listener.port.c_str(), nullptr, nullptr, 0, 0);
    EXPECT_GT(conn.socket_fd, 0);
    int accepted = accept(listener.fd, nullptr, nullptr);
    if (peer)
        *peer = accepted;
    else
        close(accepted);
    return conn;
}

static std::string socket_line(int fd)
{
    return "Shutdown and close socket: " + std::to_string(fd);
}

static std::string removed_line(const char *type, const Listener &listener)
{
    return std::string("Connection type: ") + type + ", peer IP: 127.0.0.1, Port: " + listener.port +
           " has been removed,";
}

static void set_method(const char *method)
{
    PluginInfoEdit edit;
    plugin_info_edit_begin(&edit);
    (void)plugin_info_edit_text(&edit, edit.next.nm_method, method);
    plugin_info_edit_commit(&edit);
}

TEST(ConnRegistry, AddOverConnectedAndRemoveLeaveTheTexts)
{
    Listener listener = listener_new();
    SocketConn first = connect_to(listener), second = connect_to(listener);
    int peer = -1;
    std::string log = log_of([&] {
        EXPECT_EQ(1, conn_add(HTTP, first, 0));
        EXPECT_EQ(1, conn_add(HTTP, second, 1));
        conn_remove(HTTP, 1);
        EXPECT_EQ(1, conn_remove_if_connected(HTTP, 1)); // nothing any more
    });
    std::string row = "CONN[2] Type: HTTP                    , Status: ";
    std::string peer_text = ", IP: 127.0.0.1, Port: " + listener.port + ", SSL: 0";
    std::string header = std::string(42, '~') + " conn info " + std::string(42, '~');
    expect_in_order(log, {"Connection type: HTTP(2) has been added, socket: " + std::to_string(first.socket_fd) + ".",
                          socket_line(first.socket_fd), removed_line("HTTP(2)", listener), header,
                          row + "DISCONNECTED(0), Socket_fd: -1" + peer_text, std::string(95, '~'),
                          "has been added, socket: " + std::to_string(second.socket_fd) + ".",
                          row + "CONNECTED(1), Socket_fd: " + std::to_string(second.socket_fd) + peer_text,
                          socket_line(second.socket_fd), removed_line("HTTP(2)", listener),
                          row + "DISCONNECTED(0), Socket_fd: -1" + peer_text});
    EXPECT_FALSE(has_text(log.substr(log.rfind(row)), "removed"));
    EXPECT_EQ(0, conn_is_connected(HTTP));

    // A failed connect leaves its texts, but never over a connection in use; a socket in it is closed by a removal.
    SocketConn failed = {};
    failed.socket_fd = -1;
    (void)text_set(failed.remote_ip, "192.0.2.9");
    conn_note_failed(HTTP, &failed);
    EXPECT_STREQ("192.0.2.9", conn_info_get(HTTP).conn.remote_ip);
    SocketConn noted = connect_to(listener, &peer);
    conn_note_failed(HTTP, &noted);
    freeaddrinfo(noted.remote_addr); // not taken over
    conn_remove_all();
    EXPECT_FALSE(readable_within(peer, 0));
    log = log_of([] { conn_remove(HTTP, 0); });
    expect_in_order(log, {socket_line(noted.socket_fd), removed_line("HTTP(2)", listener)});
    EXPECT_EQ("", read_upto(peer, 1));
    EXPECT_EQ(-1, fcntl(noted.socket_fd, F_GETFD));
    close(peer);
    close(listener.fd);
}

TEST(ConnRegistry, CheckDropsTheDeadAndTheUdpEntry)
{
    Listener listener = listener_new();
    int peer;
    EXPECT_EQ(0, conn_check(HTTP));
    conn_add(HTTP, connect_to(listener, &peer), 0);
    EXPECT_EQ(1, conn_check(HTTP));
    EXPECT_EQ(1, tcp_check_conn(HTTP));
    close(peer);
    for (int i = 0; i < 100 && tcp_check_conn(HTTP); i++)
        usleep(10000);
    EXPECT_EQ(1, conn_is_connected(HTTP)); // the test alone closes nothing
    std::string log = log_of([] { EXPECT_EQ(0, conn_check(HTTP)); });
    expect_in_order(log, {"status: 8 is not connected: 1.", removed_line("HTTP(2)", listener), "CONN[5]"});
    EXPECT_EQ(0, conn_is_connected(HTTP));

    conn_add(NM_UDP_DETECTION, udp_connect(k_ip, "9", nullptr, nullptr), 0);
    log = log_of([] { EXPECT_EQ(0, conn_check(NM_UDP_DETECTION)); });
    expect_in_order(log, {"Shutdown and close socket: ", "NM_UDP_DETECTION(1), peer IP: 127.0.0.1", "CONN[0]"});
    EXPECT_EQ(0, conn_is_connected(NM_UDP_DETECTION));
    close(listener.fd);
}

// Another thread closes while this one waits on the connection: the wait ends at once, the peer sees its end at once,
// and the number is given out again only after the last copy has gone.
TEST(ConnRegistry, CloseWakesAWaiterAndFreesWithTheLastCopy)
{
    Listener listener = listener_new();
    const ConnectionType types[] = {HTTP, NM_UDP_DETECTION};
    for (ConnectionType type : types) {
        SCOPED_TRACE(conn_type_name(type));
        int peer = -1;
        SocketConn conn = type == HTTP ? connect_to(listener, &peer) : udp_connect(k_ip, "9", nullptr, nullptr);
        conn_add(type, conn, 0);
        SocketConn copy;
        ASSERT_EQ(1, conn_hold(type, &copy));
        std::thread closer([type] {
            usleep(50000);
            conn_remove(type, 0);
        });
        int64_t start = wait_now_ms();
        EXPECT_EQ(1, conn_readable(&copy, 10000));
        EXPECT_LT(wait_now_ms() - start, 5000);
        closer.join();
        if (peer >= 0) {
            EXPECT_EQ("", read_upto(peer, 1));
        }
        EXPECT_EQ(0, conn_is_current(type, &copy));
        EXPECT_GE(fcntl(copy.socket_fd, F_GETFD), 0);
        conn_drop(&copy);
        conn_drop(&copy); // harmless
        EXPECT_EQ(-1, fcntl(conn.socket_fd, F_GETFD));
        EXPECT_EQ(0, conn_hold(type, &copy));
        EXPECT_EQ(-1, copy.socket_fd);
        EXPECT_STREQ(k_ip, copy.remote_ip);
        conn_drop(&copy);
        close(peer);
    }
    close(listener.fd);
}

TEST(ConnRegistry, OldCopiesDoNotTouchTheSuccessor)
{
    Listener listener = listener_new();
    SocketConn old_copy;
    conn_add(HTTP, connect_to(listener), 0);
    ASSERT_EQ(1, conn_hold(HTTP, &old_copy));
    EXPECT_EQ(1, conn_is_current(HTTP, &old_copy));
    int peer;
    conn_add(HTTP, connect_to(listener, &peer), 0);
    EXPECT_EQ(0, conn_is_current(HTTP, &old_copy));
    conn_remove_if_current(HTTP, &old_copy, 0);
    EXPECT_EQ(1, conn_check(HTTP));
    conn_drop(&old_copy);
    SocketConn copy;
    ASSERT_EQ(1, conn_hold(HTTP, &copy));
    conn_remove_if_current(HTTP, &copy, 0);
    EXPECT_EQ(0, conn_is_connected(HTTP));
    conn_drop(&copy);
    close(peer);
    close(listener.fd);
}

TEST(ConnRegistry, ThousandCyclesLeaveNothingBehind)
{
    Listener listener = listener_new();
    int before = open_descriptors();
    for (int i = 0; i < 1000; i++) {
        int peer;
        conn_add(REMOTE_WEB_SERVER, connect_to(listener, &peer), 0);
        close(peer);
        if (i % 3)
            conn_remove(REMOTE_WEB_SERVER, 0);
    }
    conn_remove_all();
    EXPECT_EQ(before, open_descriptors());
    close(listener.fd);
}

// A handshake that fails goes on in plain text; one that a stop cuts registers nothing.
TEST(ConnRegistry, FailedHandshakeIsPlainCutHandshakeIsNothing)
{
    Listener listener = listener_new();
    set_method("https");
    int before = open_descriptors();
    int peer;
    SocketConn conn = connect_to(listener, &peer);
    send(peer, "HTTP/1.1 400 Bad Request\r\n\r\n", 28, 0);
    std::string log = log_of([&] { EXPECT_EQ(1, conn_add(HTTP, conn, 1)); });
    expect_in_order(log, {"SSL_connect faild!", "SSL deinit success!", "has been added, socket: ", ", SSL: 0"});
    EXPECT_EQ(1, conn_is_connected(HTTP));
    conn_remove(HTTP, 0);
    close(peer);

    conn = connect_to(listener, &peer); // silent
    std::thread stopper([] {
        usleep(100000);
        EXPECT_EQ(0, conn_is_connected(HTTP)); // nobody sees an entry whose handshake is not done
        stop_request(15);
    });
    log = log_of([&] { EXPECT_EQ(1, conn_add(HTTP, conn, 1)); });
    stopper.join();
    EXPECT_EQ("", log);
    EXPECT_EQ(0, conn_is_connected(HTTP));
    stop_reset_for_test();
    close(peer);
    EXPECT_EQ(before, open_descriptors());
    close(listener.fd);
}
