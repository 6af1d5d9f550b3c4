// device_files.h - the files that a device writes for the agent: init cfg, device and port status, service status.
#pragma once

#include <string>
#include <utility>
#include <vector>

// The init cfg as rows of key and JSON text of the value ("\"http\"", "443"), in the order of the file.
using DeviceCfg = std::vector<std::pair<std::string, std::string>>;

// A complete init cfg of a device on loopback whose files are in dir; the agent connects to it at dev_port. NM's port
// in the file is nm_port, with https the one before it: the agent then adds 1.
DeviceCfg device_cfg_default(const std::string &dir, bool https, int nm_port, int dev_port);

// Sets a value, in a new row if there is none; value is JSON text, and device_cfg_set_text makes it from a plain text.
void device_cfg_set(DeviceCfg *cfg, const std::string &key, const std::string &value);
void device_cfg_set_text(DeviceCfg *cfg, const std::string &key, const std::string &text);
void device_cfg_remove(DeviceCfg *cfg, const std::string &key);
std::string device_cfg_text(const DeviceCfg &cfg);

// The whole file; empty when it cannot be read.
std::string file_text(const std::string &path);

// Replaces the file by a rename. False (with a message on stderr) when it cannot be written.
bool device_write_file(const std::string &path, const std::string &text);

// Writes init cfg, device status and port status into dir ("init", "device", "port") and an empty "service".
bool device_write_all(const std::string &dir, const DeviceCfg &cfg);

// Appends a record and its separator to a service status file, under the record lock that the agent takes too. False
// (with a message on stderr) when it cannot be written. Waits for the lock.
bool device_service_add(const std::string &path, const std::string &record);
// A typical record: a JSON object that describes service n.
std::string device_service_record(int n);
