#include "nm_http.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>

constexpr size_t HEAD_MAX = 16384;     // bytes of a request's header block
constexpr int BODY_MAX = 11 * 1048576; // bytes; a device message has 10 MiB at most

static void split_lines(const std::string &head, HttpRequest *request)
{
    size_t at = head.find("\r\n");
    request->line = head.substr(0, at);
    request->headers.clear();
    while (at != std::string::npos) {
        size_t from = at + 2;
        at = head.find("\r\n", from);
        request->headers.push_back(head.substr(from, at == std::string::npos ? at : at - from));
    }
    size_t first = request->line.find(' ');
    size_t last = request->line.rfind(' ');
    if (first != std::string::npos && last > first) {
        request->method = request->line.substr(0, first);
        request->path = request->line.substr(first + 1, last - first - 1);
        request->version = request->line.substr(last + 1);
    }
}

std::string http_header(const HttpRequest &request, const std::string &name)
{
    for (const std::string &line : request.headers) {
        if (line.compare(0, name.size() + 2, name + ": ") == 0)
            return line.substr(name.size() + 2);
    }
    return "";
}

int http_request_cut(const std::string &text, HttpRequest *request, std::string *wrong)
{
    for (size_t i = 0; i < text.size() && i < 4; i++) {
        if (!isupper((unsigned char)text[i]) && text[i] != ' ') {
            *wrong = "no HTTP request line";
            return -1;
        }
    }
    size_t end = text.find("\r\n\r\n");
    if (end == std::string::npos) {
        *wrong = "header block without end";
        return text.size() > HEAD_MAX ? -1 : 0;
    }
    split_lines(text.substr(0, end), request);
    if (request->method.empty()) {
        *wrong = "request line of other than three words: " + request->line;
        return -1;
    }
    const long length = strtol(http_header(*request, "Content-Length").c_str(), nullptr, 10);
    if (length < 0 || length > BODY_MAX) {
        *wrong = "bad Content-Length";
        return -1;
    }
    if (text.size() - end - 4 < (size_t)length)
        return 0;
    request->body = text.substr(end + 4, (size_t)length);
    return (int)(end + 4 + (size_t)length);
}

static const char *reason(int status)
{
    return status == 200 ? "OK" : status == 404 ? "Not Found" : "Error";
}

std::string http_answer(int status, const std::string &body)
{
    return "HTTP/1.1 " + std::to_string(status) + " " + reason(status) + "\r\nContent-Type: application/json\r\n" +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string http_answer_chunked(const std::string &body)
{
    char size[24];
    snprintf(size, sizeof(size), "%zx\r\n", body.size());
    return std::string("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n") + size + body + "\r\n0\r\n\r\n";
}
