#include "nm_check.h"

#include <ctype.h>
#include <openssl/evp.h>
#include <stdio.h>

#include "json_text.h"

static const char k_salt[] = "Qol.Vetrix@2019";
static const char k_protocol[] = "1.3";
static const char k_prefix[] = "/dev-api/";

// How a body is checked: by a layout, byte for byte, with the keys in it, or by a function, or (both null) as JSON
// only.
struct BodyCheck {
    const char *name;
    const char *layout;
    const char *keys;
    std::string (*check)(const std::string &body, const cJSON *root);
};

static void complain(std::string *wrong, const std::string &what)
{
    *wrong += (wrong->empty() ? "" : "; ") + what;
}

std::string nm_request_serial(const std::string &path)
{
    const size_t from = sizeof(k_prefix) - 1;
    return path.compare(0, from, k_prefix) == 0 ? path.substr(from, path.find('/', from) - from) : "";
}

std::string nm_request_name(const std::string &path)
{
    if (path.compare(0, sizeof(k_prefix) - 1, k_prefix) != 0)
        return "?";
    size_t slash = path.find('/', sizeof(k_prefix) - 1);
    return slash == std::string::npos ? "device" : path.substr(slash + 1);
}

std::string nm_signature_input(const std::string &serial)
{
    return serial + "/" + k_salt;
}

std::string nm_signature(const std::string &serial)
{
    const std::string text = nm_signature_input(serial);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr);
    std::string hex;
    for (unsigned i = 0; i < length; i++) {
        char byte[4];
        snprintf(byte, sizeof(byte), "%02x", digest[i]);
        hex += byte;
    }
    return hex;
}

static bool has_only_texts(const cJSON *object)
{
    for (const cJSON *member = object->child; member; member = member->next) {
        if (!cJSON_IsString(member))
            return false;
    }
    return true;
}

// In form 0 stands for one digit, +0 for one digit or more, everything else for itself.
static bool has_form(const std::string &text, const std::string &form)
{
    size_t at = 0;
    for (char wanted : form) {
        if (wanted == '+') {
            while (at + 1 < text.size() && isdigit((unsigned char)text[at]) && isdigit((unsigned char)text[at + 1]))
                at++;
        } else if (at >= text.size() || (wanted == '0' ? !isdigit((unsigned char)text[at]) : text[at] != wanted))
            return false;
        else
            at++;
    }
    return at == text.size();
}

static std::string check_run_status(const std::string &body, const cJSON *root)
{
    const cJSON *basic = cJSON_GetObjectItemCaseSensitive(root, "basic");
    const cJSON *boards = cJSON_GetObjectItemCaseSensitive(basic, "board");
    const cJSON *board = cJSON_GetArrayItem(boards, 0);
    std::string wrong;
    if (!json_has_keys(root, "ver deviceSn basic") || !json_has_keys(basic, "datetime runtime board interface") ||
        cJSON_GetArraySize(boards) != 1 || !json_has_keys(board, "name type cpuUsage memoryUsage diskUsage"))
        complain(&wrong, "members of the run status missing or out of order");
    if (!has_form(json_text(basic, "datetime"), "0000-00-00 00:00:00") ||
        !has_form(json_text(basic, "runtime"), "+0:00:00"))
        complain(&wrong, "bad datetime or runtime");
    for (const char *usage : {"cpuUsage", "memoryUsage", "diskUsage"}) {
        if (!json_text(board, usage).empty() && !has_form(json_text(board, usage), "+0.00%"))
            complain(&wrong, std::string("bad ") + usage);
    }
    const cJSON *item;
    cJSON_ArrayForEach(item, cJSON_GetObjectItemCaseSensitive(basic, "interface"))
    {
        if (!json_has_keys(item, "ifname type ?vlanid ?mtu ?mac ipv4 ipv6 ?linkstatus ?linkSpeed ?rxbytes ?txbytes "
                                 "?rxpackets ?txpackets") ||
            !has_only_texts(item) || json_text(item, "type") != "Ethernet" || json_text(item, "ifname") == "lo")
            complain(&wrong, "bad interface " + json_text(item, "ifname"));
    }
    if (json_print(root) != body)
        complain(&wrong, "run status not in formatted print");
    return wrong;
}

static std::string check_services(const std::string &body, const cJSON *root)
{
    const std::string head = "{\n\t\"ver\":\"" + json_text(root, "ver") + "\",\n\t\"deviceSn\":\"" +
                             json_text(root, "deviceSn") + "\",\n\t\"services\":";
    const bool framed = body.compare(0, head.size(), head) == 0 && body.compare(body.size() - 2, 2, "\n}") == 0;
    return framed && json_has_keys(root, "ver deviceSn services") ? "" : "bad envelope of the services";
}

static std::string check_alarm(const std::string &, const cJSON *root)
{
    return cJSON_IsArray(root) ? "" : "alarm is no array";
}

static std::string check_device_message(const char *type, const cJSON *root)
{
    const std::string found = json_text(root, "type");
    return found == type ? "" : "device message of type '" + found + "' here";
}

