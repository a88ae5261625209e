#include "scrivet/claude_subagent_reader.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "scrivet/claude_transcript_derivation.hpp"
#include "scrivet/journal_scan.hpp"
#include "scrivet/recent_cache.hpp"
#include "scrivet/regular_file.hpp"
#include "scrivet/tail_reader.hpp"

namespace scrivet::ClaudeSubagentReader {

namespace {

namespace CTR = ClaudeTranscriptReader;
using simdjson::dom::element;

constexpr size_t kTailLines = 400;
constexpr size_t kFirstLinesBytes = 256 * 1024;
constexpr uint64_t kMetaBytes = 1024 * 1024;  // a meta file is a few hundred bytes

Date toDate(const struct timespec& ts) {
    return Date{} + std::chrono::duration_cast<Date::duration>(std::chrono::seconds(ts.tv_sec) +
                                                                std::chrono::nanoseconds(ts.tv_nsec));
}

// Modification and creation time of a regular file (creation falls back to
// modification where the file system keeps no birth time).
std::optional<std::pair<Date, Date>> fileDates(const fs::path& file) {
    struct statx sx{};
    if (::statx(AT_FDCWD, file.c_str(), 0, STATX_TYPE | STATX_MTIME | STATX_BTIME, &sx) != 0) return std::nullopt;
    if (!S_ISREG(sx.stx_mode)) return std::nullopt;
    struct timespec m{static_cast<time_t>(sx.stx_mtime.tv_sec), static_cast<long>(sx.stx_mtime.tv_nsec)};
    Date mtime = toDate(m);
    Date created = mtime;
    if (sx.stx_mask & STATX_BTIME) {
        struct timespec b{static_cast<time_t>(sx.stx_btime.tv_sec), static_cast<long>(sx.stx_btime.tv_nsec)};
        created = toDate(b);
    }
    return std::make_pair(mtime, created);
}

fs::path sessionFolder(const fs::path& transcript) { return transcript.parent_path() / transcript.stem(); }

bool keepConversation(std::string_view type) { return type == "user" || type == "assistant"; }

struct AgentMeta {
    std::optional<std::string> toolUseId, agentType, description;
    bool finished = false;
};

AgentMeta readMeta(const fs::path& file) {
    AgentMeta meta;
    auto text = RegularFile::readAll(file, kMetaBytes);
    if (!text) return meta;
    simdjson::dom::parser parser;
    element root;
    if (parser.parse(simdjson::padded_string(*text)).get(root) || !root.is_object()) return meta;
    auto str = [&](std::string_view key) -> std::optional<std::string> {
        auto s = json::string(root, key);
        if (!s || s->empty()) return std::nullopt;
        return std::string(*s);
    };
    meta.toolUseId = str("toolUseId");
    meta.agentType = str("agentType");
    meta.description = str("description");
    meta.finished = json::boolean(root, "finished").value_or(false);
    return meta;
}

struct CachedParent {
    FileStamp stamp;
    ParentBlocks parent;
};

RecentCache<CachedParent>& parents() {
    static RecentCache<CachedParent> cache(kCachedParents, kParentIdleLife);
    return cache;
}

void collectBlocks(std::string_view line, simdjson::dom::parser& parser, std::vector<AgentBlock>& blocks) {
    element root;
    if (parser.parse(line.data(), line.size(), false).get(root)) return;
    if (json::string(root, "type") != "assistant") return;
    auto message = json::field(root, "message");
    auto content = message ? json::array(*message, "content") : std::nullopt;
    if (!content) return;
    for (element b : *content) {
        if (json::string(b, "type") != "tool_use") continue;
        auto name = json::string(b, "name");
        if (name != "Task" && name != "Agent") continue;
        AgentBlock block;
        block.toolUseId = std::string(json::string(b, "id").value_or(""));
        block.type = "Subagent";
        if (auto input = json::field(b, "input")) {
            block.promptPrefix = promptPrefix(json::string(*input, "prompt").value_or(""));
            if (auto t = json::string(*input, "subagent_type"); t && !t->empty()) block.type = std::string(*t);
            block.task = std::string(json::string(*input, "description").value_or(""));
        }
        bool known = !block.toolUseId.empty() &&
                     std::any_of(blocks.begin(), blocks.end(),
                                 [&](const AgentBlock& other) { return other.toolUseId == block.toolUseId; });
        if (!known) blocks.push_back(std::move(block));
    }
}

}  // namespace

std::vector<AgentFile> agentFiles(const fs::path& transcript) {
    std::vector<AgentFile> out;
    std::error_code ec;
    for (fs::directory_iterator it(sessionFolder(transcript) / "subagents", ec), end; !ec && it != end;
         it.increment(ec)) {
        auto name = it->path().filename().string();
        if (name.rfind("agent-", 0) != 0 || it->path().extension() != ".jsonl") continue;
        auto dates = fileDates(it->path());
        if (!dates) continue;
        out.push_back({it->path().stem().string().substr(6), it->path(), dates->first, dates->second});
    }
    std::sort(out.begin(), out.end(), [](const AgentFile& a, const AgentFile& b) {
        return a.created != b.created ? a.created < b.created : a.id < b.id;
    });
    return out;
}

std::string promptPrefix(std::string_view prompt) {
    auto text = collapseWhitespace(prompt);
    if (text.size() > kPromptPrefixBytes) text.resize(kPromptPrefixBytes);
    return text;
}

std::optional<std::string> launchPrompt(const fs::path& agentJournal) {
    auto bytes = RegularFile::readHead(agentJournal, kFirstLinesBytes);
    if (!bytes || bytes->empty()) return std::nullopt;
    // A window from the file's start: its last line may be cut, its first is whole.
    auto window = TailReader::parseWindow(*bytes, 0, SIZE_MAX, keepConversation);
    for (const auto& e : window.entries)
        if (e.type() == "user") return CTR::messageText(e);
    return std::nullopt;
}

bool isInterruptedTail(const std::vector<JournalEntry>& entries) {
    for (auto it = entries.rbegin(); it != entries.rend(); ++it)
        if (it->type() == "user") return CTR::isInterrupt(*it);
    return false;
}

std::optional<std::string> latestAction(const std::vector<JournalEntry>& entries) {
    std::optional<std::string> text;
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
        if (it->type() != "assistant") continue;
        auto message = it->field("message");
        auto content = message ? json::array(*message, "content") : std::nullopt;
        if (!content) continue;
        std::optional<std::string> tool;
        for (element b : *content) {
            auto type = json::string(b, "type");
            if (type == "tool_use") {
                auto input = json::field(b, "input");
                auto name = json::string(b, "name").value_or("tool");
                tool = input ? CTR::toolLine(name, *input, 80) : CTR::shortToolName(name);
            } else if (type == "text" && !text) {
                auto t = collapseWhitespace(json::string(b, "text").value_or(""));
                if (!t.empty()) text = truncateText(t, 80);
            }
        }
        if (tool) return tool;
    }
    return text;
}

