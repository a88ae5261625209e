#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

// One conditional HTTP GET of a price list, over libcurl. Blocking: callers
// run it off any path a user waits on.
namespace lumora::PriceFetcher {

// What the cached copy was fetched with, sent back so an unchanged list costs a 304.
struct Validator {
    std::optional<std::string> etag;
    std::optional<std::string> lastModified;
    bool operator==(const Validator&) const = default;
};

struct Result {
    enum class Outcome { fresh, notModified, failed };
    Outcome outcome = Outcome::failed;
    std::string body;       // when fresh
    Validator validator;    // when fresh: the response's own
    std::string why;        // when failed: "HTTP 500", "Couldn't connect to server"
};

struct Limits {
    std::chrono::seconds connectTimeout{10};
    std::chrono::seconds totalTimeout{60};
    size_t maxBytes = 64u << 20;
};

// Fetches `url` (http or https only), following redirects. Setting `*cancel`
// ends a transfer (or a name lookup) in progress as a failure.
Result fetch(const std::string& url, const Validator& validator, const Limits& limits = {},
             const std::atomic<bool>* cancel = nullptr);

}  // namespace lumora::PriceFetcher
