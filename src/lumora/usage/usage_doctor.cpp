#include "lumora/usage/usage_doctor.hpp"

#include <ctime>
#include <iomanip>
#include <ostream>
#include <sstream>

#include "lumora/usage/pace.hpp"

namespace lumora::UsageDoctor {

namespace {

std::string localTime(Date when) {
    std::time_t t = std::chrono::system_clock::to_time_t(when);
    std::tm tm{};
    if (!::localtime_r(&t, &tm)) return "?";
    std::ostringstream out;
    out << std::put_time(&tm, "%Y-%m-%d %H:%M");
    return out.str();
}

}  // namespace

std::vector<QuotaFetch> probes(const std::vector<std::unique_ptr<QuotaSource>>& sources, Date now) {
    std::atomic<bool> never{false};
    std::vector<QuotaFetch> out;
    for (const auto& s : sources) out.push_back(s->fetch(now, never));
    return out;
}

std::string loginLine(const UsageService::StoredLogin& login, Date now) {
    std::string out = "  " + login.source + " · ";
    if (!login.expiresAt) return out + "no expiry recorded";
    double left = std::chrono::duration<double>(*login.expiresAt - now).count();
    if (login.isExpired(now)) {
        out += "expired " + localTime(*login.expiresAt);
        if (left < 0) out += " (" + Pace::compact(-left) + " ago)";
        return out;
    }
    return out + "expires " + localTime(*login.expiresAt) + " (in " + Pace::compact(left) + ")";
}

void print(std::ostream& out, const std::vector<UsageService::StoredLogin>& logins, const std::vector<QuotaFetch>& probes,
           Date now) {
    out << "\nClaude logins on this machine (freshest usable one wins):\n";
    if (logins.empty()) out << "  none\n";
    for (const auto& l : logins) out << loginLine(l, now) << "\n";
    out << "\n";
    for (const auto& f : probes) {
        out << f.probe.line();
        if (f.readingAt) {
            double age = std::chrono::duration<double>(now - *f.readingAt).count();
            if (age >= 60) out << " (recorded " << Pace::compact(age) << " ago)";
        }
        out << "\n";
    }
}

}  // namespace lumora::UsageDoctor
