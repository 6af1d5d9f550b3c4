// nm_check.h - NM's judgement of what the agent sends.
#pragma once

#include <string>

#include "nm_http.h"

// The request's name: what follows the serial number in the path, "device" for the bare path, "?" for a foreign path.
std::string nm_request_name(const std::string &path);
// The serial number in the path; "" for a foreign path.
std::string nm_request_serial(const std::string &path);

// The signature that a device of that serial number must send.
std::string nm_signature(const std::string &serial);

// What is wrong with a request that came to the NM of that name ("127.0.0.1:8080"), items joined with "; "; empty when
// it is right. serial: the one device served, empty for any.
std::string nm_check_request(const HttpRequest &request, const std::string &here, const std::string &serial);

// The same for the body of a heartbeat datagram.
std::string nm_check_datagram(const std::string &text, const std::string &serial);