std::optional<long long> totalTokens(const std::vector<JournalEntry>& entries) {
    std::set<std::string, std::less<>> counted;
    long long total = 0;
    bool any = false;
    for (const auto& e : entries) {
        if (e.type() != "assistant") continue;
        auto message = e.field("message");
        if (!message) continue;
        auto id = json::string(*message, "id").value_or("");
        if (!id.empty() && !counted.emplace(id).second) continue;
        auto usage = json::field(*message, "usage");
        if (!usage) continue;
        any = true;
        total += json::integer(*usage, "input_tokens").value_or(0) +
                 json::integer(*usage, "cache_creation_input_tokens").value_or(0) +
                 json::integer(*usage, "output_tokens").value_or(0);
    }
    if (!any) return std::nullopt;
    return total;
}

std::vector<AgentBlock> parentAgentBlocks(const fs::path& transcript) {
    auto key = transcript.string();
    auto now = scrivet::stamp(transcript);
    if (!now) {
        parents().erase(key);
        return {};
    }
    auto cached = parents().get(key);
    bool reuse = cached && cached->stamp.device == now->device && cached->stamp.inode == now->inode &&
                 now->size >= cached->parent.parsedBytes &&
                 (cached->stamp == *now || JournalScan::endsLineAt(transcript, cached->parent.parsedBytes));
    CachedParent state = reuse ? std::move(*cached) : CachedParent{};
    if (!reuse) {
        // A first look reads only the journal's end: the launches of the
        // subagents running now are recent.
        auto from = now->size > kParentScanBytes ? JournalScan::nextLineStart(transcript, now->size - kParentScanBytes)
                                                 : std::optional<uint64_t>(0);
        if (!from) return {};
        state.parent.parsedBytes = *from;
    }
    if (!reuse || state.stamp != *now) {
        simdjson::dom::parser parser;
        static const std::vector<std::string_view> kNeedles = {"\"name\":\"Agent\"", "\"name\":\"Task\"",
                                                               "\"name\": \"Agent\"", "\"name\": \"Task\""};
        auto end = JournalScan::scan(transcript, state.parent.parsedBytes, kNeedles, [&](std::string_view line) {
            collectBlocks(line, parser, state.parent.blocks);
        });
        if (!end) return {};
        // Only the newest launches can belong to subagents that still run.
        auto& blocks = state.parent.blocks;
        if (blocks.size() > kKeptLaunches) blocks.erase(blocks.begin(), blocks.end() - kKeptLaunches);
        state.parent.parsedBytes = *end;
        state.parent.size = now->size;
        state.parent.mtime = Date{} + std::chrono::duration_cast<Date::duration>(std::chrono::nanoseconds(now->mtimeNanos));
        state.stamp = *now;
    }
    auto blocks = state.parent.blocks;
    parents().put(key, std::move(state));
    return blocks;
}

