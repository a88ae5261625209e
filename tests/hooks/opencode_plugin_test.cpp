// The real OpenCode plugin, loaded by node and fed the events OpenCode sent
// in the samples, against a socket server and a stand-in for OpenCode's own
// HTTP server.
#include <gtest/gtest.h>

#include <fstream>

#include "hooks/fake_hook_server.hpp"
#include "lumora/base/defaults_store.hpp"
#include "lumora/approvals/approval_rules_store.hpp"
#include "lumora/hooks/hook_bridge.hpp"
#include "lumora/hooks/opencode_hooks.hpp"
#include "lumora/platform/child_process.hpp"
#include "support/test_support.hpp"

using namespace lumora;
namespace fs = std::filesystem;
using namespace std::chrono_literals;
using lumora::test::FakeHookServer;
using lumora::test::TempDir;
using Json = nlohmann::ordered_json;

namespace {

const char* kDriver = R"JS(
import http from "node:http";
import fs from "node:fs";
const { LumoraPlugin } = await import(process.argv[2]);
const events = fs.readFileSync(process.argv[3], "utf8").split("\n").filter(Boolean).map((l) => JSON.parse(l));
const requests = [];
const server = http.createServer((req, res) => {
  let body = "";
  req.on("data", (c) => (body += c));
  req.on("end", () => {
    requests.push({ method: req.method, url: req.url, directory: req.headers["x-opencode-directory"], body });
    res.end("true");
  });
});
await new Promise((r) => server.listen(0, "127.0.0.1", r));
const hooks = await LumoraPlugin({
  directory: "/home/dev/proj", worktree: "/home/dev/proj", client: {},
  serverUrl: new URL("http://127.0.0.1:" + server.address().port + "/"),
});
for (const event of events) {
  await hooks.event({ event });
  await new Promise((r) => setTimeout(r, 40));
}
await new Promise((r) => setTimeout(r, 300));
console.log(JSON.stringify(requests));
process.exit(0);
)JS";

// The events of one scenario of the recorded OpenCode session.
std::vector<Json> scenarioEvents(const std::string& scenario) {
    std::ifstream in(test::agentSample("opencode/plugin.jsonl"));
    std::string line, current;
    std::vector<Json> events;
    while (std::getline(in, line)) {
        Json j = Json::parse(line);
        if (j.contains("harness_scenario")) current = j["harness_scenario"];
        else if (current == scenario && j["kind"] == "event") events.push_back(j["data"]);
    }
    return events;
}

class OpenCodePlugin : public ::testing::Test {
protected:
    void SetUp() override {
        if (test::runCommand("node --version >/dev/null 2>&1").status != 0) GTEST_SKIP() << "node is not installed";
        fs::permissions(dir_.path(), fs::perms::owner_all);  // the plugin talks only to a socket in a private folder
        socket_ = dir_ / "s.sock";
        test::writeFile(dir_ / "plugins/package.json", "{\"type\": \"module\"}\n");
        test::writeFile(dir_ / "plugins/lumora.js", OpenCodeHooks::pluginText(socket_));
        test::writeFile(dir_ / "plugins/driver.js", kDriver);
        server_ = std::make_unique<FakeHookServer>(socket_);
        ASSERT_TRUE(server_->start());
    }

    // Runs the events through the plugin; returns the HTTP requests it made to OpenCode.
    Json drive(const std::vector<Json>& events, const std::string& socket) {
        std::string lines;
        for (const auto& e : events) lines += e.dump() + "\n";
        test::writeFile(dir_ / "events.jsonl", lines);
        auto child = ChildProcess::spawn({"node", (dir_ / "plugins/driver.js").string(),
                                          (dir_ / "plugins/lumora.js").string(), (dir_ / "events.jsonl").string()},
                                         "", {{"LUMORA_SOCKET", socket}});
        if (!child || !child->wait(60s)) return Json();
        return Json::parse(child->output(), nullptr, false);
    }

    TempDir dir_;
    fs::path socket_;
    std::unique_ptr<FakeHookServer> server_;
};

}  // namespace

