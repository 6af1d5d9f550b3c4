#include "ctl/check.h"

#include <arpa/inet.h>
#include <errno.h>
#include <libgen.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "ctl/findings.h"
#include "runtime/options.h"
#include "runtime/plugin_info.h"
#include "transport/conn_ref.h"
#include "transport/connect.h"

constexpr unsigned STATE_LISTEN = 0x0a; // in the kernel's tables

// Addresses stand in these tables as the kernel holds them, word by word; one of zeros is any.
static bool table_has_listener(const char *path, const char *const addresses[2], unsigned port)
{
    FILE *table = fopen(path, "re");
    if (!table)
        return false;
    char line[256];
    bool is_found = false;
    while (!is_found && fgets(line, sizeof(line), table)) {
        char address[33];
        unsigned line_port, state;
        is_found = sscanf(line, " %*u: %32[0-9A-F]:%x %*[0-9A-F]:%*x %x", address, &line_port, &state) == 3 &&
                   state == STATE_LISTEN && line_port == port &&
                   (strcmp(address, addresses[0]) == 0 || strcmp(address, addresses[1]) == 0);
    }
    fclose(table);
    return is_found;
}

// Asks the kernel. A local agent that serves one connection would give up the agent's for one made here.
static bool has_local_listener(struct in_addr ip, const char *port)
{
    char ip4[16], mapped[40];
    (void)text_fmt(ip4, "%08X", (unsigned)ip.s_addr);
    (void)text_fmt(mapped, "%016X%08X%s", 0, (unsigned)htonl(0xffff), ip4);
    const char *const addresses4[2] = {"00000000", ip4};
    const char *const addresses6[2] = {"00000000000000000000000000000000", mapped};
    unsigned number = (unsigned)strtoul(port, nullptr, 10);
    return table_has_listener("/proc/net/tcp", addresses4, number) ||
           table_has_listener("/proc/net/tcp6", addresses6, number);
}

static bool can_connect(const char *ip, const char *port)
{
    SocketConn conn = tcp_connect(ip, port, nullptr, nullptr, 0, 0);
    bool is_connected = conn.socket_fd > 0;
    socket_close_private(&conn);
    return is_connected;
}

static void service_check(Severity severity, const char *what, const char *ip, const char *port, const char *advice)
{
    struct in_addr address;
    bool is_local = inet_pton(AF_INET, ip, &address) == 1 && ntohl(address.s_addr) >> 24 == IN_LOOPBACKNET;
    if (is_local ? !has_local_listener(address, port) : !can_connect(ip, port))
        finding_add(severity, "nobody listens on %s:%s, %s: %s", ip, port, what, advice);
}

// mode: what access(2) is asked for.
static void file_check(Severity severity, const char *what, const char *path, int mode)
{
    if (path[0] && access(path, mode) != 0)
        finding_add(severity, "%s %s cannot be %s (%s): check the path and its rights", what, path,
                    (mode & W_OK) ? "written" : "read", strerror(errno));
}

// The directory in which path is to be made.
static void directory_check(Severity severity, const char *what, const char *path)
{
    char directory[PATH_TEXT_SIZE];
    (void)text_set(directory, path);
    if (path[0])
        file_check(severity, what, dirname(directory), W_OK | X_OK);
}

// The agent makes the log directory when only its last part is missing.
static void log_directory_check(const char *path)
{
    if (path[0] == '\0' || access(path, F_OK) == 0)
        file_check(SEVERITY_WARNING, "log directory", path, W_OK | X_OK);
    else
        directory_check(SEVERITY_WARNING, "directory of the log directory", path);
}

static void options_check(void)
{
    Options options;
    options_get(&options);
    file_check(SEVERITY_FATAL, "ca_file", options.nm_tls.ca_file, R_OK);
    file_check(SEVERITY_FATAL, "client_cert", options.nm_tls.client_cert, R_OK);
    file_check(SEVERITY_FATAL, "client_key", options.nm_tls.client_key, R_OK);
    directory_check(SEVERITY_WARNING, "directory of audit_file", options.remote_access.audit_file);
    directory_check(SEVERITY_WARNING, "directory of state_file", options.monitor.state_file);
    if (options.monitor.notify_socket[0] != '@')
        file_check(SEVERITY_WARNING, "notify_socket", options.monitor.notify_socket, W_OK);
}

void check_world(void)
{
    findings_listen_no_more(); // of failed connects
    PluginInfo info;
    plugin_info_get(&info);
    service_check(SEVERITY_FATAL, "the device's local agent", info.dev.remote_ip, info.dev.remote_port,
                  "start it, or mend \"dev_server_port\" of the init cfg");
    service_check(SEVERITY_FATAL, "NM", info.nm_ip, info.nm_port,
                  "check \"host\" and \"port\" of the init cfg, the network and the firewall");
    service_check(SEVERITY_WARNING, "the device's web server", info.dev_web.remote_ip, info.dev_web.remote_port,
                  "remote web will not work; mend \"web_port\" of the init cfg");
    service_check(SEVERITY_WARNING, "the device's telnet server", info.dev_telnet.remote_ip,
                  info.dev_telnet.remote_port, "remote telnet will not work; mend \"telnet_port\" of the init cfg");
    file_check(SEVERITY_WARNING, "device-path", info.device_path, R_OK);
    file_check(SEVERITY_WARNING, "port-path", info.port_path, R_OK);
    file_check(SEVERITY_WARNING, "service-path", info.service_path, R_OK | W_OK);
    log_directory_check(info.plugin_log_path);
    options_check();
}
