#pragma once

// Writes rollouts shaped like the ones Codex CLI 0.169 writes (see
// shared/samples/codex): a "session_meta" first line carrying the whole
// system prompt and the git branch, then per turn "task_started", the
// injected developer and <environment_context> messages, "world_state",
// "turn_context", "thread_settings_applied", each prompt and reply both as a
// "response_item" and as an "item_completed" event, tool calls with their
// items and outputs, "token_usage_record" and "token_count" lines, and
// "task_complete". The older event shapes ("user_message", "agent_message",
// "patch_apply_end") can be written too.

#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace lumora::test {

class CodexRollout {
public:
    using json = nlohmann::json;
    using Clock = std::chrono::system_clock;

    explicit CodexRollout(std::string threadId = "01a200b8-08e9-7700-a95d-dc5d02af79ad",
                          std::string cwd = "/home/dev/proj", std::string originator = "codex-tui",
                          Clock::time_point start = Clock::now())
        : id_(std::move(threadId)), cwd_(std::move(cwd)), start_(start) {
        json payload = {{"account_scoped", true},
                        {"session_id", id_},
                        {"id", id_},
                        {"timestamp", iso(start_)},
                        {"cwd", cwd_},
                        {"runtime_workspace_roots", {cwd_}},
                        {"originator", originator},
                        {"cli_version", "0.169.0"},
                        {"source", "vscode"},
                        {"thread_source", "user"},
                        {"model_provider", "openai"},
                        {"base_instructions", {{"text", "You are Codex, a coding agent. " + std::string(20000, 'x')}}},
                        {"history_mode", "paginated"},
                        {"git", {{"commit_hash", "bde37b838feb1d87020ed908de286ed62182b7e2"}, {"branch", "feature/harness"}}}};
        line("session_meta", payload);
    }

    const std::string& threadId() const { return id_; }

    // Makes the thread a subagent of `parent`.
    CodexRollout& asSubagent(const std::string& parent, const std::string& nickname) {
        auto& meta = lines_.front()["payload"];
        meta["thread_source"] = "subagent";
        meta["parent_thread_id"] = parent;
        meta["agent_nickname"] = nickname;
        return *this;
    }

    // The lines a turn starts with, before the user's prompt.
    CodexRollout& turnStart(const std::string& model = "gpt-5.5-codex", const std::string& approval = "on-request") {
        turn_ = "turn-" + std::to_string(++turns_);
        event({{"type", "task_started"}, {"turn_id", turn_}, {"started_at", 1795308407}, {"model_context_window", 258400},
               {"collaboration_mode_kind", "default"}});
        if (turns_ == 1) {
            message("developer", "<skills_instructions>\n## Skills\nA skill is a set of local instructions.\n</skills_instructions>",
                    "harness");
            message("user",
                    "<environment_context>\n  <cwd>" + cwd_ + "</cwd>\n  <shell>bash</shell>\n</environment_context>",
                    "harness");
        }
        line("world_state", {{"full", true}, {"state", {{"agents_md", json::object()}, {"filler", std::string(4000, 'w')}}}});
        line("turn_context", {{"turn_id", turn_}, {"cwd", cwd_}, {"approval_policy", approval}, {"model", model},
                              {"summary", "none"}});
        event({{"type", "thread_settings_applied"}, {"thread_id", id_},
               {"thread_settings", {{"model", model}, {"approval_policy", approval}, {"cwd", cwd_}}}});
        return *this;
    }

    CodexRollout& prompt(const std::string& text) {
        message("user", text, "user");
        item({{"type", "UserMessage"}, {"id", "u" + std::to_string(++n_)},
              {"content", json::array({{{"type", "text"}, {"text", text}, {"text_elements", json::array()}}})}});
        return *this;
    }
    // The shape of earlier versions: the model's copy and a "user_message" event.
    CodexRollout& legacyPrompt(const std::string& text) {
        message("user", text, "");
        event({{"type", "user_message"}, {"message", text}, {"images", json::array()}});
        return *this;
    }
    // Text Codex injects as a user message (AGENTS.md, <turn_aborted>…).
    CodexRollout& injected(const std::string& text) { return message("user", text, "harness"); }

    CodexRollout& reply(const std::string& text) {
        std::string id = "msg_" + std::to_string(++n_);
        item({{"type", "AgentMessage"}, {"id", id}, {"content", json::array({{{"type", "Text"}, {"text", text}}})}});
        message("assistant", text, "", id);
        usageRecord();
        return tokens(7283, 14457);
    }
    CodexRollout& legacyReply(const std::string& text) {
        message("assistant", text, "");
        event({{"type", "agent_message"}, {"message", text}});
        return tokens(7283, 14457);
    }

