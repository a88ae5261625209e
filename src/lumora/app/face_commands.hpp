#pragma once

#include <iosfwd>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "lumora/monitor/agent_instance.hpp"

// The small faces of the command line: `--watch`, `--status-line` and
// `--jump-next`. Each asks the running service when there is one and does
// the work itself (read-only) when there is none.
namespace lumora::FaceCommands {

// How a face prints the state.
enum class Format {
    json,    // the state line itself
    waybar,  // waybar's custom-module JSON: text, tooltip, class, alt
    plain,   // the text alone (polybar's tail = true)
    tmux,    // the text with tmux colour codes
};
// "json", "waybar", "plain", "tmux"; nothing for another word.
std::optional<Format> formatNamed(std::string_view name);

// The tab in a few characters: a count per status, worst first ("!2 ?1 *3
// ·4": needs you, waiting, working, idle); empty without sessions. With
// `tmux`, each count in its status colour (#[fg=#rrggbb]) and #[default] after.
std::string tabText(const std::vector<AgentInstance>& sessions, bool tmux = false);
// One line per session, worst first: status, project and branch, agent, topic or summary.
std::string tooltip(const std::vector<AgentInstance>& sessions, const std::set<std::string>& unseen = {});
// The worst status's name ("attention", "waiting", "working", "idle"), or "none".
std::string worstClass(const std::vector<AgentInstance>& sessions);
// waybar's {"text","tooltip","class","alt"} object.
nlohmann::ordered_json waybar(const std::vector<AgentInstance>& sessions, const std::set<std::string>& unseen = {});
// A state line as `format` prints it (without "\n"); nothing when it is not a state line.
std::optional<std::string> formatState(std::string_view stateLine, Format format);

// The session that most needs the user: the first in the tab's worst-first
// order when it needs them or waits for them; nothing otherwise.
std::optional<AgentInstance> mostInNeed(const std::vector<AgentInstance>& sessions,
                                        const std::set<std::string>& unseen);

// `lumora --watch [--format F]`: prints the state at once and on every
// change until interrupted or its output closes.
int watch(Format format);
// `lumora --status-line [--format F]`: one line, then exits.
int statusLine(Format format, std::ostream& out);
// `lumora --jump-next`: jumps to mostInNeed(), or says that nothing needs you.
int jumpNext(std::ostream& out, std::ostream& err);

}  // namespace lumora::FaceCommands