static std::string check_cfg_result(const std::string &, const cJSON *root)
{
    return check_device_message("cfg-result", root);
}

static std::string check_upgrade_result(const std::string &, const cJSON *root)
{
    return check_device_message("upgrade-result", root);
}

static std::string check_backup_result(const std::string &, const cJSON *root)
{
    return check_device_message("backup-result", root);
}

static std::string check_ports(const std::string &, const cJSON *root)
{
    return check_device_message("port-status", root);
}

static const BodyCheck k_bodies[] = {
    {"active",
     "{\n\t\"deviceSn\":\"%K\",\n\t\"ptype\":\"%K\",\n\t\"category\":\"%K\",\n\t\"pname\":\"%K\",\n\t\"pversion\":\"%"
     "K\","
     "\n\t\"mac\":\"%K\",\n\t\"localIp\":\"%K\",\n\t\"platformName\":\"%K\",\n\t\"factoryName\":\"%K\",\n\t\"ver\":\"%"
     "K\"\n}",
     "deviceSn ptype category pname pversion mac localIp platformName factoryName ver", nullptr},
    {"handshake", "{\n\"ver\":\"%K\"\n}", "ver", nullptr},
    {"heartbeat", "{\n\t\"ver\":\"%K\",\n\t\"deviceSn\":\"%K\"\n}", "ver deviceSn", nullptr},
    {"runstatus", nullptr, nullptr, check_run_status},
    {"working/services", nullptr, nullptr, check_services},
    {"callhistory", nullptr, nullptr, nullptr},
    {"cfgResult", nullptr, nullptr, check_cfg_result},
    {"upgradeResult", nullptr, nullptr, check_upgrade_result},
    {"backupResult", nullptr, nullptr, check_backup_result},
    {"alarm", nullptr, nullptr, check_alarm},
    {"ports", nullptr, nullptr, check_ports},
    {"device", nullptr, nullptr, nullptr},
    {"port", nullptr, nullptr, nullptr},
};

static std::string check_body(const std::string &name, const std::string &body, const std::string &serial)
{
    for (const BodyCheck &row : k_bodies) {
        if (name != row.name)
            continue;
        JsonTree root = json_parse(body);
        std::string wrong;
        if (!root)
            return "body is no JSON";
        if (row.layout && (json_refill(row.layout, root.get(), row.keys) != body || !has_only_texts(root.get())))
            complain(&wrong, "body not laid out as agreed");
        if (row.check) {
            const std::string found = row.check(body, root.get());
            if (!found.empty())
                complain(&wrong, found);
        }
        const cJSON *sn = cJSON_GetObjectItemCaseSensitive(root.get(), "deviceSn");
        if (sn && json_text(root.get(), "deviceSn") != serial)
            complain(&wrong, "deviceSn in the body is not that of the path");
        return wrong;
    }
    return "unknown path";
}

// The header lines and their order are fixed; only values differ.
static std::string check_headers(const HttpRequest &request, const std::string &here, const std::string &serial)
{
    const std::string expected[] = {
        "HOST: " + here,
        "Accept:",
        "Content-Type: application/json",
        "secretKey: " + nm_signature(serial),
        std::string("pver: ") + k_protocol,
        "deviceSn: " + serial,
        "ptype: " + http_header(request, "ptype"),
        "Content-Length: " + std::to_string(request.body.size()),
    };
    const size_t count = sizeof(expected) / sizeof(expected[0]);
    std::string wrong;
    for (size_t i = 0; i < count || i < request.headers.size(); i++) {
        const std::string want = i < count ? expected[i] : "nothing";
        const std::string got = i < request.headers.size() ? request.headers[i] : "nothing";
        if (got != want)
            complain(&wrong, "header " + std::to_string(i + 1) + " is '" + got + "', not '" + want + "'");
    }
    if (http_header(request, "ptype").empty())
        complain(&wrong, "no ptype");
    return wrong;
}

std::string nm_check_request(const HttpRequest &request, const std::string &here, const std::string &serial)
{
    const std::string path_serial = nm_request_serial(request.path);
    std::string wrong;
    if (request.method != "POST" || request.version != "HTTP/1.1")
        complain(&wrong, "not a POST of HTTP/1.1: " + request.line);
    if (path_serial.empty() || (!serial.empty() && path_serial != serial))
        complain(&wrong, "serial number '" + path_serial + "' in the path");
    for (const std::string &found : {check_headers(request, here, path_serial),
                                     check_body(nm_request_name(request.path), request.body, path_serial)}) {
        if (!found.empty())
            complain(&wrong, found);
    }
    return wrong;
}

std::string nm_datagram_serial(const std::string &text)
{
    return json_text(json_parse(text).get(), "deviceSn");
}

std::string nm_check_datagram(const std::string &text, const std::string &serial)
{
    const std::string sender = nm_datagram_serial(text);
    std::string wrong = check_body("heartbeat", text, sender);
    if (!serial.empty() && sender != serial)
        complain(&wrong, "heartbeat of device '" + sender + "'");
    return wrong;
}
