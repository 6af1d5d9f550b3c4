#include "device_files.h"

#include <errno.h>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

static std::string quoted(const std::string &text)
{
    std::string result = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\')
            result += '\\';
        result += c;
    }
    return result + "\"";
}

DeviceCfg device_cfg_default(const std::string &dir, bool https, int nm_port, int dev_port)
{
    return {
        {"method", https ? "\"https\"" : "\"http\""},
        {"host", "\"127.0.0.1\""},
        {"port", std::to_string(https ? nm_port - 1 : nm_port)},
        {"dev-sn", "\"SN00000001\""},
        {"ptype", "12"},
        {"category", "3"},
        {"pversion", "\"2.4.1\""},
        {"pname", "\"Gateway 100\""},
        {"mac", "\"02:00:00:00:00:01\""},
        {"dev_server_port", std::to_string(dev_port)},
        {"device-path", quoted(dir + "/device")},
        {"port-path", quoted(dir + "/port")},
        {"service-path", quoted(dir + "/service")},
        {"interface-blacklist", "\"\""},
        {"disk-whitelist", "\"/\""},
        {"platform_name", "\"simulated\""},
        {"factory_name", "\"loopback\""},
        {"interface", "\"lo\""},
        {"localIp", "\"127.0.0.1\""},
        {"ver", "\"1.3\""},
        {"web_port", "80"},
        {"telnet_port", "23"},
        {"max_dev_msg_size", "64"},
        {"dev_msg_buffer_size", "256"},
        {"log_path", quoted(dir + "/log/")},
        {"max_files", "2"},
        {"max_size", "1024"},
    };
}

void device_cfg_set(DeviceCfg *cfg, const std::string &key, const std::string &value)
{
    for (auto &row : *cfg) {
        if (row.first == key) {
            row.second = value;
            return;
        }
    }
    cfg->emplace_back(key, value);
}

void device_cfg_set_text(DeviceCfg *cfg, const std::string &key, const std::string &text)
{
    device_cfg_set(cfg, key, quoted(text));
}

void device_cfg_remove(DeviceCfg *cfg, const std::string &key)
{
    for (size_t i = 0; i < cfg->size(); i++) {
        if ((*cfg)[i].first == key) {
            cfg->erase(cfg->begin() + (long)i);
            return;
        }
    }
}

std::string device_cfg_text(const DeviceCfg &cfg)
{
    std::string text = "{";
    for (const auto &row : cfg)
        text += (text.size() > 1 ? ",\n\t" : "\n\t") + quoted(row.first) + ": " + row.second;
    return text + "\n}\n";
}

std::string file_text(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

bool device_write_file(const std::string &path, const std::string &text)
{
    const std::string fresh = path + ".new";
    FILE *file = fopen(fresh.c_str(), "we");
    const bool written = file && fwrite(text.data(), 1, text.size(), file) == text.size();
    if (!file || fclose(file) != 0 || !written || rename(fresh.c_str(), path.c_str()) != 0) {
        fprintf(stderr, "cannot write %s: %s\n", path.c_str(), strerror(errno));
        return false;
    }
    return true;
}

bool device_write_all(const std::string &dir, const DeviceCfg &cfg)
{
    return device_write_file(dir + "/init", device_cfg_text(cfg)) &&
           device_write_file(dir + "/device", "{\"model\":\"Gateway 100\",\"firmware\":\"2.4.1\",\"slots\":4}\n") &&
           device_write_file(dir + "/port",
                             "{\"ports\":[{\"id\":1,\"state\":\"idle\"},{\"id\":2,\"state\":\"busy\"}]}\n") &&
           device_write_file(dir + "/service", "");
}

// A record lock on the whole file. Waits for it.
static bool set_lock(int fd, short type)
{
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return fcntl(fd, F_SETLKW, &lock) == 0;
}

bool device_service_add(const std::string &path, const std::string &record)
{
    const std::string bytes = record + "\r\n\r\n";
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    bool written = false;
    if (fd >= 0 && set_lock(fd, F_WRLCK)) {
        written = write(fd, bytes.data(), bytes.size()) == (ssize_t)bytes.size();
        set_lock(fd, F_UNLCK);
    }
    if (!written)
        fprintf(stderr, "cannot add to %s: %s\n", path.c_str(), strerror(errno));
    if (fd >= 0)
        close(fd);
    return written;
}

std::string device_service_record(int n)
{
    return "{\"service\":\"voice-" + std::to_string(n) + "\",\"state\":\"running\",\"calls\":" + std::to_string(n * 3) +
           "}";
}
