// nm_check.h - checks the requests and datagrams that the agent sends to NM. No state.
#pragma once

#include <string>

#include "nm_http.h"

// The request's name: what follows the serial number in the path, "device" when nothing does, "?" for another path.
std::string nm_request_name(const std::string &path);
// The serial number in the path; "" for another path.
std::string nm_request_serial(const std::string &path);

// What a device of that serial number signs with, and the signature that it has to send, in hex.
std::string nm_signature_input(const std::string &serial);
std::string nm_signature(const std::string &serial);

// What is wrong with a request, items joined with "; "; "" when nothing is. here: this NM's address as in the HOST
// header
// ("127.0.0.1:8080"). serial: the one device served; "": any.
std::string nm_check_request(const HttpRequest &request, const std::string &here, const std::string &serial);

// The serial number in the body of a heartbeat datagram; "" when there is none.
std::string nm_datagram_serial(const std::string &text);
// The same as nm_check_request for the body of a heartbeat datagram.
std::string nm_check_datagram(const std::string &text, const std::string &serial);
