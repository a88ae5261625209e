#include "lumora/app/spend_command.hpp"

#include <cstdio>
#include <iostream>
#include <sstream>

#include "lumora/base/json_text.hpp"
#include "lumora/spend/local_calendar.hpp"
#include "lumora/spend/model_pricing.hpp"
#include "lumora/spend/spend_scanner.hpp"
#include "lumora/spend/spend_store.hpp"

namespace lumora::SpendCommand {

namespace {

using Json = nlohmann::ordered_json;
using SpendText::compactTokens;
using SpendText::dollars;

std::string grouped(int64_t n) {
    std::string digits = std::to_string(n < 0 ? -n : n);
    std::string out;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) out += ',';
        out += digits[i];
    }
    return n < 0 ? "-" + out : out;
}

std::string pad(const std::string& s, size_t width, bool right) {
    // Column widths count characters, not bytes ("≥" and "–" are one column).
    size_t columns = 0;
    for (unsigned char c : s) columns += (c & 0xC0) != 0x80;
    if (columns >= width) return s;
    std::string fill(width - columns, ' ');
    return right ? fill + s : s + fill;
}

struct ProviderColumn {
    const char* name;
    int64_t SpendHistory::Day::*bucket;
    int64_t SpendHistory::*total;
    double SpendHistory::*cost;
};

const std::vector<ProviderColumn>& providers() {
    static const std::vector<ProviderColumn> list = {
        {"Claude", &SpendHistory::Day::claudeTokens, &SpendHistory::claudeTokens, &SpendHistory::claudeCost},
        {"Codex", &SpendHistory::Day::codexTokens, &SpendHistory::codexTokens, &SpendHistory::codexCost},
        {"Kimi", &SpendHistory::Day::kimiTokens, &SpendHistory::kimiTokens, &SpendHistory::kimiCost},
        {"OpenCode", &SpendHistory::Day::opencodeTokens, &SpendHistory::opencodeTokens, &SpendHistory::opencodeCost},
    };
    return list;
}

// A dollar figure, marked as a floor when some tokens had no price.
std::string costText(double cost, bool understated) { return (understated ? "≥" : "") + dollars(cost); }

void section(std::ostringstream& out, const char* title, const SpendHistory& h, const std::vector<size_t>& shown,
             const std::string& previousLabel) {
    bool floor = !h.unpricedModels.empty();
    out << title << "\n";
    out << "  " << pad(h.unit == SpendHistory::Unit::hour ? "Hour" : "Day", 12, false);
    for (size_t p : shown) out << pad(providers()[p].name, 10, true);
    out << pad("Tokens", 10, true) << pad("Cost", 11, true) << "\n";
    for (const auto& d : h.days) {
        std::string label = h.unit == SpendHistory::Unit::hour ? LocalCalendar::isoLocal(d.date).substr(11, 5)
                                                               : LocalCalendar::shortDayText(d.date);
        out << "  " << pad(label, 12, false);
        for (size_t p : shown) {
            int64_t v = d.*(providers()[p].bucket);
            out << pad(v ? compactTokens(v) : "–", 10, true);
        }
        out << pad(d.tokens() ? compactTokens(d.tokens()) : "–", 10, true)
            << pad(d.tokens() ? dollars(d.cost) : "–", 11, true) << "\n";
    }
    for (size_t p : shown) {
        out << "  " << pad(providers()[p].name, 12, false) << pad(grouped(h.*(providers()[p].total)), 16, true)
            << " tokens  " << pad(dollars(h.*(providers()[p].cost)), 11, true) << "\n";
    }
    out << "  " << pad("Total", 12, false) << pad(grouped(h.totalTokens), 16, true) << " tokens  "
        << pad(costText(h.totalCost, floor), 11, true) << "\n";
    out << "  " << previousLabel << ": " << grouped(h.previousTokens) << " tokens\n\n";
}

}  // namespace

