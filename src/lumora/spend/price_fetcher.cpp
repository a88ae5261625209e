#include "lumora/spend/price_fetcher.hpp"

#include <curl/curl.h>

#include <cctype>
#include <memory>
#include <mutex>

namespace lumora::PriceFetcher {

namespace {

struct Transfer {
    std::string body;
    size_t maxBytes = 0;
    bool tooLarge = false;
    Validator validator;
};

size_t onBody(char* data, size_t size, size_t count, void* user) {
    auto* t = static_cast<Transfer*>(user);
    size_t n = size * count;
    if (t->body.size() + n > t->maxBytes) {
        t->tooLarge = true;
        return 0;  // aborts the transfer
    }
    t->body.append(data, n);
    return n;
}

std::string trim(std::string s) {
    while (!s.empty() && (s.back() == '\r' || s.back() == '\n' || s.back() == ' ')) s.pop_back();
    size_t start = s.find_first_not_of(' ');
    return start == std::string::npos ? std::string() : s.substr(start);
}

// Keeps the validators of the final response (a redirect's headers come first and are replaced).
size_t onHeader(char* data, size_t size, size_t count, void* user) {
    auto* t = static_cast<Transfer*>(user);
    std::string line(data, size * count);
    if (line.rfind("HTTP/", 0) == 0) t->validator = {};
    auto colon = line.find(':');
    if (colon != std::string::npos) {
        std::string name = line.substr(0, colon);
        for (auto& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        std::string value = trim(line.substr(colon + 1));
        if (!value.empty() && value.size() < 512) {
            if (name == "etag") t->validator.etag = value;
            if (name == "last-modified") t->validator.lastModified = value;
        }
    }
    return size * count;
}

int onProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    auto* cancel = static_cast<const std::atomic<bool>*>(user);
    return cancel && cancel->load() ? 1 : 0;
}

void globalInit() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

}  // namespace

Result fetch(const std::string& url, const Validator& validator, const Limits& limits,
             const std::atomic<bool>* cancel) {
    globalInit();
    Result result;
    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
    if (!curl) {
        result.why = "could not start a transfer";
        return result;
    }
    Transfer t;
    t.maxBytes = limits.maxBytes;
    struct curl_slist* headers = nullptr;
    if (validator.etag) headers = curl_slist_append(headers, ("If-None-Match: " + *validator.etag).c_str());
    if (validator.lastModified)
        headers = curl_slist_append(headers, ("If-Modified-Since: " + *validator.lastModified).c_str());
    std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headerList(headers, curl_slist_free_all);

    CURL* c = curl.get();
    curl_easy_setopt(c, CURLOPT_URL, url.c_str());
    curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(c, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(c, CURLOPT_MAXREDIRS, 5L);
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT, static_cast<long>(limits.connectTimeout.count()));
    curl_easy_setopt(c, CURLOPT_TIMEOUT, static_cast<long>(limits.totalTimeout.count()));
    curl_easy_setopt(c, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(limits.maxBytes));
    curl_easy_setopt(c, CURLOPT_ACCEPT_ENCODING, "");  // whatever the library can decode
    curl_easy_setopt(c, CURLOPT_USERAGENT, "lumora");
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &t);
    curl_easy_setopt(c, CURLOPT_HEADERFUNCTION, onHeader);
    curl_easy_setopt(c, CURLOPT_HEADERDATA, &t);
    if (cancel) {
        curl_easy_setopt(c, CURLOPT_NOPROGRESS, 0L);
        curl_easy_setopt(c, CURLOPT_XFERINFOFUNCTION, onProgress);
        curl_easy_setopt(c, CURLOPT_XFERINFODATA, cancel);
    }

    CURLcode code = curl_easy_perform(c);
    if (code != CURLE_OK) {
        result.why = t.tooLarge ? "larger than the limit" : curl_easy_strerror(code);
        return result;
    }
    long status = 0;
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
    if (status == 304) {
        result.outcome = Result::Outcome::notModified;
        return result;
    }
    if (status != 200) {
        result.why = "HTTP " + std::to_string(status);
        return result;
    }
    result.outcome = Result::Outcome::fresh;
    result.body = std::move(t.body);
    result.validator = std::move(t.validator);
    return result;
}

}  // namespace lumora::PriceFetcher
