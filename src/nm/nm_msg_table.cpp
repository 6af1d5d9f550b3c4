#include "nm/nm_msg_table.h"

#include "nm/heartbeat.h"
#include "nm/nm_msg.h"
#include "nm/report_strategy.h"
#include "remote/remote_telnet.h"
#include "remote/remote_web.h"

struct NmMsgRow {
    const char *type;
    NmMsgHandler handler;
    const char *handler_name;
};
#define NM_MSG(type, handler)   \
    {                           \
        type, handler, #handler \
    }
static const NmMsgRow k_nm_msgs[] = {
    NM_MSG("upgrade", nm_msg_forwarding),
    NM_MSG("backup", nm_msg_forwarding),
    NM_MSG("reboot", nm_msg_forwarding),
    NM_MSG("reset", nm_msg_forwarding),
    NM_MSG("log", nm_msg_forwarding),
    NM_MSG("provision", nm_msg_forwarding),
    NM_MSG("auto_provision", nm_msg_forwarding),
    NM_MSG("dev-info", nm_dev_query_handle),
    NM_MSG("dev-status", nm_dev_query_handle),
    NM_MSG("port-info", nm_port_query_handle),
    NM_MSG("port-status", nm_port_query_handle),
    NM_MSG("remote-web", remote_web_req_handle),
    NM_MSG("remote-telnet", remote_telnet_req_handle),
    NM_MSG("trigger", udp_detection_interval_handle),
    NM_MSG("device-status", nm_dev_status_control_handle),
    NM_MSG("ping", nm_msg_forwarding),
    NM_MSG("traceroute", nm_msg_forwarding),
    NM_MSG("tcpdump", nm_msg_forwarding),
    NM_MSG("sync-config", nm_msg_forwarding),
    NM_MSG("snapshot", nm_msg_forwarding),
};

void nm_msg_table_init(void)
{
    for (const NmMsgRow &row : k_nm_msgs)
        (void)nm_msg_register(row.type, row.handler, row.handler_name);
}
