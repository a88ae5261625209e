#include "lumora/base/status.hpp"

#include <cstring>

namespace lumora {

Status Status::fromErrno(int error, const std::string& what) {
    std::string words = std::strerror(error);
    return failure(what.empty() ? words : what + ": " + words);
}

}  // namespace lumora
