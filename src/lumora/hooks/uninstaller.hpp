#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace lumora {
class DefaultsStore;
}

// Removes everything Lumora put on the machine, in a fixed order, and says
// what it did with each item. The user's own configuration files stay, with
// only our entries taken out.
namespace lumora::Uninstaller {

enum class Outcome { done, notPresent, wouldRemove, failed };

struct Step {
    std::string name;
    Outcome outcome = Outcome::notPresent;
    std::string note;  // why a step failed
    bool operator==(const Step&) const = default;
};

// The 16-character label printed before a step's name ("  done          "…).
std::string label(Outcome outcome);

// Runs every step (or, with `dryRun`, only reports what it would remove),
// printing a heading, one line per step and a closing note to `out`. The
// user defaults wiped are `defaults`, by default the shared store.
std::vector<Step> run(bool dryRun, std::ostream& out, DefaultsStore* defaults = nullptr);

}  // namespace lumora::Uninstaller
