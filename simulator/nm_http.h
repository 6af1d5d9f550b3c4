// nm_http.h - HTTP as NM sees it: requests with every line kept as received, and whole answers. No state.
#pragma once

#include <stddef.h>
#include <string>
#include <vector>

struct HttpRequest {
    std::string line;                 // "POST /dev-api/SN1/active HTTP/1.1"
    std::vector<std::string> headers; // whole lines, in order, without their line ends
    std::string body;
    std::string method;
    std::string path;
    std::string version;
};

// Extracts the first request of text. Returns its length in bytes, 0 when it is not complete yet, -1 (with the reason
// in *wrong) for bytes that can never become a request.
int http_request_cut(const std::string &text, HttpRequest *request, std::string *wrong);

// The value of the header name, which has to be written exactly so; "" when there is none.
std::string http_header(const HttpRequest &request, const std::string &name);

// A whole answer with this body, the second one in one chunk and with status 200.
std::string http_answer(int status, const std::string &body);
std::string http_answer_chunked(const std::string &body);
