#pragma once

#include <string>
#include <vector>

#include "lumora/ui/frame.hpp"
#include "lumora/ui/view_state.hpp"

// Draws the terminal view into a Frame: the tab line, the column header, one
// row per session (the selected one expanded on request), the status line and
// the key bar. Pure: the same model, state and size always give the same frame.
namespace lumora::ui::ViewRenderer {

inline constexpr int kMinWidth = 40;
inline constexpr int kMinHeight = 8;

// The whole screen, exactly `width` × `height`.
Frame render(const ViewModel& model, const ViewState& state, int width, int height);

// "now", "12m", "3h", "4d".
std::string ageText(Date lastActivity, Date now);
// Today's spend for the header strip: "today 1.2M tok · $3.40" ("≥$3.40"
// when some model had no price).
std::string spendText(const SpendSummary& s);
// Two letters per provider for the tab's harness marks: "CC", "Cu", "Cx", "Ki", "OC".
std::string providerInitials(HarnessProvider p);
// The context column: a gauge of `cells` blocks and the token count, "~"
// marking a window size guessed from the model name ("████░░ 42k~").
std::string contextText(const AgentInstance& a, int cells);
// A quota window's gauge: `cells` blocks filled by what is left ("███░░").
std::string quotaGauge(double percentLeft, int cells);
inline constexpr int kQuotaGaugeCells = 5;
// The quota strip: one line per provider that has readings, each fitted to
// `width` columns, at most `maxLines` of them.
std::vector<Line> quotaStrip(const ViewModel& model, int width, int maxLines);
// What an approval asks for on one line, every character shown: "Bash: git status && npm test".
std::string approvalLine(const ApprovalRequest& request);

}  // namespace lumora::ui::ViewRenderer
