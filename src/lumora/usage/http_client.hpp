#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace lumora {

// One HTTP answer: its status, its headers (names lower-cased, the last of a
// repeated header wins) and its body.
struct HttpResponse {
    int status = 0;
    std::map<std::string, std::string> headers;
    std::string body;

    // The header's value, if the answer carried it.
    std::optional<std::string> header(const std::string& lowerCaseName) const;
    bool operator==(const HttpResponse&) const = default;
};

// What a request came back with: an answer, or why there was none.
struct HttpResult {
    std::optional<HttpResponse> response;
    std::string error;  // a transport failure in words, when there is no response
};

// Blocking HTTP requests through libcurl, for the usage workers (never
// called on the main loop or a monitor queue). TLS peers are verified,
// redirects are not followed (a bearer token never travels to another host),
// plain http is refused except to this machine, and the answer's body is cut
// off past `maxBody` bytes, which fails the request.
namespace HttpClient {

struct Request {
    std::string url;
    std::vector<std::pair<std::string, std::string>> headers;
    std::chrono::milliseconds timeout{12000};
    size_t maxBody = 1u << 20;
    const std::atomic<bool>* cancel = nullptr;  // set from another thread to abort the transfer
    bool direct = false;  // never through a proxy (for servers on this machine)
};

HttpResult get(const Request& request);
// The same as a POST of `body` (send a Content-Type header with it).
HttpResult post(const Request& request, const std::string& body);

// True for an http:// or https:// URL that this client may use: https
// anywhere, plain http only to 127.0.0.1, ::1 or localhost.
bool allowedUrl(const std::string& url);

}  // namespace HttpClient

}  // namespace lumora
