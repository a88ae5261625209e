#include "lumora/monitor/tab_layout.hpp"

#include <algorithm>
#include <map>
#include <string>

namespace lumora {

std::string_view rawValue(TabMarks m) {
    switch (m) {
        case TabMarks::dots: return "dots";
        case TabMarks::harness: return "harness";
        case TabMarks::onApproach: return "onApproach";
    }
    return "dots";
}

std::optional<TabMarks> tabMarksFromRaw(std::string_view raw) {
    for (auto m : {TabMarks::dots, TabMarks::harness, TabMarks::onApproach}) {
        if (rawValue(m) == raw) return m;
    }
    return std::nullopt;
}

std::string_view label(TabMarks m) {
    switch (m) {
        case TabMarks::dots: return "Dots";
        case TabMarks::harness: return "Harness";
        case TabMarks::onApproach: return "On approach";
    }
    return "Dots";
}

bool followsProximity(TabMarks m) { return m == TabMarks::onApproach; }
bool distinguishesHarness(TabMarks m) { return m != TabMarks::dots; }

double slotWidth(TabMarks m, double reveal, double emergence) {
    reveal = std::clamp(reveal, 0.0, 1.0);
    emergence = std::clamp(emergence, 0.0, 1.0);
    double w = kDotSlotWidth;
    if (m == TabMarks::harness) w = kMarkSlotWidth;
    if (m == TabMarks::onApproach) w = kDotSlotWidth + (kMarkSlotWidth - kDotSlotWidth) * reveal;
    return w * emergence;
}

namespace AgentDisplay {

TabGrouping tabClusters(const std::vector<AgentInstance>& instances, bool harness, int cap) {
    TabGrouping out;
    if (instances.empty()) return out;
    bool allIdle = std::all_of(instances.begin(), instances.end(),
                               [](const AgentInstance& a) { return a.status == AgentStatus::idle; });

    // Groups in final order, before the cap.
    std::vector<TabCluster> groups;
    auto groupStatus = [&](AgentStatus status) {
        std::vector<const AgentInstance*> members;
        for (const auto& a : instances) {
            if (a.status == status) members.push_back(&a);
        }
        if (members.empty()) return;
        if (status == AgentStatus::attention && members.size() <= 3) {
            for (const auto* a : members) {
                groups.push_back({status, harness ? std::optional(a->provider) : std::nullopt, 1, 0});
            }
            return;
        }
        if (!harness) {
            groups.push_back({status, std::nullopt, static_cast<int>(members.size()), 0});
            return;
        }
        for (auto provider : scrivet::kAllProviders) {
            int n = static_cast<int>(std::count_if(members.begin(), members.end(),
                                                   [&](const AgentInstance* a) { return a->provider == provider; }));
            if (n > 0) groups.push_back({status, provider, n, 0});
        }
    };
    if (allIdle) {
        groupStatus(AgentStatus::idle);
    } else {
        for (auto status : {AgentStatus::attention, AgentStatus::waiting, AgentStatus::working}) groupStatus(status);
    }

    for (size_t i = 0; i < groups.size(); ++i) {
        if (static_cast<int>(i) < cap) {
            groups[i].index = static_cast<int>(i);
            out.clusters.push_back(groups[i]);
        } else {
            out.hidden += groups[i].count;
        }
    }
    return out;
}

}  // namespace AgentDisplay

namespace Layout {

namespace {
constexpr double kGlyph = 9.0 * 0.62;  // average glyph of the 9 pt numeral font
}

double tabOverflowWidth(int hidden) {
    if (hidden <= 0) return 0;
    auto text = "+" + std::to_string(hidden);
    return static_cast<double>(text.size()) * kGlyph + 6 + 2;
}

double tabContentWidth(int slots, double slotWidth, bool hasNotch, int overflow, const std::vector<int>& counts) {
    int n = std::max(slots, 1);
    double width = n * slotWidth + (n - 1) * 6.0;
    width += 20;  // the lozenge's ends and the low-quota ring
    if (!hasNotch) width += 16;
    width += tabOverflowWidth(overflow);
    for (int c : counts) {
        if (c >= 2) width += static_cast<double>(std::to_string(c).size()) * kGlyph + 2.5;
    }
    return width;
}

double tabRevealProgress(double distance) {
    if (!(distance < kRevealStartDistance)) return 0;  // also NaN
    if (distance <= kRevealFullDistance) return 1;
    double t = (kRevealStartDistance - distance) / (kRevealStartDistance - kRevealFullDistance);
    return t * t * t * (3 - 2 * t);  // eased in: flat at the threshold, rising all the way
}

double approachTabWidth(double restWidth, double revealedWidth, double notchWidth, double proximity) {
    double p = std::clamp(proximity, 0.0, 1.0);
    double width = restWidth + (std::max(revealedWidth, restWidth) - restWidth) * p;
    return std::max(width, notchWidth);
}

}  // namespace Layout

}  // namespace lumora
