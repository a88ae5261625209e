#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "scrivet/journal_entry.hpp"
#include "scrivet/transcript_records.hpp"

// The subagents, workflows and background shells of one Claude Code session,
// read from the files beside its journal <folder>/<session id>.jsonl:
// subagent journals in <folder>/<session id>/subagents/agent-<id>.jsonl (each
// with an agent-<id>.meta.json naming its launching tool call), workflow
// journals in <folder>/<session id>/workflows/wf_<id>/journal.jsonl, and
// background-task output in <claude temp>/<project folder>/<session id>/tasks/<id>.output.
namespace scrivet::ClaudeSubagentReader {

namespace fs = std::filesystem;

// A subagent journal changed within this long counts as running.
inline constexpr std::chrono::seconds liveAgentWindow{120};
// Subagent or background-task output written within this long keeps a session fresh.
inline constexpr std::chrono::seconds backgroundActiveWindow{900};
// How many bytes of a launch prompt pair a subagent journal with its launch.
inline constexpr size_t kPromptPrefixBytes = 200;

struct AgentFile {
    std::string id;
    fs::path url;
    Date mtime{};
    Date created{};
    bool operator==(const AgentFile&) const = default;
};

struct LiveAgent {
    std::string id;
    fs::path url;
    std::string promptPrefix;
    Date created{};
    bool operator==(const LiveAgent&) const = default;
};

// One subagent launch found in the parent journal.
struct AgentBlock {
    std::string toolUseId;
    std::string promptPrefix;
    std::string type;  // "subagent_type", else "Subagent"
    std::string task;  // "description"
    bool operator==(const AgentBlock&) const = default;
};

// The launches parsed from one parent journal, and how far it was read.
struct ParentBlocks {
    uint64_t size = 0;
    Date mtime{};
    uint64_t parsedBytes = 0;
    std::vector<AgentBlock> blocks;
};

// The subagent journals of a session; empty when it has no "subagents" folder.
std::vector<AgentFile> agentFiles(const fs::path& transcript);

// The subagents that run now (journal changed within 120 s, not interrupted,
// not marked finished), each paired with its launch for type and task.
std::vector<SubagentInfo> running(const fs::path& transcript, Date now);

// The ids of subagents whose journals changed within `window`; nothing when
// the session has no "subagents" folder.
std::optional<std::set<std::string>> liveAgentIDs(const fs::path& transcript, Date now,
                                                  std::chrono::seconds window = liveAgentWindow);

// The newest modification among the session's subagent and workflow journals.
std::optional<Date> newestSubagentActivity(const fs::path& transcript);

// The newest modification of the given background tasks' ".output" files
// under `claudeTempFolder` (<temp>/claude-<uid>).
std::optional<Date> newestBackgroundTaskActivity(const fs::path& transcript, const std::set<std::string>& ids,
                                                 const fs::path& claudeTempFolder);

// A first look at a parent journal reads this much of its end for launches.
inline constexpr uint64_t kParentScanBytes = 4u << 20;
// Launches kept per parent (the newest), parents kept at most, and how long
// an unused parent is kept.
inline constexpr size_t kKeptLaunches = 256;
inline constexpr size_t kCachedParents = 64;
inline constexpr std::chrono::hours kParentIdleLife{2};

// The subagent launches of the parent journal. Cached per journal behind its
// own lock; a grown journal is parsed only from where the last parse stopped.
std::vector<AgentBlock> parentAgentBlocks(const fs::path& transcript);
void resetParentCache();
// How many parent journals the cache holds now.
size_t cachedParents();

// The first characters of a prompt, whitespace collapsed, used for pairing.
std::string promptPrefix(std::string_view prompt);
// The text of the first user entry of a subagent journal.
std::optional<std::string> launchPrompt(const fs::path& agentJournal);
// The last user entry is an interrupt.
bool isInterruptedTail(const std::vector<JournalEntry>& entries);
// The newest tool call ("Bash: ls") or, with none, the newest text.
std::optional<std::string> latestAction(const std::vector<JournalEntry>& entries);
// Input, cache-creation and output tokens summed over the assistant messages
// (each message counted once, however many entries it was streamed as).
std::optional<long long> totalTokens(const std::vector<JournalEntry>& entries);

}  // namespace scrivet::ClaudeSubagentReader
