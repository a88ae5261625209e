#pragma once

// A deterministic corpus of agent journals for the spend scanner, shaped like
// the real ones: Claude Code sessions that write one entry per content block
// (each repeating the message id, request id and full usage), large tool
// results and 40-70 KB of bookkeeping per turn, subagent journals, resumed
// sessions that replay earlier entries under a new session id, synthetic
// entries with zero usage, replies aborted mid-stream, lines cut short at the
// end of a file, a little garbage; Codex rollouts with turn contexts,
// token_count events (some emitted twice) and, in newer files, a
// token_usage_record line for the same response; Kimi wire journals with
// step-scope and turn-scope usage records. It keeps its own ground truth:
// every response that counts, with its tokens and its price worked out here,
// independently of the scanner.
//
// Used by bench/spend_scan_bench.cpp (about 1.1 GB in about 2,700 files over
// 40 days), by the `spend_corpus` tool and by the tests (a few megabytes).

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace spendcorpus {

namespace fs = std::filesystem;

enum Provider { claude = 0, codex = 1, kimi = 2 };

// One response that counts, as the ground truth knows it.
struct TruthEvent {
    Provider provider = claude;
    int64_t ms = 0;       // when its first line was written
    int64_t tokens = 0;
    double cost = 0;      // 0 when its model is unpriced
    std::string model;    // as the journal names it
    bool priced = true;
};

struct Truth {
    std::vector<TruthEvent> events;
    std::set<std::string> unpricedModels;
    uint64_t bytes = 0;
    size_t files = 0;
    std::vector<fs::path> paths;       // every journal written
    std::vector<fs::path> claudeFiles; // main Claude journals that end on a complete line
    int64_t nowMs = 0;

    int64_t tokens(int provider = -1) const {
        int64_t sum = 0;
        for (const auto& e : events) {
            if (provider < 0 || e.provider == provider) sum += e.tokens;
        }
        return sum;
    }
    double cost(int provider = -1) const {
        double sum = 0;
        for (const auto& e : events) {
            if (provider < 0 || e.provider == provider) sum += e.cost;
        }
        return sum;
    }
};

struct Options {
    fs::path home;                 // the corpus is written as this user's agent folders
    uint64_t targetBytes = 1'100'000'000;
    int claudeSessions = 1'650;    // with subagents, about 2,000 Claude files
    int codexSessions = 560;
    int kimiSessions = 140;
    int days = 40;
    int64_t nowMs = 0;             // the corpus ends here
    uint64_t seed = 20261124;

    static Options full(fs::path home, int64_t nowMs) {
        Options o;
        o.home = std::move(home);
        o.nowMs = nowMs;
        return o;
    }
    static Options small(fs::path home, int64_t nowMs) {
        Options o;
        o.home = std::move(home);
        o.nowMs = nowMs;
        o.targetBytes = 4'000'000;
        o.claudeSessions = 24;
        o.codexSessions = 10;
        o.kimiSessions = 6;
        o.days = 12;
        return o;
    }
};

// --- prices, as this generator knows them (dollars per million tokens) ------
struct Rates {
    double input, output, cacheRead, cacheWrite;
};
inline bool ratesFor(const std::string& model, Rates& r) {
    static const std::map<std::string, Rates> table = {
        {"claude-sonnet-4-5-20250929", {3, 15, 0.3, 3.75}}, {"claude-opus-4-7", {15, 75, 1.5, 18.75}},
        {"claude-haiku-4-5-20251001", {1, 5, 0.1, 1.25}},   {"claude-fable-5[1m]", {15, 75, 1.5, 18.75}},
        {"gpt-5.5-codex", {1.25, 10, 0.125, 1.5625}},       {"gpt-5-codex", {1.25, 10, 0.125, 1.5625}},
        {"gpt-5.6-terra", {2.5, 15, 0.25, 3.125}},          {"kimi-code/k3", {3, 15, 0.3, 3.75}},
        {"kimi-k3", {3, 15, 0.3, 3.75}},
    };
    auto it = table.find(model);
    if (it == table.end()) return false;
    r = it->second;
    return true;
}

// --- the generator ----------------------------------------------------------
class Generator {
public:
    explicit Generator(Options o) : o_(std::move(o)), s_(o_.seed) { makeFiller(); }

    Truth run() {
        truth_.nowMs = o_.nowMs;
        // Each session's share of the bytes: heavy-tailed, as real use is.
        int sessions = o_.claudeSessions + o_.codexSessions + o_.kimiSessions;
        std::vector<double> weight(static_cast<size_t>(sessions));
        double sum = 0;
        for (auto& w : weight) sum += (w = std::exp(normal() * 1.1));
        // Claude's journals are the bulk: 76%, Codex 19%, Kimi 5%.
        auto budget = [&](int i, double share, int count) {
            double providerSum = 0;
            int from = i < o_.claudeSessions ? 0 : i < o_.claudeSessions + o_.codexSessions ? o_.claudeSessions
                                                                                         : o_.claudeSessions + o_.codexSessions;
            for (int k = from; k < from + count; ++k) providerSum += weight[static_cast<size_t>(k)];
            return static_cast<uint64_t>(static_cast<double>(o_.targetBytes) * share * weight[static_cast<size_t>(i)] /
                                         providerSum);
        };
        (void)sum;
        for (int i = 0; i < o_.claudeSessions; ++i) claudeSession(i, budget(i, 0.76, o_.claudeSessions));
        for (int i = 0; i < o_.codexSessions; ++i) {
            int k = o_.claudeSessions + i;
            codexSession(i, budget(k, 0.19, o_.codexSessions));
        }
        for (int i = 0; i < o_.kimiSessions; ++i) {
            int k = o_.claudeSessions + o_.codexSessions + i;
            kimiSession(i, budget(k, 0.05, o_.kimiSessions));
        }
        for (const auto& e : truth_.events) {
            if (!e.priced) truth_.unpricedModels.insert(e.model);
        }
        return truth_;
    }

    // Appends one finished API message (two blocks and a tool result) to a
    // Claude journal, dated `ms`; returns the response it adds.
    static TruthEvent appendClaudeMessage(const fs::path& file, int64_t ms, uint64_t seed) {
        Generator g(Options{});
        g.s_ = seed;
        std::string out;
        auto e = g.claudeMessage(out, "appended-session", ms, "claude-sonnet-4-5-20250929", 2, false, "");
        out += g.toolResult(ms + 900, "appended-session", 4000);
        std::ofstream f(file, std::ios::app | std::ios::binary);
        f << out;
        return e;
    }

private:
    // --- randomness ---
    uint64_t next() {
        uint64_t z = (s_ += 0x9e3779b97f4a7c15ULL);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
        return z ^ (z >> 31);
    }
    double uniform() { return static_cast<double>(next() >> 11) / 9007199254740992.0; }
    int64_t range(int64_t a, int64_t b) { return a + static_cast<int64_t>(next() % static_cast<uint64_t>(b - a + 1)); }
    bool chance(double p) { return uniform() < p; }
    double normal() {
        double u = std::max(uniform(), 1e-12), v = uniform();
        return std::sqrt(-2 * std::log(u)) * std::cos(6.283185307179586 * v);
    }
    std::string hex(int n) {
        static const char* d = "0123456789abcdef";
        std::string s;
        for (int i = 0; i < n; ++i) s += d[next() % 16];
        return s;
    }
    std::string alnum(int n) {
        static const char* d = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
        std::string s;
        for (int i = 0; i < n; ++i) s += d[next() % 62];
        return s;
    }
    std::string uuid() { return hex(8) + "-" + hex(4) + "-" + hex(4) + "-" + hex(4) + "-" + hex(12); }

    // A tool result's or a file's size: mostly small, sometimes large.
    size_t payloadSize() {
        double r = uniform();
        if (r < 0.75) return static_cast<size_t>(range(200, 4'000));
        if (r < 0.95) return static_cast<size_t>(range(4'000, 40'000));
        if (r < 0.995) return static_cast<size_t>(range(40'000, 400'000));
        return static_cast<size_t>(range(400'000, 2'500'000));
    }

    // JSON-string-safe text with the escapes, words and false leads of real output.
    void makeFiller() {
        static const char* words[] = {
            "const", "usage", "token_count", "return", "function", "\\\"usage\\\": {\\\"input_tokens\\\": 12}",
            "import", "\\n", "    ", "error:", "npm", "test", "passed", "\\\"type\\\":\\\"assistant\\\"", "src/app.ts",
            "{", "}", "[]", "=>", "if", "else", "\\\"token_count\\\"", "line", "42", "0x1f", "ok", "\\t", "usage.record",
        };
        std::string f;
        while (f.size() < (4u << 20)) {
            f += words[next() % (sizeof words / sizeof *words)];
            f += ' ';
        }
        filler_ = std::move(f);
    }
    std::string text(size_t n) {
        if (n == 0) return {};
        std::string out;
        while (out.size() < n) {
            size_t want = std::min(n - out.size(), filler_.size() / 2);
            size_t start = static_cast<size_t>(next() % (filler_.size() - want));
            if (start > 0 && filler_[start - 1] == '\\') ++start;
            std::string piece = filler_.substr(start, want);
            while (!piece.empty() && piece.back() == '\\') piece.pop_back();
            out += piece;
        }
        while (!out.empty() && out.back() == '\\') out.pop_back();
        return out;
    }

    static std::string iso(int64_t ms) {
        std::time_t t = static_cast<std::time_t>(ms / 1000);
        std::tm tm{};
        ::gmtime_r(&t, &tm);
        char buf[40];
        std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1,
                      tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(ms % 1000));
        return buf;
    }

    void record(Provider p, int64_t ms, int64_t tokens, double cost, const std::string& model, bool priced) {
        truth_.events.push_back({p, ms, tokens, priced ? cost : 0.0, model, priced});
    }

    // --- Claude ---
    TruthEvent claudeMessage(std::string& out, const std::string& session, int64_t& ms, const std::string& model,
                             int blocks, bool abortMidStream, const std::string& agent) {
        std::string msgId = "msg_01" + alnum(22);
        std::string reqId = abortMidStream ? "" : "req_011C" + alnum(18);
        int64_t input = range(1, 600), output = abortMidStream ? 1 : range(20, 4'000);
        int64_t cacheRead = chance(0.9) ? range(8'000, 160'000) : 0;
        int64_t write = chance(0.6) ? range(200, 20'000) : 0;
        int64_t hour = chance(0.25) ? write : (chance(0.1) ? write / 3 : 0);
        int64_t five = write - hour;
        std::string usage = "{\"input_tokens\":" + std::to_string(input) +
                            ",\"cache_creation_input_tokens\":" + std::to_string(write) +
                            ",\"cache_read_input_tokens\":" + std::to_string(cacheRead) +
                            ",\"output_tokens\":" + std::to_string(output) +
                            ",\"output_tokens_details\":{\"thinking_tokens\":0},\"server_tool_use\":{\"web_search_requests\":0,"
                            "\"web_fetch_requests\":0},\"service_tier\":\"standard\",\"cache_creation\":{"
                            "\"ephemeral_1h_input_tokens\":" + std::to_string(hour) +
                            ",\"ephemeral_5m_input_tokens\":" + std::to_string(five) +
                            "},\"inference_geo\":\"\",\"iterations\":[],\"speed\":\"standard\"}";
        int64_t first = ms;
        std::string parent = uuid();
        for (int b = 0; b < blocks; ++b) {
            std::string content;
            if (b == 0 && blocks > 2) {
                content = "{\"type\":\"thinking\",\"thinking\":\"" + text(static_cast<size_t>(range(100, 3'000))) +
                          "\",\"signature\":\"" + alnum(200) + "\"}";
            } else if (b + 1 == blocks && blocks > 1) {
                bool big = chance(0.15);
                content = "{\"type\":\"tool_use\",\"id\":\"toolu_" + alnum(24) + "\",\"name\":\"" +
                          (big ? "Write" : "Bash") + "\",\"input\":{" +
                          (big ? "\"file_path\":\"/home/dev/proj/src/x.ts\",\"content\":\"" + text(payloadSize()) + "\""
                               : "\"command\":\"npm test\",\"description\":\"Run the tests\"") +
                          "}}";
            } else {
                content = "{\"type\":\"text\",\"text\":\"" + text(static_cast<size_t>(range(20, 1'500))) + "\"}";
            }
            std::string uuidNow = uuid();
            out += "{\"parentUuid\":\"" + parent + "\",\"isSidechain\":" + (agent.empty() ? "false" : "true") +
                   (agent.empty() ? "" : ",\"agentId\":\"" + agent + "\"") + ",\"message\":{\"id\":\"" + msgId +
                   "\",\"type\":\"message\",\"role\":\"assistant\",\"model\":\"" + model + "\",\"content\":[" + content +
                   "],\"stop_reason\":" + (abortMidStream ? "null" : "\"tool_use\"") +
                   ",\"stop_sequence\":null,\"usage\":" + usage + "},\"apiBlockIndex\":" + std::to_string(b) +
                   (reqId.empty() ? "" : ",\"requestId\":\"" + reqId + "\"") +
                   ",\"requestRef\":\"" + uuid() + "\",\"type\":\"assistant\",\"uuid\":\"" + uuidNow +
                   "\",\"timestamp\":\"" + iso(ms) + "\"" + (abortMidStream ? ",\"isAbortedMidStream\":true" : "") +
                   ",\"userType\":\"external\",\"entrypoint\":\"cli\",\"cwd\":\"/home/dev/proj\",\"sessionId\":\"" +
                   session + "\",\"version\":\"2.1.330\",\"gitBranch\":\"main\"}\n";
            parent = uuidNow;
            ms += range(5, 2'500);
        }
        Rates r{};
        bool priced = ratesFor(model, r);
        double cost = (static_cast<double>(input) * r.input + static_cast<double>(five) * r.cacheWrite +
                       static_cast<double>(hour) * 2 * r.input + static_cast<double>(cacheRead) * r.cacheRead +
                       static_cast<double>(output) * r.output) / 1e6;
        TruthEvent e{claude, first, input + write + cacheRead + output, priced ? cost : 0.0, model, priced};
        return e;
    }

    std::string toolResult(int64_t ms, const std::string& session, size_t size) {
        return "{\"parentUuid\":\"" + uuid() + "\",\"isSidechain\":false,\"type\":\"user\",\"message\":{\"role\":\"user\","
               "\"content\":[{\"tool_use_id\":\"toolu_" + alnum(24) + "\",\"type\":\"tool_result\",\"content\":\"" +
               text(size) + "\",\"is_error\":false}]},\"uuid\":\"" + uuid() + "\",\"timestamp\":\"" + iso(ms) +
               "\",\"toolUseResult\":{\"stdout\":\"" + text(std::min<size_t>(size / 4, 2'000)) +
               "\",\"stderr\":\"\",\"interrupted\":false},\"sessionId\":\"" + session + "\",\"version\":\"2.1.330\"}\n";
    }

    std::string userPrompt(int64_t ms, const std::string& session) {
        return "{\"parentUuid\":null,\"isSidechain\":false,\"type\":\"user\",\"message\":{\"role\":\"user\",\"content\":\"" +
               text(static_cast<size_t>(range(20, 800))) + "\"},\"uuid\":\"" + uuid() + "\",\"timestamp\":\"" + iso(ms) +
               "\",\"cwd\":\"/home/dev/proj\",\"sessionId\":\"" + session + "\",\"version\":\"2.1.330\"}\n";
    }

    // What Claude Code writes after every turn: 40-70 KB of snapshots and bookkeeping.
    std::string bookkeeping(int64_t ms, const std::string& session, const std::string& model) {
        std::string out;
        out += "{\"type\":\"api-request-shape\",\"sessionId\":\"" + session + "\",\"shapeHash\":\"" + hex(64) +
               "\",\"timestamp\":\"" + iso(ms) + "\",\"shape\":{\"system\":[{\"type\":\"text\",\"text\":\"" +
               text(static_cast<size_t>(range(30'000, 42'000))) + "\"}]}}\n";
        out += "{\"type\":\"attachment\",\"attachment\":{\"type\":\"prompt_snapshot\",\"content\":\"" +
               text(static_cast<size_t>(range(8'000, 24'000))) + "\"},\"uuid\":\"" + uuid() + "\",\"timestamp\":\"" +
               iso(ms) + "\",\"sessionId\":\"" + session + "\"}\n";
        out += "{\"type\":\"cost-state\",\"sessionId\":\"" + session +
               "\",\"totalCostUSD\":0.05,\"modelUsage\":{\"" + model +
               "\":{\"inputTokens\":996,\"outputTokens\":71,\"cacheReadInputTokens\":0,\"cacheCreationInputTokens\":8979,"
               "\"costUSD\":0.050299}},\"hasUnknownModelCost\":false}\n";
        out += "{\"type\":\"system\",\"subtype\":\"turn_duration\",\"durationMs\":" + std::to_string(range(1'000, 900'000)) +
               ",\"timestamp\":\"" + iso(ms) + "\",\"sessionId\":\"" + session + "\"}\n";
        return out;
    }

    std::string pickClaudeModel() {
        double r = uniform();
        if (r < 0.45) return "claude-sonnet-4-5-20250929";
        if (r < 0.75) return "claude-opus-4-7";
        if (r < 0.87) return "claude-haiku-4-5-20251001";
        if (r < 0.96) return "claude-fable-5[1m]";
        return "claude-opus-5-5";  // not in any price table: counted, listed as unpriced
    }

    int64_t sessionStart() {
        int64_t span = static_cast<int64_t>(o_.days) * 86'400'000LL;
        return o_.nowMs - span + static_cast<int64_t>(uniform() * static_cast<double>(span - 3'600'000));
    }

    void writeFile(const fs::path& file, const std::string& bytes, int64_t lastMs) {
        fs::create_directories(file.parent_path());
        std::FILE* f = std::fopen(file.c_str(), "wb");
        if (!f) throw std::runtime_error("cannot write " + file.string());
        std::fwrite(bytes.data(), 1, bytes.size(), f);
        std::fclose(f);
        struct timespec times[2];
        times[0].tv_sec = times[1].tv_sec = static_cast<time_t>(lastMs / 1000);
        times[0].tv_nsec = times[1].tv_nsec = static_cast<long>((lastMs % 1000) * 1'000'000);
        ::utimensat(AT_FDCWD, file.c_str(), times, 0);
        truth_.bytes += bytes.size();
        ++truth_.files;
        truth_.paths.push_back(file);
    }

    struct ClaudeSession {
        std::string id;
        fs::path folder;
        std::string replay;  // lines a resume copies
        int64_t endMs = 0;
    };

    void claudeSession(int index, uint64_t budget) {
        std::string id = uuid();
        fs::path folder = o_.home / ".claude/projects" / ("-home-dev-proj" + std::to_string(index % 25));
        std::string model = pickClaudeModel();
        int64_t ms = sessionStart();
        std::string out;
        // A resumed session starts with the earlier session's entries, under its own id.
        bool resumed = !resumable_.empty() && chance(0.12);
        if (resumed) {
            const auto& earlier = resumable_[static_cast<size_t>(next() % resumable_.size())];
            std::string copy = earlier.replay;
            for (size_t at = 0; (at = copy.find(earlier.id, at)) != std::string::npos; at += id.size())
                copy.replace(at, earlier.id.size(), id);
            out += copy;
            folder = earlier.folder;
            ms = std::max(ms, earlier.endMs + 60'000);
        }
        out += "{\"type\":\"permission-mode\",\"permissionMode\":\"default\",\"sessionId\":\"" + id + "\"}\n";
        uint64_t goal = std::max<uint64_t>(budget, 20'000);
        while (out.size() < goal && ms < o_.nowMs - 60'000) {
            out += userPrompt(ms, id);
            ms += range(500, 8'000);
            int calls = static_cast<int>(range(1, 8));
            for (int c = 0; c < calls && ms < o_.nowMs - 30'000; ++c) {
                if (chance(0.01)) {
                    // An API error's stand-in reply: zero usage, never counted.
                    out += "{\"type\":\"assistant\",\"message\":{\"id\":\"msg_" + alnum(20) +
                           "\",\"model\":\"<synthetic>\",\"role\":\"assistant\",\"content\":[{\"type\":\"text\",\"text\":\"API "
                           "Error\"}],\"usage\":{\"input_tokens\":0,\"output_tokens\":0,\"cache_read_input_tokens\":0,"
                           "\"cache_creation_input_tokens\":0}},\"uuid\":\"" + uuid() + "\",\"timestamp\":\"" + iso(ms) +
                           "\",\"sessionId\":\"" + id + "\"}\n";
                }
                bool abort = chance(0.01);
                auto e = claudeMessage(out, id, ms, model, abort ? 1 : static_cast<int>(range(1, 3)), abort, "");
                truth_.events.push_back(e);
                if (abort) break;
                out += toolResult(ms, id, payloadSize());
                ms += range(200, 30'000);
                if (chance(0.0005)) out += "{\"type\":\"assistant\",\"message\":{\"usage\":{\"input_tokens\":\"many\"}}\n";
            }
            out += bookkeeping(ms, id, model);
            ms += static_cast<int64_t>(std::exp(normal() * 1.5 + 11.5));  // a pause: seconds to hours
        }
        int64_t last = std::min(ms, o_.nowMs - 1'000);
        // Some journals end on a line still being written: its message does not count yet.
        bool cut = chance(0.03);
        if (cut) {
            std::string partial;
            int64_t t = last;
            claudeMessage(partial, id, t, model, 1, false, "");
            out += partial.substr(0, partial.size() / 2);
        } else {
            truth_.claudeFiles.push_back(folder / (id + ".jsonl"));
        }
        writeFile(folder / (id + ".jsonl"), out, last);
        // A few earlier sessions stay at hand for resuming (not all: memory).
        if (!resumed && !cut && out.size() < 1'000'000) {
            ClaudeSession s{id, folder, out, last};
            if (resumable_.size() < 48) resumable_.push_back(std::move(s));
            else resumable_[static_cast<size_t>(next() % resumable_.size())] = std::move(s);
        }

        // A subagent's journal beside the session's.
        if (chance(0.2)) {
            std::string agent = "a" + hex(16);
            std::string sub;
            int64_t t = std::max<int64_t>(ms - 3'600'000, last - 600'000);
            t = std::min(t, o_.nowMs - 120'000);
            int messages = static_cast<int>(range(3, 30));
            for (int m = 0; m < messages && t < o_.nowMs - 10'000; ++m) {
                auto e = claudeMessage(sub, id, t, "claude-haiku-4-5-20251001", static_cast<int>(range(1, 2)), false, agent);
                truth_.events.push_back(e);
                sub += toolResult(t, id, payloadSize() / 2);
                t += range(500, 20'000);
            }
            writeFile(folder / id / "subagents" / ("agent-" + agent + ".jsonl"), sub, std::min(t, o_.nowMs - 1'000));
        }
    }

    // --- Codex ---
    void codexSession(int, uint64_t budget) {
        std::string thread = hex(8) + "-" + hex(4) + "-7" + hex(3) + "-" + hex(4) + "-" + hex(12);
        int64_t ms = sessionStart();
        bool v169 = chance(0.7);
        std::time_t t0 = static_cast<std::time_t>(ms / 1000);
        std::tm tm{};
        ::gmtime_r(&t0, &tm);
        char folder[32], stamp[32];
        std::snprintf(folder, sizeof folder, "%04d/%02d/%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday);
        std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02dT%02d-%02d-%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                      tm.tm_hour, tm.tm_min, tm.tm_sec);
        std::string out = "{\"timestamp\":\"" + iso(ms) + "\",\"type\":\"session_meta\",\"payload\":{\"id\":\"" + thread +
                          "\",\"cwd\":\"/home/dev/proj\",\"originator\":\"codex_cli_rs\",\"cli_version\":\"0.169.0\","
                          "\"instructions\":\"" + text(4'000) + "\"}}\n";
        int64_t running = 0, runningIn = 0, runningCached = 0, runningOut = 0;
        std::string model = chance(0.5) ? "gpt-5.5-codex" : "gpt-5-codex";
        uint64_t goal = std::max<uint64_t>(budget, 15'000);
        while (out.size() < goal && ms < o_.nowMs - 60'000) {
            if (chance(0.15)) model = chance(0.2) ? "gpt-7-preview" : chance(0.5) ? "gpt-5.6-terra" : "gpt-5.5-codex";
            out += "{\"timestamp\":\"" + iso(ms) + "\",\"type\":\"turn_context\",\"payload\":{\"cwd\":\"/home/dev/proj\","
                   "\"approval_policy\":\"on-request\",\"model\":\"" + model + "\",\"developer_instructions\":\"" +
                   text(static_cast<size_t>(range(1'500, 4'000))) + "\"}}\n";
            out += "{\"timestamp\":\"" + iso(ms) + "\",\"type\":\"event_msg\",\"payload\":{\"type\":\"user_message\","
                   "\"message\":\"" + text(static_cast<size_t>(range(20, 600))) + "\"}}\n";
            int responses = static_cast<int>(range(1, 9));
            for (int r = 0; r < responses && ms < o_.nowMs - 30'000; ++r) {
                ms += range(800, 20'000);
                out += "{\"timestamp\":\"" + iso(ms) + "\",\"type\":\"response_item\",\"payload\":{\"type\":\"function_call\","
                       "\"name\":\"shell\",\"arguments\":\"{\\\"command\\\":[\\\"bash\\\",\\\"-lc\\\",\\\"npm test\\\"]}\","
                       "\"call_id\":\"call_" + alnum(24) + "\"}}\n";
                out += "{\"timestamp\":\"" + iso(ms) + "\",\"type\":\"response_item\",\"payload\":{\"type\":"
                       "\"function_call_output\",\"call_id\":\"call_" + alnum(24) + "\",\"output\":\"" + text(payloadSize()) +
                       "\"}}\n";
                int64_t in = range(3'000, 120'000), cached = in * range(0, 95) / 100, outTok = range(30, 3'000);
                int64_t reasoning = outTok / 3;
                running += in + outTok;
                runningIn += in;
                runningCached += cached;
                runningOut += outTok;
                auto usage = [&](int64_t i, int64_t c, int64_t o, int64_t total) {
                    return "{\"input_tokens\":" + std::to_string(i) + ",\"cached_input_tokens\":" + std::to_string(c) +
                           ",\"cache_write_input_tokens\":0,\"output_tokens\":" + std::to_string(o) +
                           ",\"reasoning_output_tokens\":" + std::to_string(reasoning) + ",\"total_tokens\":" +
                           std::to_string(total) + "}";
                };
                std::string last = usage(in, cached, outTok, in + outTok);
                std::string total = usage(runningIn, runningCached, runningOut, running);
                if (v169) {
                    out += "{\"timestamp\":\"" + iso(ms) + "\",\"type\":\"token_usage_record\",\"payload\":{\"thread_id\":\"" +
                           thread + "\",\"response_id\":\"resp_" + hex(24) + "\",\"usage\":" + last +
                           ",\"turn_token_usage\":" + last + ",\"thread_token_usage\":" + total + "}}\n";
                }
                std::string count = "{\"timestamp\":\"" + iso(ms + 40) + "\",\"type\":\"event_msg\",\"payload\":{\"type\":"
                                    "\"token_count\",\"info\":{\"total_token_usage\":" + total + ",\"last_token_usage\":" +
                                    last + ",\"model_context_window\":258400},\"rate_limits\":{\"primary\":null}}}\n";
                out += count;
                if (chance(0.1)) out += count;  // emitted again when the rate limits update
                Rates rt{};
                bool priced = ratesFor(model, rt);
                double cost = (static_cast<double>(in - cached) * rt.input + static_cast<double>(cached) * rt.cacheRead +
                               static_cast<double>(outTok) * rt.output) / 1e6;
                record(codex, v169 ? ms : ms + 40, in + outTok, cost, model, priced);
                out += "{\"timestamp\":\"" + iso(ms + 50) + "\",\"type\":\"event_msg\",\"payload\":{\"type\":"
                       "\"agent_message\",\"message\":\"" + text(static_cast<size_t>(range(50, 2'000))) + "\"}}\n";
            }
            ms += static_cast<int64_t>(std::exp(normal() * 1.5 + 11.5));
        }
        int64_t last = std::min(ms, o_.nowMs - 1'000);
        writeFile(o_.home / ".codex/sessions" / folder / ("rollout-" + std::string(stamp) + "-" + thread + ".jsonl"), out,
                  last);
    }

    // --- Kimi ---
    void kimiSession(int index, uint64_t budget) {
        std::string session = "session_" + uuid();
        fs::path dir = o_.home / ".kimi-code/sessions" / ("wd_" + hex(12) + std::to_string(index % 4)) / session;
        int64_t ms = sessionStart();
        std::string model = chance(0.8) ? "kimi-code/k3" : chance(0.5) ? "kimi-k3" : "kimi-code/k9-experimental";
        std::string out = "{\"type\":\"metadata\",\"protocol_version\":\"1.3\"}\n";
        uint64_t goal = std::max<uint64_t>(budget, 10'000);
        while (out.size() < goal && ms < o_.nowMs - 60'000) {
            out += "{\"type\":\"turn.prompt\",\"input\":[{\"type\":\"text\",\"text\":\"" +
                   text(static_cast<size_t>(range(20, 500))) + "\"}]}\n";
            int steps = static_cast<int>(range(1, 6));
            int64_t sumOther = 0, sumOut = 0, sumRead = 0, sumCreate = 0;
            for (int s = 1; s <= steps; ++s) {
                ms += range(500, 15'000);
                out += "{\"type\":\"llm.request\",\"provider\":\"kimi\",\"model\":\"" + model + "\",\"maxTokens\":32000}\n";
                out += "{\"type\":\"step.begin\",\"step\":" + std::to_string(s) + "}\n";
                out += "{\"type\":\"content.part\",\"step\":" + std::to_string(s) + ",\"part\":{\"type\":\"text\",\"text\":\"" +
                       text(static_cast<size_t>(range(50, 1'500))) + "\"}}\n";
                out += "{\"type\":\"tool.call\",\"toolCallId\":\"tc_" + hex(12) + "\",\"name\":\"Shell\",\"args\":{}}\n";
                out += "{\"type\":\"tool.result\",\"toolCallId\":\"tc_" + hex(12) + "\",\"result\":\"" + text(payloadSize()) +
                       "\"}\n";
                int64_t other = range(500, 8'000), outTok = range(50, 2'000), read = range(0, 60'000), create = range(0, 3'000);
                sumOther += other;
                sumOut += outTok;
                sumRead += read;
                sumCreate += create;
                out += "{\"type\":\"usage.record\",\"model\":\"" + model + "\",\"usage\":{\"input_other\":" +
                       std::to_string(other) + ",\"output\":" + std::to_string(outTok) + ",\"input_cache_read\":" +
                       std::to_string(read) + ",\"input_cache_creation\":" + std::to_string(create) +
                       "},\"usageScope\":\"step\",\"time\":" + std::to_string(ms) + "}\n";
                out += "{\"type\":\"step.end\",\"step\":" + std::to_string(s) + ",\"finishReason\":\"" +
                       (s == steps ? "end_turn" : "tool_use") + "\"}\n";
            }
            ms += 10;
            out += "{\"type\":\"usage.record\",\"model\":\"" + model + "\",\"usage\":{\"input_other\":" +
                   std::to_string(sumOther) + ",\"output\":" + std::to_string(sumOut) + ",\"input_cache_read\":" +
                   std::to_string(sumRead) + ",\"input_cache_creation\":" + std::to_string(sumCreate) +
                   "},\"usageScope\":\"turn\",\"time\":" + std::to_string(ms) + "}\n";
            Rates r{};
            bool priced = ratesFor(model, r);
            double cost = (static_cast<double>(sumOther) * r.input + static_cast<double>(sumCreate) * r.cacheWrite +
                           static_cast<double>(sumRead) * r.cacheRead + static_cast<double>(sumOut) * r.output) / 1e6;
            record(kimi, ms, sumOther + sumOut + sumRead + sumCreate, cost, model, priced);
            ms += static_cast<int64_t>(std::exp(normal() * 1.5 + 11.5));
        }
        int64_t last = std::min(ms, o_.nowMs - 1'000);
        fs::create_directories(dir);
        std::ofstream(dir / "state.json") << "{\"workDir\":\"/home/dev/proj\",\"title\":\"New Session\"}\n";
        writeFile(dir / "agents/main/wire.jsonl", out, last);
    }

    Options o_;
    uint64_t s_;
    std::string filler_;
    Truth truth_;
    std::vector<ClaudeSession> resumable_;
};

inline Truth generate(const Options& o) { return Generator(o).run(); }

// The truth as text, so a corpus written once serves later runs.
inline void writeTruth(const fs::path& file, const Truth& t) {
    std::ofstream out(file);
    out.precision(17);
    out << "now " << t.nowMs << " files " << t.files << " bytes " << t.bytes << "\n";
    for (const auto& e : t.events)
        out << "e " << e.provider << ' ' << e.ms << ' ' << e.tokens << ' ' << e.cost << ' ' << e.priced << ' ' << e.model << "\n";
    for (const auto& p : t.paths) out << "f " << p.string() << "\n";
    for (const auto& p : t.claudeFiles) out << "c " << p.string() << "\n";
}

inline std::optional<Truth> readTruth(const fs::path& file) {
    std::ifstream in(file);
    std::string word;
    Truth t;
    if (!(in >> word >> t.nowMs) || word != "now") return std::nullopt;
    in >> word >> t.files >> word >> t.bytes;
    while (in >> word) {
        if (word == "e") {
            TruthEvent e;
            int p = 0;
            in >> p >> e.ms >> e.tokens >> e.cost >> e.priced;
            in.get();
            std::getline(in, e.model);
            e.provider = static_cast<Provider>(p);
            if (!e.priced) t.unpricedModels.insert(e.model);
            t.events.push_back(std::move(e));
        } else {
            in.get();
            std::string path;
            std::getline(in, path);
            (word == "f" ? t.paths : t.claudeFiles).push_back(path);
        }
    }
    return t;
}

}  // namespace spendcorpus