void resetParentCache() { parents().clear(); }

size_t cachedParents() { return parents().size(); }

std::vector<SubagentInfo> running(const fs::path& transcript, Date now) {
    std::vector<SubagentInfo> out;
    std::optional<std::vector<AgentBlock>> blocks;  // read only when a subagent is live
    for (const auto& file : agentFiles(transcript)) {
        if (now - file.mtime > liveAgentWindow) continue;
        auto metaFile = file.url.parent_path() / ("agent-" + file.id + ".meta.json");
        auto meta = readMeta(metaFile);
        if (meta.finished) continue;
        auto entries = TailReader::entries(file.url, kTailLines, keepConversation);
        if (isInterruptedTail(entries)) continue;

        if (!blocks) blocks = parentAgentBlocks(transcript);
        const AgentBlock* launch = nullptr;
        if (meta.toolUseId) {
            for (const auto& b : *blocks)
                if (b.toolUseId == *meta.toolUseId) launch = &b;
        }
        if (!launch) {
            if (auto prompt = launchPrompt(file.url)) {
                auto prefix = promptPrefix(*prompt);
                for (const auto& b : *blocks)
                    if (!prefix.empty() && b.promptPrefix == prefix) launch = &b;
            }
        }

        SubagentInfo info;
        info.id = launch ? launch->toolUseId : meta.toolUseId.value_or(file.id);
        info.type = launch ? launch->type : meta.agentType.value_or("Subagent");
        info.task = launch ? launch->task : meta.description.value_or("");
        auto parsed = CTR::derive(entries);
        info.model = parsed.model;
        info.action = latestAction(entries);
        info.isRunning = true;
        info.tokens = totalTokens(entries);
        out.push_back(std::move(info));
    }
    return out;
}

std::optional<std::set<std::string>> liveAgentIDs(const fs::path& transcript, Date now, std::chrono::seconds window) {
    std::error_code ec;
    if (!fs::is_directory(sessionFolder(transcript) / "subagents", ec)) return std::nullopt;
    std::set<std::string> ids;
    for (const auto& file : agentFiles(transcript))
        if (now - file.mtime <= window) ids.insert(file.id);
    return ids;
}

std::optional<Date> newestSubagentActivity(const fs::path& transcript) {
    std::optional<Date> newest;
    auto consider = [&](const fs::path& file) {
        if (auto dates = fileDates(file); dates && (!newest || dates->first > *newest)) newest = dates->first;
    };
    for (const auto& file : agentFiles(transcript)) consider(file.url);
    std::error_code ec;
    for (fs::directory_iterator it(sessionFolder(transcript) / "workflows", ec), end; !ec && it != end;
         it.increment(ec)) {
        if (it->path().filename().string().rfind("wf_", 0) == 0) consider(it->path() / "journal.jsonl");
    }
    return newest;
}

std::optional<Date> newestBackgroundTaskActivity(const fs::path& transcript, const std::set<std::string>& ids,
                                                 const fs::path& claudeTempFolder) {
    if (ids.empty() || claudeTempFolder.empty()) return std::nullopt;
    auto tasks = claudeTempFolder / transcript.parent_path().filename() / transcript.stem() / "tasks";
    std::optional<Date> newest;
    for (const auto& id : ids) {
        if (id.empty() || id.find('/') != std::string::npos || id == "." || id == "..") continue;
        if (auto dates = fileDates(tasks / (id + ".output")); dates && (!newest || dates->first > *newest))
            newest = dates->first;
    }
    return newest;
}

}  // namespace scrivet::ClaudeSubagentReader
