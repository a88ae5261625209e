#pragma once

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/test_support.hpp"

// Kimi session folders for the tests, laid out and written as the Kimi
// command-line tool keeps them: <root>/wd_<…>/session_<uuid>/state.json and
// agents/<agent>/wire.jsonl, one JSON event per line.
namespace lumora::test::KimiWire {

using Json = nlohmann::json;

inline std::string line(const Json& j) { return j.dump() + "\n"; }

inline std::string metadata() { return line({{"type", "metadata"}, {"protocol_version", "1.1"}}); }
inline std::string prompt(const std::string& text) {
    return line({{"type", "turn.prompt"}, {"input", Json::array({{{"type", "text"}, {"text", text}}})}});
}
inline std::string request(const std::string& alias) {
    return line({{"type", "llm.request"}, {"provider", "kimi"}, {"model", "kimi-code/" + alias},
                 {"modelAlias", alias}, {"maxTokens", 32000}});
}
inline std::string stepBegin(int step) { return line({{"type", "step.begin"}, {"step", step}}); }
inline std::string text(int step, const std::string& text) {
    return line({{"type", "content.part"}, {"step", step}, {"part", {{"type", "text"}, {"text", text}}}});
}
inline std::string call(const std::string& id, const std::string& name, const Json& args) {
    return line({{"type", "tool.call"}, {"toolCallId", id}, {"name", name}, {"args", args}, {"uuid", "u-" + id}});
}
inline std::string result(const std::string& id, const std::string& output) {
    return line({{"type", "tool.result"}, {"toolCallId", id}, {"parentUuid", "u-" + id},
                 {"result", {{"output", output}}}});
}
inline std::string stepEnd(int step, const std::string& reason) {
    return line({{"type", "step.end"}, {"step", step}, {"finishReason", reason}});
}
inline std::string usage(long long input, long long output, long long cacheRead, const std::string& scope = "turn") {
    return line({{"type", "usage.record"},
                 {"model", "kimi-code/k3"},
                 {"usage", {{"input", input}, {"output", output}, {"cacheRead", cacheRead}, {"cacheWrite", 0}}},
                 {"usageScope", scope},
                 {"time", 1795308762544}});
}
inline Json questions(const std::vector<std::pair<std::string, std::vector<std::string>>>& qs) {
    Json list = Json::array();
    for (const auto& [q, options] : qs) {
        Json opts = Json::array();
        for (const auto& o : options) opts.push_back({{"label", o}, {"description", o + "!"}});
        list.push_back({{"question", q}, {"header", "Pick"}, {"options", opts}});
    }
    return {{"questions", list}};
}

// A finished turn: prompt, request, reply, end and its usage.
inline std::string finishedTurn(const std::string& ask, const std::string& reply) {
    return prompt(ask) + request("k3") + stepBegin(1) + text(1, reply) + stepEnd(1, "end_turn") +
           usage(3968, 383, 19200);
}

struct Session {
    std::filesystem::path dir;
    std::filesystem::path wire;
};

// Writes a session folder with its state and main wire journal.
inline Session write(const std::filesystem::path& root, const std::string& id, const std::string& workDir,
                     const std::string& wire, const std::string& title = "New Session",
                     const std::string& lastPrompt = "") {
    Session s;
    s.dir = root / "wd_0a1b2c" / id;
    s.wire = s.dir / "agents/main/wire.jsonl";
    writeFile(s.dir / "state.json", Json{{"workDir", workDir},
                                         {"title", title},
                                         {"isCustomTitle", title != "New Session"},
                                         {"lastPrompt", lastPrompt}}
                                        .dump());
    writeFile(s.wire, wire);
    return s;
}

inline std::string config() {
    return "default_model = \"k3\"\n\n[models.\"k3\"]\nprovider = \"kimi\"\nmax_context_size = 262144\n"
           "display_name = \"Kimi K3\"\n\n[models.\"kimi-code/k9-test-model\"]\nmax_context_size = 131072\n\n"
           "[models.k3]\nmax_context_size = 1\n";
}

}  // namespace lumora::test::KimiWire
