#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "scrivet/harness_provider.hpp"
#include "scrivet/journal_entry.hpp"
#include "scrivet/transcript_records.hpp"

// A short topic for a session row, chosen in tiers: the agent's own title
// when it has one, else the name the local model server gave the session
// (SessionNamer), else the user's first prompt, cleaned of markup and cut to
// fit. The topic always comes from the FIRST human prompt of a session, read
// from the head of its journal, so a later prompt never rewrites it.
namespace scrivet::SessionTopic {

inline constexpr size_t maxLength = 64;
// How much of a cleaned prompt is kept for naming (and for the topic).
inline constexpr size_t kPromptLength = 1000;

// The prompt as one line of plain words: a slash command's echo rebuilt as
// "/name args", markup tags and reminder blocks removed (an unclosed tag
// ends the text), fenced code dropped, a slash command reduced to its
// argument, image paste markers and markdown marks removed, whitespace
// collapsed; at most `kPromptLength` characters. Nothing when what is left
// says nothing (a "/clear" echo, a task notification, a continued-session
// preamble, an image paste alone, a bare slash command, a hook echo).
std::optional<std::string> promptText(std::string_view prompt);

// The prompt as a topic: promptText() cut to `maxLength` on a word boundary
// (ending in "…" when cut).
std::optional<std::string> sanitize(std::string_view prompt);

// At most `limit` characters, cut on a word boundary and ending in "…" when cut.
std::string truncated(std::string_view text, size_t limit);

// The row's topic by the tiers: the agent's own title unless it sanitises to
// nothing; with a session id, the local model's name for it when one is
// cached (asking for one in the background when none is); else the
// sanitised prompt; else nothing.
std::optional<std::string> label(const std::optional<std::string>& givenTitle,
                                 const std::optional<std::string>& rawPrompt,
                                 const std::optional<std::string>& sessionId = std::nullopt);

// Sets a reader's `topic` by label() and, when no own title won, its
// `firstPrompt` (the prompt's promptText, which the monitor hands to the
// namer again on later scans, so a name that arrives later replaces the
// prompt on a row whose journal has not changed since).
void fill(TranscriptInfo& info, const std::optional<std::string>& givenTitle,
          const std::optional<std::string>& rawPrompt, const std::optional<std::string>& sessionId);

// --- First prompts ------------------------------------------------------------------

// The first human prompt among a journal's head entries (oldest first), as
// the user wrote it; entries whose text cleans to nothing are walked past.
// Claude: "user" entries that are not meta, a subagent's brief
// ("isSidechain"), a tool result, an interrupt, a task notification or a
// local command's echo; a string content or the text blocks of a list (a
// pasted image beside the text does not hide it).
std::optional<std::string> claudeFirstPrompt(const std::vector<JournalEntry>& head);
// Codex: the "user_message" event or the newer "item_completed" "UserMessage"
// item; else the first "response_item" user message that is not injected
// context (<environment_context>, AGENTS.md instructions, skills).
std::optional<std::string> codexFirstPrompt(const std::vector<JournalEntry>& head);
// Cursor: the text between "<user_query>" and "</user_query>" of a user line;
// a line without the wrapper gives nothing.
std::optional<std::string> cursorFirstPrompt(const std::vector<JournalEntry>& head);

// The first human prompt of a journal of the given provider (for Kimi its
// "wire.jsonl"), read from the file's head (a bounded number of lines and
// bytes) and remembered per file: once found it is never read again, and a
// head without one is read again only while the file is shorter than the
// head. Nothing for OpenCode (its prompts live in its database).
std::optional<std::string> firstPrompt(const std::filesystem::path& transcript, HarnessProvider provider);

// The sanitised first human prompt of a journal.
std::optional<std::string> topic(const std::filesystem::path& transcript, HarnessProvider provider);

// The tiered topic of a journal: for Claude its newest "ai-title" as the
// agent's own title, then the name and the first prompt as in label().
std::optional<std::string> label(const std::filesystem::path& transcript, HarnessProvider provider,
                                 const std::optional<std::string>& sessionId);

// Forgets every remembered first prompt (tests and benchmarks).
void clearCache();

}  // namespace scrivet::SessionTopic
