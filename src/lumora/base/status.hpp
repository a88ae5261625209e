#pragma once

#include <string>
#include <utility>

namespace lumora {

// Whether something worked, and if not, why, in words fit for the user
// ("permission denied", "the socket's folder is open to group or others").
struct Status {
    bool ok = true;
    std::string why;

    static Status success() { return {}; }
    static Status failure(std::string why) { return {false, std::move(why)}; }
    // errno as words ("No space left on device"), after `what` when given.
    static Status fromErrno(int error, const std::string& what = {});

    explicit operator bool() const { return ok; }
    bool operator==(const Status&) const = default;
};

}  // namespace lumora
