#include "lumora/usage/http_client.hpp"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <memory>
#include <mutex>

namespace lumora {

std::optional<std::string> HttpResponse::header(const std::string& lowerCaseName) const {
    auto it = headers.find(lowerCaseName);
    if (it == headers.end()) return std::nullopt;
    return it->second;
}

namespace HttpClient {

namespace {

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string trim(std::string_view s) {
    size_t b = 0, e = s.size();
    while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
    return std::string(s.substr(b, e - b));
}

struct Transfer {
    HttpResponse response;
    size_t maxBody = 0;
    bool tooLarge = false;
    const std::atomic<bool>* cancel = nullptr;
};

size_t onBody(char* data, size_t size, size_t count, void* user) {
    auto* t = static_cast<Transfer*>(user);
    size_t n = size * count;
    if (t->response.body.size() + n > t->maxBody) {
        t->tooLarge = true;
        return 0;  // fails the transfer with a write error
    }
    t->response.body.append(data, n);
    return n;
}

size_t onHeader(char* data, size_t size, size_t count, void* user) {
    auto* t = static_cast<Transfer*>(user);
    size_t n = size * count;
    std::string_view line(data, n);
    if (line.starts_with("HTTP/")) {
        t->response.headers.clear();  // a new answer (after a 100 Continue) starts afresh
        return n;
    }
    auto colon = line.find(':');
    if (colon != std::string_view::npos && colon > 0 && t->response.headers.size() < 200)
        t->response.headers[lower(trim(line.substr(0, colon)))] = trim(line.substr(colon + 1));
    return n;
}

int onProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    auto* t = static_cast<Transfer*>(user);
    return t->cancel && t->cancel->load() ? 1 : 0;
}

void globalInit() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

struct EasyDeleter {
    void operator()(CURL* c) const { curl_easy_cleanup(c); }
};
struct ListDeleter {
    void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};

}  // namespace

bool allowedUrl(const std::string& url) {
    std::string u = lower(url);
    if (u.starts_with("https://")) return u.size() > 8;
    if (!u.starts_with("http://")) return false;
    std::string rest = u.substr(7);
    std::string host = rest.substr(0, rest.find_first_of("/?#"));
    if (auto at = host.rfind('@'); at != std::string::npos) return false;  // no credentials in the URL
    if (host.starts_with("[")) {
        return host.starts_with("[::1]");
    }
    host = host.substr(0, host.find(':'));
    return host == "127.0.0.1" || host == "localhost";
}

namespace {

HttpResult perform(const Request& request, const std::string* body) {
    HttpResult result;
    if (!allowedUrl(request.url)) {
        result.error = "refused URL (https, or http to this machine only)";
        return result;
    }
    globalInit();
    std::unique_ptr<CURL, EasyDeleter> curl(curl_easy_init());
    if (!curl) {
        result.error = "could not start a request";
        return result;
    }
    std::unique_ptr<curl_slist, ListDeleter> headers;
    auto lines = request.headers;
    // A body goes at once: no wait for a "100 Continue" that a small server never sends.
    if (body) lines.emplace_back("Expect", "");
    for (const auto& [name, value] : lines) {
        std::string line = value.empty() ? name + ":" : name + ": " + value;
        curl_slist* next = curl_slist_append(headers.get(), line.c_str());
        if (!next) {
            result.error = "out of memory";
            return result;
        }
        (void)headers.release();
        headers.reset(next);
    }
    Transfer t;
    t.maxBody = request.maxBody;
    t.cancel = request.cancel;
    CURL* c = curl.get();
    long timeoutMs = static_cast<long>(std::max<long long>(1, request.timeout.count()));
    curl_easy_setopt(c, CURLOPT_URL, request.url.c_str());
    if (body) {
        curl_easy_setopt(c, CURLOPT_POST, 1L);
        curl_easy_setopt(c, CURLOPT_POSTFIELDS, body->data());
        curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body->size()));
    } else {
        curl_easy_setopt(c, CURLOPT_HTTPGET, 1L);
    }
    // Nothing for this machine goes through a proxy: what is meant to stay here stays.
    if (request.direct) curl_easy_setopt(c, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, timeoutMs);
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS, timeoutMs);
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);  // worker threads: no SIGALRM for name look-ups
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(c, CURLOPT_USERAGENT, "lumora");
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &t);
    curl_easy_setopt(c, CURLOPT_HEADERFUNCTION, onHeader);
    curl_easy_setopt(c, CURLOPT_HEADERDATA, &t);
    curl_easy_setopt(c, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(c, CURLOPT_XFERINFOFUNCTION, onProgress);
    curl_easy_setopt(c, CURLOPT_XFERINFODATA, &t);
    CURLcode code = curl_easy_perform(c);
    if (code != CURLE_OK) {
        if (t.tooLarge) result.error = "the answer was larger than " + std::to_string(request.maxBody) + " bytes";
        else if (code == CURLE_ABORTED_BY_CALLBACK) result.error = "cancelled";
        else result.error = curl_easy_strerror(code);
        return result;
    }
    long status = 0;
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
    t.response.status = static_cast<int>(status);
    result.response = std::move(t.response);
    return result;
}

}  // namespace

HttpResult get(const Request& request) { return perform(request, nullptr); }

HttpResult post(const Request& request, const std::string& body) { return perform(request, &body); }

}  // namespace HttpClient

}  // namespace lumora
