#include "lumora/hooks/hook_self_test.hpp"

#include <unistd.h>

#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <thread>

#include "lumora/base/file_util.hpp"
#include "lumora/hooks/embedded_resources.hpp"
#include "lumora/hooks/hook_providers.hpp"
#include "lumora/platform/child_process.hpp"
#include "lumora/platform/paths.hpp"
#include "lumora/platform/python_locator.hpp"

namespace lumora::HookSelfTest {

namespace {

using Json = nlohmann::ordered_json;
using namespace std::chrono_literals;

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) return true;
        std::this_thread::sleep_for(10ms);
    }
    return condition();
}

struct Program {
    std::string agent;
    fs::path path;
    std::string source;
};

struct Runner {
    Bridge& bridge;
    fs::path socket;
    fs::path python;
    std::ostream& out;
    std::vector<Check> checks;

    void record(const std::string& name, bool passed, const std::string& detail = {}) {
        out << (passed ? "  ok    " : "  FAIL  ") << name;
        if (!passed && !detail.empty()) out << " — " << detail;
        out << "\n";
        checks.push_back({name, passed, detail});
    }

    std::unique_ptr<ChildProcess> start(const Program& p, const std::string& action, const Json& input) {
        std::vector<std::string> argv = {python.string(), p.path.string()};
        if (!action.empty()) argv.push_back(action);
        return ChildProcess::spawn(argv, input.dump() + "\n", {{"LUMORA_SOCKET", socket.string()}});
    }

    // Runs a program that expects no answer; true when it ended cleanly and silently.
    bool fire(const Program& p, const std::string& action, const Json& input, std::string& why) {
        auto child = start(p, action, input);
        if (!child) {
            why = "could not start " + python.string();
            return false;
        }
        if (!child->wait(5s)) {
            child->kill();
            why = "did not exit within 5 s";
            return false;
        }
        if (child->exitCode() != 0 || !child->output().empty()) {
            why = "exit " + std::to_string(child->exitCode()) + ", output \"" + child->output() + "\"";
            return false;
        }
        return true;
    }

    // A gate answered from "the notch"; returns what the program printed.
    std::optional<Json> gate(const Program& p, const std::string& sessionId, const Json& input, bool allow,
                             std::string& why, const std::function<bool()>& whileHeld = {}) {
        auto child = start(p, "gate", input);
        if (!child) {
            why = "could not start " + python.string();
            return std::nullopt;
        }
        if (!eventually([&] { return bridge.hasHeldGate(sessionId); }, 5s)) {
            child->kill();
            why = "the gate never reached the bridge";
            return std::nullopt;
        }
        if (whileHeld && !whileHeld()) {
            child->kill();
            why = "no marker while the gate was held";
            return std::nullopt;
        }
        bridge.resolve(sessionId, allow);
        if (!child->wait(5s)) {
            child->kill();
            why = "no exit within 5 s of the answer";
            return std::nullopt;
        }
        Json printed = Json::parse(child->output(), nullptr, false);
        if (printed.is_discarded() || !printed.is_object()) {
            why = "printed \"" + child->output() + "\"";
            return std::nullopt;
        }
        return printed;
    }
};

Json with(Json j, const char* key, const std::string& value) {
    j[key] = value;
    return j;
}

Json claudeQuestion(const std::string& sid) {
    return with(Json::parse(R"({"hook_event_name":"PreToolUse","tool_name":"AskUserQuestion","cwd":"/tmp","tool_input":
        {"questions":[{"question":"Which database?","header":"DB","options":[{"label":"SQLite"},{"label":"Postgres"}]},
        {"question":"Add tests?","options":[{"label":"Yes"},{"label":"No"}]}]}})"), "session_id", sid);
}

Json claudePermission(const std::string& sid) {
    return with(Json::parse(R"({"hook_event_name":"PermissionRequest","tool_name":"Bash","cwd":"/tmp",
        "tool_input":{"command":"touch made-by-selftest.txt","description":"Create a file"}})"), "session_id", sid);
}

Json codexPermission(const std::string& sid) {
    return with(Json::parse(R"({"hook_event_name":"PermissionRequest","tool_name":"Bash","cwd":"/tmp","turn_id":"t",
        "tool_input":{"command":"touch /outside/sandbox.txt","description":"Needs to write outside the sandbox."}})"), "session_id", sid);
}

Json cursorShell(const std::string& cid) {
    return with(Json::parse(R"({"hook_event_name":"beforeShellExecution","command":"npm test","cwd":"/tmp",
        "workspace_roots":["/tmp"],"model":"selftest-model"})"), "conversation_id", cid);
}

Json kimiNotification(const std::string& sid) {
    return with(Json::parse(R"({"hook_event_name":"Notification","title":"Approval needed",
        "message":"Kimi needs your permission to run a command"})"), "session_id", sid);
}

std::string sessionId(const std::string& agent) {
    return "selftest-" + agent + "-" + std::to_string(::getpid());
}

}  // namespace