    // A command the model runs: the call, and unless `dangling` its item and output.
    CodexRollout& command(const std::string& cmd, int exitCode = 0, const std::string& output = "",
                          bool escalated = false, bool dangling = false) {
        std::string call = "call_" + std::to_string(++n_);
        json args = {{"cmd", cmd}, {"workdir", cwd_}};
        if (escalated) {
            args["sandbox_permissions"] = "require_escalated";
            args["justification"] = "The harness needs to write outside the sandbox.";
        }
        response({{"type", "function_call"}, {"status", "completed"}, {"id", "fc_" + call}, {"name", "exec_command"},
                  {"arguments", args.dump()}, {"call_id", call}});
        usageRecord();
        if (dangling) return *this;
        item({{"type", "CommandExecution"}, {"id", call}, {"process_id", "36622"},
              {"command", {"/bin/bash", "-lc", cmd}}, {"cwd", "file://" + cwd_}, {"status", exitCode ? "failed" : "completed"},
              {"aggregated_output", output}, {"exit_code", exitCode}});
        response({{"type", "function_call_output"}, {"id", "fco_" + call}, {"call_id", call},
                  {"output", "Chunk ID: d4704f\nWall time: 0.0000 seconds\nProcess exited with code " +
                                 std::to_string(exitCode) + "\nOriginal token count: 0\nOutput:\n" + output}});
        return tokens(7165, 7165);
    }

    // An apply_patch call adding `file`; its item says whether it applied.
    CodexRollout& patch(const std::string& file, bool applied = true, bool dangling = false) {
        std::string call = "call_" + std::to_string(++n_);
        response({{"type", "custom_tool_call"}, {"id", "ctc_" + call}, {"status", "completed"}, {"call_id", call},
                  {"name", "apply_patch"},
                  {"input", "*** Begin Patch\n*** Add File: " + file + "\n+patched\n*** End Patch\n"}});
        usageRecord();
        if (dangling) return *this;
        item({{"type", "FileChange"}, {"id", call},
              {"changes", {{cwd_ + "/" + file, {{"type", "add"}, {"content", "patched\n"}}}}},
              {"status", applied ? "completed" : "failed"}, {"stdout", ""}, {"stderr", ""}});
        response({{"type", "custom_tool_call_output"}, {"id", "ctco_" + call}, {"call_id", call},
                  {"output", applied ? "Exit code: 0\nOutput:\nSuccess." : "Exit code: 1\nOutput:\nFailed."}});
        return *this;
    }
    // The older event saying how a patch went.
    CodexRollout& patchApplyEnd(bool success) {
        return event({{"type", "patch_apply_end"}, {"call_id", "call_" + std::to_string(n_)}, {"success", success}});
    }

    CodexRollout& reasoning(const std::string& summary) {
        return response({{"type", "reasoning"}, {"id", "rs_" + std::to_string(++n_)},
                         {"summary", json::array({{{"type", "summary_text"}, {"text", summary}}})},
                         {"encrypted_content", "gAAAA"}});
    }

    CodexRollout& tokens(long long last, long long total, json rateLimits = nullptr) {
        if (rateLimits.is_null())
            rateLimits = {{"limit_id", "codex"}, {"primary", nullptr}, {"secondary", nullptr}, {"credits", nullptr}};
        return event({{"type", "token_count"},
                      {"info",
                       {{"total_token_usage", {{"input_tokens", total - 100}, {"output_tokens", 100}, {"total_tokens", total}}},
                        {"last_token_usage", {{"input_tokens", last - 50}, {"output_tokens", 50}, {"total_tokens", last}}},
                        {"model_context_window", 258400}}},
                      {"rate_limits", rateLimits}});
    }

    CodexRollout& complete(const std::string& lastMessage = "") {
        return event({{"type", "task_complete"}, {"turn_id", turn_},
                      {"last_agent_message", lastMessage.empty() ? json(nullptr) : json(lastMessage)},
                      {"duration_ms", 660}});
    }
    // The user pressed Esc: Codex's note to the model, then the event.
    CodexRollout& abort() {
        injected("<turn_aborted>\nThe user interrupted the previous turn on purpose.\n</turn_aborted>");
        return event({{"type", "turn_aborted"}, {"turn_id", turn_}, {"reason", "interrupted"}});
    }