TEST_F(OpenCodePlugin, AnAllowFromLumoraRepliesToOpenCodeOnce) {
    auto events = scenarioEvents("serve-bashwrite-plugin-allow");
    ASSERT_FALSE(events.empty());
    server_->autoAnswer("allow");
    Json requests = drive(events, socket_.string());
    ASSERT_TRUE(requests.is_array());
    ASSERT_EQ(requests.size(), 1u) << requests.dump();
    EXPECT_EQ(requests[0]["method"], "POST");
    EXPECT_EQ(requests[0]["url"], "/permission/per_200be2613001CnIgrOrcbaNI7E/reply");
    EXPECT_EQ(requests[0]["directory"], "%2Fhome%2Fdev%2Fproj");
    EXPECT_EQ(Json::parse(requests[0]["body"].get<std::string>()), Json({{"reply", "once"}}));

    auto lines = server_->lines();
    std::vector<std::string> actions;
    for (const auto& l : lines) {
        EXPECT_EQ(l["source"], "opencode");
        EXPECT_EQ(l["session_id"], "ses_dff41df7effeF72lGez6il6Rxl");
        EXPECT_FALSE(l.contains("v"));
        actions.push_back(l["action"]);
    }
    // Created, the first text part (once), the gate, the reply event, idle.
    EXPECT_EQ(actions, (std::vector<std::string>{"clear", "clear", "gate", "clear", "clear"}));
    Json gate = lines[2];
    EXPECT_EQ(gate["tool_name"], "bash");
    EXPECT_EQ(gate["detail"], "touch harness-made.txt");
    EXPECT_EQ(gate["cwd"], "/home/dev/proj");
}

TEST_F(OpenCodePlugin, ADenyRejectsAndAQuestionBecomesAMarker) {
    server_->autoAnswer("deny");
    Json requests = drive(scenarioEvents("serve-bashwrite-plugin-deny"), socket_.string());
    ASSERT_EQ(requests.size(), 1u) << requests.dump();
    EXPECT_EQ(Json::parse(requests[0]["body"].get<std::string>()), Json({{"reply", "reject"}}));

    server_->autoAnswer("passthrough");
    size_t before = server_->lines().size();
    requests = drive(scenarioEvents("serve-ask-question"), socket_.string());
    EXPECT_TRUE(requests.empty());
    auto lines = server_->lines();
    auto marker = std::find_if(lines.begin() + static_cast<long>(before), lines.end(),
                               [](const Json& l) { return l["action"] == "marker"; });
    ASSERT_NE(marker, lines.end());
    EXPECT_EQ((*marker)["kind"], "question");
    EXPECT_EQ((*marker)["detail"], "Which database should the service use?");
    EXPECT_EQ((*marker)["options"], Json::array({"SQLite", "Postgres"}));
    EXPECT_EQ((*marker)["more_questions"], 1);
}

TEST_F(OpenCodePlugin, WithoutLumoraNothingHappensAndNothingBreaks) {
    Json requests = drive(scenarioEvents("serve-bashwrite-plugin-allow"), (dir_ / "missing.sock").string());
    ASSERT_TRUE(requests.is_array());
    EXPECT_TRUE(requests.empty());
    // Only Node's own modules are imported.
    std::string text = test::readFile(dir_ / "plugins/lumora.js");
    size_t pos = 0;
    while ((pos = text.find("\nimport ", pos)) != std::string::npos) {
        size_t eol = text.find('\n', pos + 1);
        std::string line = text.substr(pos + 1, eol - pos - 1);
        EXPECT_NE(line.find("from \"node:"), std::string::npos) << line;
        pos = eol;
    }
}

TEST_F(OpenCodePlugin, NeverTalksToASocketOthersCouldHavePutThere) {
    TempDir open;
    fs::permissions(open.path(), fs::perms::all);
    FakeHookServer stranger(open / "notch.sock");
    ASSERT_TRUE(stranger.start());
    stranger.autoAnswer("allow");
    Json requests = drive(scenarioEvents("serve-bashwrite-plugin-allow"), (open / "notch.sock").string());
    ASSERT_TRUE(requests.is_array());
    EXPECT_TRUE(requests.empty()) << requests.dump();
    EXPECT_EQ(stranger.connections(), 0u);
}

TEST_F(OpenCodePlugin, AQuestionReachesTheRealBridge) {
    server_->stop();
    fs::create_directories(dir_ / "support");
    fs::permissions(dir_ / "support", fs::perms::owner_all);
    DefaultsStore defaults(dir_ / "defaults.json");
    ApprovalRulesStore rules(defaults);
    HookBridgeOptions options;
    options.traceFile = std::nullopt;
    HookBridge bridge(dir_ / "support/notch.sock", dir_ / "support", rules, options);
    ASSERT_TRUE(bridge.start().ok);
    // Up to the question, before the user answers it in OpenCode.
    std::vector<Json> events;
    for (const auto& e : scenarioEvents("serve-ask-question")) {
        events.push_back(e);
        if (e["type"] == "question.asked") break;
    }
    drive(events, (dir_ / "support/notch.sock").string());
    auto markers = bridge.snapshot(std::chrono::system_clock::now()).markers[scrivet::HarnessProvider::opencode];
    ASSERT_EQ(markers.size(), 1u);
    const auto& marker = markers.begin()->second;
    EXPECT_EQ(marker.sessionId, "ses_dff41bbb3ffekfmJADuJxTgj1K");
    EXPECT_EQ(marker.kind, "question");
    EXPECT_EQ(marker.detail, "Which database should the service use?");
    bridge.stop();
}