std::vector<Check> run(Bridge& bridge, const fs::path& socket, std::ostream& out) {
    auto python = PythonLocator::interpreter();
    Runner r{bridge, socket, python.value_or("python3"), out, {}};
    if (!python) {
        r.record("a usable python3", false, "none found");
        return r.checks;
    }

    // The installed programs, or the built-in ones when an agent has none installed.
    fs::path scratch = socket.parent_path();
    auto program = [&](HookProviders::Agent which, const std::string& source) {
        const auto& provider = HookProviders::of(which);
        std::string agent(provider.name);
        fs::path installed = HookProviders::programPath(which);
        std::error_code ec;
        if (fs::exists(installed, ec)) return Program{agent, installed, source};
        fs::path copy = scratch / provider.resource;
        FileUtil::writeAtomically(copy, std::string(EmbeddedResources::text(provider.resource).value_or("")), 0755);
        out << "  (" << agent << ": no installed program, using the built-in one)\n";
        return Program{agent, copy, source};
    };
    Program claude = program(HookProviders::Agent::claudeCode, "claude");
    Program codex = program(HookProviders::Agent::codex, "codex");
    Program cursor = program(HookProviders::Agent::cursor, "cursor");
    Program kimi = program(HookProviders::Agent::kimi, "kimi");

    if (!bridge.start()) {
        r.record("the bridge listens on " + socket.string(), false, "it could not bind the socket");
        return r.checks;
    }
    bridge.setGating(true);
    std::string why;

    // Claude Code: a question marker, then a gate answered each way.
    {
        std::string sid = sessionId("claude");
        bool fired = r.fire(claude, "ask", claudeQuestion(sid), why);
        bool arrived = fired && eventually([&] { return bridge.hasMarker("claude", sid); }, 3s);
        r.record("Claude Code: a question marker arrives", arrived, fired ? "no marker" : why);
        for (bool allow : {true, false}) {
            std::string gid = sid + (allow ? "-allow" : "-deny");
            Json input = claudePermission(gid);
            auto printed = r.gate(claude, gid, input, allow, why);
            bool ok = false;
            if (printed) {
                const Json& d = (*printed)["hookSpecificOutput"]["decision"];
                ok = (*printed)["hookSpecificOutput"]["hookEventName"] == "PermissionRequest" &&
                     d["behavior"] == (allow ? "allow" : "deny") &&
                     (allow ? d["updatedInput"] == input["tool_input"] : d["message"] == "Denied from Lumora");
                if (!ok) why = "printed " + printed->dump();
            }
            r.record(std::string("Claude Code: a gate answered ") + (allow ? "allow" : "deny") +
                         " prints the decision", ok, why);
        }
    }
    // Codex: a gate answered each way, its marker visible while held.
    for (bool allow : {true, false}) {
        std::string sid = sessionId("codex") + (allow ? "-allow" : "-deny");
        auto printed = r.gate(codex, sid, codexPermission(sid), allow, why,
                              [&] { return eventually([&] { return bridge.hasMarker("codex", sid); }, 2s); });
        bool ok = false;
        if (printed) {
            const Json& d = (*printed)["hookSpecificOutput"]["decision"];
            ok = (*printed)["continue"] == true && d["behavior"] == (allow ? "allow" : "deny") &&
                 (allow ? !d.contains("updatedInput") : d["message"] == "Denied from Lumora");
            if (!ok) why = "printed " + printed->dump();
        }
        r.record(std::string("Codex: a gate answered ") + (allow ? "allow" : "deny") + " prints the decision", ok,
                 why);
    }
    // Cursor: a pending note arrives.
    {
        std::string cid = sessionId("cursor");
        bool fired = r.fire(cursor, "", cursorShell(cid), why);
        bool arrived = fired && eventually([&] { return bridge.hasCursorPending(cid); }, 3s);
        r.record("Cursor: a pending note arrives", arrived, fired ? "no note" : why);
    }
    // Kimi: a permission notification becomes a marker.
    {
        std::string sid = sessionId("kimi");
        bool fired = r.fire(kimi, "notify", kimiNotification(sid), why);
        bool arrived = fired && eventually([&] { return bridge.hasMarker("kimi", sid); }, 3s);
        r.record("Kimi: a notification marker arrives", arrived, fired ? "no marker" : why);
    }

    // Without a server every program exits at once and prints nothing.
    bridge.stop();
    struct Silent {
        const Program* program;
        std::string action;
        Json input;
    };
    std::vector<Silent> silent = {
        {&claude, "start", claudePermission("x")},   {&claude, "gate", claudePermission("x")},
        {&claude, "ask", claudeQuestion("x")},       {&codex, "gate", codexPermission("x")},
        {&codex, "clear", codexPermission("x")},     {&cursor, "", cursorShell("x")},
        {&kimi, "notify", kimiNotification("x")},
    };
    for (const auto& s : silent) {
        auto began = std::chrono::steady_clock::now();
        bool ok = r.fire(*s.program, s.action, s.input, why);
        auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - began);
        if (ok && took > 2s) {
            ok = false;
            why = "took " + std::to_string(took.count()) + " ms";
        }
        r.record(s.program->agent + ": with no server, \"" + (s.action.empty() ? "event" : s.action) +
                     "\" exits at once and prints nothing",
                 ok, why);
    }
    return r.checks;
}

int runCommand(std::ostream& out, std::ostream& err) {
    std::string pattern = (Paths::tempFolder() / "lumora-selftest-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) {
        err << "lumora: cannot create a temporary folder for the self-test\n";
        return 1;
    }
    fs::path folder(pattern);
    fs::path socket = folder / "notch.sock";
    auto bridge = makeBridge(socket, folder);
    int code = 0;
    if (!bridge) {
        err << "lumora: this build has no hook bridge to test against\n";
        code = 1;
    } else {
        out << "Hook self-test on " << socket.string() << "\n";
        auto checks = run(*bridge, socket, out);
        size_t failed = 0;
        for (const auto& c : checks) failed += c.passed ? 0 : 1;
        out << (failed == 0 ? "All " + std::to_string(checks.size()) + " checks passed."
                            : std::to_string(failed) + " of " + std::to_string(checks.size()) + " checks FAILED.")
            << "\n";
        code = failed == 0 ? 0 : 1;
        bridge.reset();
    }
    std::error_code ec;
    fs::remove_all(folder, ec);
    return code;
}

}  // namespace lumora::HookSelfTest