    CodexRollout& usageRecord() {
        return line("token_usage_record",
                    {{"thread_id", id_}, {"turn_id", turn_}, {"usage", {{"input_tokens", 7113}, {"total_tokens", 7174}}}});
    }
    CodexRollout& event(json payload) { return line("event_msg", std::move(payload)); }
    CodexRollout& response(json payload) { return line("response_item", std::move(payload)); }
    CodexRollout& item(json it) {
        return event({{"type", "item_completed"}, {"thread_id", id_}, {"turn_id", turn_}, {"item", std::move(it)}});
    }
    CodexRollout& line(const std::string& type, json payload) {
        auto at = start_ + std::chrono::milliseconds(10 * static_cast<long>(lines_.size()));
        lines_.push_back({{"timestamp", iso(at)}, {"ordinal", lines_.size()}, {"type", type}, {"payload", std::move(payload)}});
        return *this;
    }

    std::string text() const {
        std::string out;
        for (const auto& l : lines_) out += l.dump() + "\n";
        return out;
    }
    void writeTo(const std::filesystem::path& file) const {
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << text();
    }
    // Where Codex keeps it: <root>/YYYY/MM/DD/rollout-<local time>-<id>.jsonl.
    std::filesystem::path pathIn(const std::filesystem::path& root) const {
        std::time_t t = Clock::to_time_t(start_);
        std::tm tm{};
        ::localtime_r(&t, &tm);
        char day[16], stamp[32];
        std::strftime(day, sizeof day, "%Y/%m/%d", &tm);
        std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H-%M-%S", &tm);
        return root / day / ("rollout-" + std::string(stamp) + "-" + id_ + ".jsonl");
    }
    std::filesystem::path writeIn(const std::filesystem::path& root) const {
        auto file = pathIn(root);
        writeTo(file);
        return file;
    }

    static std::string iso(Clock::time_point t) {
        auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count();
        std::time_t secs = ms / 1000;
        std::tm tm{};
        ::gmtime_r(&secs, &tm);
        char buf[32], out[48];
        std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &tm);
        std::snprintf(out, sizeof out, "%s.%03lldZ", buf, static_cast<long long>(ms % 1000));
        return out;
    }

private:
    CodexRollout& message(const std::string& role, const std::string& text, const std::string& provenance,
                          const std::string& id = "") {
        json content = json::array({{{"type", role == "assistant" ? "output_text" : "input_text"}, {"text", text}}});
        json payload = {{"type", "message"}, {"id", id.empty() ? "msg_" + std::to_string(++n_) : id}, {"role", role},
                        {"content", content}};
        if (!provenance.empty())
            payload["internal_chat_message_metadata_passthrough"] = {
                {"turn_id", turn_}, {"content_item_metadata", {{{"provenance", {{"type", provenance}}}}}}};
        return response(payload);
    }

    std::string id_, cwd_, turn_;
    Clock::time_point start_;
    std::vector<json> lines_;
    int turns_ = 0, n_ = 0;
};

// Writes Cursor agent transcripts: {"role", "message": {"content": [...]}}
// lines and {"type": "turn_ended"}.
class CursorTranscript {
public:
    using json = nlohmann::json;

    CursorTranscript& prompt(const std::string& text, const std::string& preamble = "") {
        return line({{"role", "user"},
                     {"message", {{"content", json::array({{{"type", "text"},
                                                             {"text", preamble + "<user_query>\n" + text + "\n</user_query>"}}})}}}});
    }
    CursorTranscript& user(const std::string& raw) {
        return line({{"role", "user"}, {"message", {{"content", json::array({{{"type", "text"}, {"text", raw}}})}}}});
    }
    CursorTranscript& reply(const std::vector<std::string>& texts) {
        json content = json::array();
        for (const auto& t : texts) content.push_back({{"type", "text"}, {"text", t}});
        return line({{"role", "assistant"}, {"message", {{"content", content}}}});
    }
    CursorTranscript& reply(const std::string& text) { return reply(std::vector<std::string>{text}); }
    CursorTranscript& tool(const std::string& name, json input, const std::string& narration = "") {
        json content = json::array();
        if (!narration.empty()) content.push_back({{"type", "text"}, {"text", narration}});
        content.push_back({{"type", "tool_use"}, {"name", name}, {"input", std::move(input)}});
        return line({{"role", "assistant"}, {"message", {{"content", content}}}});
    }
    CursorTranscript& turnEnded(json extra = json::object()) {
        json l = {{"type", "turn_ended"}};
        l.update(extra);
        return line(l);
    }
    CursorTranscript& line(json l) {
        lines_.push_back(std::move(l));
        return *this;
    }
    std::string text() const {
        std::string out;
        for (const auto& l : lines_) out += l.dump() + "\n";
        return out;
    }
    void writeTo(const std::filesystem::path& file) const {
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << text();
    }

private:
    std::vector<json> lines_;
};

}  // namespace lumora::test
