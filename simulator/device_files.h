// device_files.h - the files that a device writes for the agent: init cfg, device and port status, service status.
#pragma once

#include <string>
#include <utility>
#include <vector>

// The init cfg as rows of key and JSON text of the value ("\"http\"", "443"), in the order of the file.
using DeviceCfg = std::vector<std::pair<std::string, std::string>>;

// A whole init cfg of a device on loopback whose files live in dir; the device's agent listens on dev_port, NM on
// nm_port. With https the file names the port before nm_port, because the agent goes to the next one.
DeviceCfg device_cfg_default(const std::string &dir, bool https, int nm_port, int dev_port);

// Sets a value; adds the row when there is none. value is JSON text; device_cfg_set_text quotes.
void device_cfg_set(DeviceCfg *cfg, const std::string &key, const std::string &value);
void device_cfg_set_text(DeviceCfg *cfg, const std::string &key, const std::string &text);
void device_cfg_remove(DeviceCfg *cfg, const std::string &key);
std::string device_cfg_text(const DeviceCfg &cfg);

// Replaces the file in one step. False (with a message on stderr) when it cannot be written.
bool device_write_file(const std::string &path, const std::string &text);

// Writes init cfg, device status and port status into dir ("init", "device", "port") and an empty "service".
bool device_write_all(const std::string &dir, const DeviceCfg &cfg);

// Adds a record and its separator to a service status file, under the lock that the agent's reader takes too.
bool device_service_add(const std::string &path, const std::string &record);
// A typical record: a JSON object about service number n.
std::string device_service_record(int n);
