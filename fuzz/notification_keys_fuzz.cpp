// Arbitrary bytes as the action key a notification service reports: the key
// is parsed, and anything parsed must be a key we would make ourselves.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "lumora/app/session_notifications.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string key(reinterpret_cast<const char*>(data), size);
    auto press = lumora::NotificationKeys::parse(key);
    if (!press) return 0;
    using Kind = lumora::NotificationKeys::Press::Kind;
    std::string again;
    switch (press->kind) {
        case Kind::open: again = lumora::Notifier::defaultAction; break;
        case Kind::approve: again = lumora::NotificationKeys::approve(press->promptId); break;
        case Kind::deny: again = lumora::NotificationKeys::deny(press->promptId); break;
        case Kind::answer: again = lumora::NotificationKeys::answer(press->promptId, press->option); break;
    }
    if (again != key) std::abort();
    return 0;
}