Json toJson(const SpendHistory& h) {
    Json j;
    j["unit"] = h.unit == SpendHistory::Unit::hour ? "hour" : "day";
    j["span"] = h.span;
    Json days = Json::array();
    for (const auto& d : h.days) {
        days.push_back({{"date", LocalCalendar::isoLocal(d.date)},
                        {"claudeTokens", d.claudeTokens},
                        {"codexTokens", d.codexTokens},
                        {"kimiTokens", d.kimiTokens},
                        {"cursorTokens", d.cursorTokens},
                        {"opencodeTokens", d.opencodeTokens},
                        {"cost", d.cost}});
    }
    j["days"] = days;
    j["totalTokens"] = h.totalTokens;
    j["totalCost"] = h.totalCost;
    j["claudeTokens"] = h.claudeTokens;
    j["codexTokens"] = h.codexTokens;
    j["kimiTokens"] = h.kimiTokens;
    j["cursorTokens"] = h.cursorTokens;
    j["opencodeTokens"] = h.opencodeTokens;
    j["claudeCost"] = h.claudeCost;
    j["codexCost"] = h.codexCost;
    j["kimiCost"] = h.kimiCost;
    j["opencodeCost"] = h.opencodeCost;
    j["cursorModels"] = h.cursorModels;
    j["cursorFetchedAt"] = h.cursorFetchedAt ? Json(LocalCalendar::isoLocal(*h.cursorFetchedAt)) : Json(nullptr);
    j["unpricedModels"] = h.unpricedModels;
    j["previousTokens"] = h.previousTokens;
    return j;
}

std::string text(const SpendHistory& today, const SpendHistory& week, const SpendHistory& month, Date now) {
    std::ostringstream out;
    // The agents with any work this month get a column; the others would only show dashes.
    std::vector<size_t> shown;
    for (size_t p = 0; p < providers().size(); ++p) {
        if (month.*(providers()[p].total) > 0 || today.*(providers()[p].total) > 0) shown.push_back(p);
    }
    out << "Spend on " << LocalCalendar::shortDayText(now) << " " << LocalCalendar::dayText(now).substr(0, 4)
        << " at " << LocalCalendar::isoLocal(now).substr(11, 5) << " (estimated from the agents' token counts)\n\n";
    if (shown.empty()) {
        out << "No token usage in the agents' journals this month.\n";
        return out.str();
    }
    section(out, "Today, by hour", today, shown, "Yesterday by this time");
    section(out, "This week, by day", week, shown, "The 7 days before");
    section(out, "This month, by day", month, shown, "The 30 days before");
    if (!month.unpricedModels.empty() || !today.unpricedModels.empty()) {
        const auto& names = month.unpricedModels.empty() ? today.unpricedModels : month.unpricedModels;
        std::string list;
        for (const auto& n : names) list += (list.empty() ? "" : ", ") + n;
        out << "Counted as tokens but priced at $0 — no catalog has rates for " << list << ".\n";
        out << "The real cost is higher. Settings ▸ refresh pricing may know them now.\n";
        out << "(lumora --pricing-refresh fetches the price lists.)\n";
    }
    return out.str();
}

int report(bool json, std::ostream& out, std::ostream& err) {
    auto now = std::chrono::system_clock::now();
    auto& store = SpendStore::shared();
    SpendScanner scanner(store, ModelPricing::shared(), SpendScanner::defaultRoots());
    auto result = scanner.scan(now);
    auto today = SpendHistory::build(SpendRange::today, result.entries, now);
    auto week = SpendHistory::build(SpendRange::week, result.entries, now);
    auto month = SpendHistory::build(SpendRange::month, result.entries, now);
    if (json) {
        Json j;
        j["ranges"] = {{"today", toJson(today)}, {"week", toJson(week)}, {"month", toJson(month)}};
        out << JsonText::dump(j, 2) << "\n";
    } else {
        out << text(today, week, month, now);
    }
    out.flush();
    // The report is out; the cache is saved for the next one.
    auto saved = store.saveIfDirty();
    if (!saved.ok) err << "lumora: could not save the spend cache: " << saved.why << "\n";
    return 0;
}

int refreshPricing(std::ostream& out) {
    for (const auto& line : ModelPricing::shared().refresh(true)) out << line << "\n";
    return 0;
}

}  // namespace lumora::SpendCommand
