#include <fcntl.h>
#include <gtest/gtest.h>
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>
#include <sys/file.h>
#include <unistd.h>

#include <future>
#include <sstream>
#include <thread>

#include "lumora/approvals/approval_labels.hpp"
#include "lumora/approvals/approval_request.hpp"
#include "lumora/approvals/approval_rules_store.hpp"
#include "lumora/base/defaults_store.hpp"
#include "lumora/base/file_util.hpp"
#include "lumora/hooks/attention_marker.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using namespace std::chrono_literals;
using Json = nlohmann::ordered_json;
using scrivet::HarnessProvider;

namespace {

constexpr auto claude = HarnessProvider::claudeCode;
constexpr auto codex = HarnessProvider::codex;
constexpr auto opencode = HarnessProvider::opencode;
constexpr auto kimi = HarnessProvider::kimi;

Json storedRule(const std::string& id, const std::string& tool, std::optional<std::string> head) {
    Json j = {{"id", id}, {"toolName", tool}, {"createdAt", "2026-01-02T03:04:05Z"}};
    if (head) j["head"] = *head;
    return j;
}

}  // namespace

TEST(ApprovalRequest, ScopeLabelsAndTheSandbox) {
    ApprovalRequest bash{"s", "Bash", "git status && npm test", true, std::nullopt, false};
    EXPECT_EQ(bash.approvalScope(), ApprovalScope::shellHeads({"git", "npm"}));
    EXPECT_EQ(ApprovalLabels::allowThisSession(*bash.approvalScope(), "Bash"), "Allow git, npm this session");
    EXPECT_EQ(ApprovalLabels::alwaysAllow(*bash.approvalScope(), "Bash"), "Always allow git, npm");

    ApprovalRequest edit{"s", "Edit", "/src/a.cpp", true, "refactor", false};
    EXPECT_EQ(edit.approvalScope(), ApprovalScope::tool());
    EXPECT_TRUE(edit.hasContext());
    EXPECT_EQ(ApprovalLabels::alwaysAllow(*edit.approvalScope(), "Edit"), "Always allow Edit");

    for (auto change : std::vector<std::function<void(ApprovalRequest&)>>{
             [](ApprovalRequest& r) { r.approvable = false; }, [](ApprovalRequest& r) { r.escalated = true; },
             [](ApprovalRequest& r) { r.toolName = ""; }, [](ApprovalRequest& r) { r.detail = "echo $(whoami)"; },
             [](ApprovalRequest& r) { r.provider = codex; }}) {
        auto none = bash;
        change(none);
        EXPECT_EQ(none.approvalScope(), std::nullopt);
    }

    // A Codex permission request is itself the sandbox escape: it shows as
    // escalated although its hook input carries no such flag.
    AttentionMarker m{"s", "Bash", "touch /home/dev/agents/x", AttentionMarker::permission, "needs to write", false,
                      std::nullopt, 0};
    EXPECT_FALSE(m.approvalRequest(true).escalated);
    auto fromCodex = m.approvalRequest(true, codex);
    EXPECT_TRUE(fromCodex.escalated);
    EXPECT_EQ(fromCodex.provider, codex);
    EXPECT_EQ(fromCodex.approvalScope(), std::nullopt);
    EXPECT_EQ(m.approvalRequest(true, opencode).approvalScope(), ApprovalScope::shellHeads({"touch"}));
}

TEST(ApprovalRulesStore, MatchingAndPersistence) {
    TempDir dir;
    DefaultsStore defaults(dir / "defaults.json");
    ApprovalRulesStore rules(defaults);

    EXPECT_FALSE(rules.matches(claude, "s", "Bash", "git status", false));
    rules.addAlwaysRule(claude, "Bash", "git");
    EXPECT_TRUE(rules.matches(claude, "s", "Bash", "  git status  ", false));
    EXPECT_FALSE(rules.matches(claude, "s", "Bash", "git status && npm test", false));
    EXPECT_FALSE(rules.matches(claude, "s", "Bash", "git status", true));  // escalated never matches
    EXPECT_FALSE(rules.matches(claude, "s", "Bash", "   ", false));
    EXPECT_FALSE(rules.matches(claude, "s", "Bash", std::nullopt, false));
    EXPECT_FALSE(rules.matches(claude, "s", "Bash", "git $(rm -rf /)", false));
    EXPECT_FALSE(rules.matches(claude, "s", "Bash", "git status\rrm -rf ~", false));
    EXPECT_FALSE(rules.matches(claude, "s", "", "git status", false));
    rules.addAlwaysRule(claude, "Bash", "npm");
    EXPECT_TRUE(rules.matches(claude, "s", "Bash", "git status && npm test", false));
    EXPECT_TRUE(rules.matches(claude, "s", "exec_command", "npm test", false));  // heads are shared by shells

    // Session rules match only their session; whole-tool rules only their tool.
    rules.addSessionRule(claude, "s1", "Edit", std::nullopt);
    EXPECT_TRUE(rules.matches(claude, "s1", "Edit", "/a", false));
    EXPECT_FALSE(rules.matches(claude, "s2", "Edit", "/a", false));
    EXPECT_FALSE(rules.matches(claude, "s1", "Write", "/a", false));
    rules.addSessionRule(claude, "s1", "Bash", "make");
    EXPECT_TRUE(rules.matches(claude, "s1", "Bash", "make && git push", false));
    EXPECT_FALSE(rules.matches(claude, "s2", "Bash", "make", false));

    // Always rules live in the defaults under "approvalRules.v1" and reach other stores.
    rules.flush();
    auto stored = defaults.list("approvalRules.v1");
    ASSERT_TRUE(stored);
    ASSERT_EQ(stored->size(), 2u);
    EXPECT_EQ((*stored)[0]["toolName"], "Bash");
    EXPECT_EQ((*stored)[0]["head"], "git");
    EXPECT_EQ((*stored)[0]["provider"], "claudeCode");
    EXPECT_EQ((*stored)[0]["id"].get<std::string>().size(), 36u);
    DefaultsStore sameFile(dir / "defaults.json");
    ApprovalRulesStore other(sameFile);
    auto all = other.alwaysRules();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_FALSE(other.matches(claude, "s1", "Edit", "/a", false));  // session rules stay in memory
    EXPECT_TRUE(other.removeAlwaysRule(all[0].id));
    EXPECT_FALSE(other.removeAlwaysRule(all[0].id));
    EXPECT_FALSE(rules.matches(claude, "s", "Bash", "git status", false));  // the first store sees the removal
    EXPECT_EQ(rules.alwaysRules().size(), 1u);
}

TEST(ApprovalRulesStore, RulesAnswerOnlyTheAgentTheyWereMadeOn) {
    TempDir dir;
    DefaultsStore defaults(dir / "defaults.json");
    // A rule stored before rules named their agent was made on a Claude Code prompt.
    defaults.setValue("approvalRules.v1", Json::array({storedRule("OLD", "Bash", "ls")}));
    ApprovalRulesStore rules(defaults);
    EXPECT_EQ(rules.alwaysRules().at(0).provider, claude);
    EXPECT_TRUE(rules.matches(claude, "s", "Bash", "ls -la", false));
    EXPECT_FALSE(rules.matches(opencode, "s", "bash", "ls -la", false));

    rules.addAlwaysRule(claude, "Bash", "git");
    rules.addSessionRule(claude, "s", "Edit", std::nullopt);
    for (auto other : {opencode, kimi, codex}) {
        EXPECT_FALSE(rules.matches(other, "s", "Bash", "git status", false));
        EXPECT_FALSE(rules.matches(other, "s", "Edit", "/a", false));
    }
    rules.addAlwaysRule(opencode, "bash", "npm");
    EXPECT_TRUE(rules.matches(opencode, "o", "bash", "npm test", false));
    EXPECT_FALSE(rules.matches(claude, "o", "Bash", "npm test", false));

    // Codex asks only to leave its sandbox: no rule answers it, not even one made on Codex.
    rules.addAlwaysRule(codex, "Bash", "touch");
    rules.addSessionRule(codex, "c", "Bash", "touch");
    EXPECT_FALSE(rules.matches(codex, "c", "Bash", "touch /home/dev/agents/x", false));

    // The old rule keeps its stored shape; new ones say whose they are.
    rules.flush();
    auto stored = *defaults.list("approvalRules.v1");
    EXPECT_FALSE(stored[0].contains("provider"));
    EXPECT_EQ(stored[2]["provider"], "opencode");
    DefaultsStore reread(dir / "defaults.json");
    ApprovalRulesStore again(reread);
    EXPECT_TRUE(again.matches(opencode, "o", "bash", "npm test", false));
    EXPECT_FALSE(again.matches(claude, "o", "Bash", "npm test", false));
}

TEST(ApprovalRulesStore, DropsImplausibleRulesOnLoad) {
    auto plausible = [](std::optional<std::string> head, std::string tool = "Bash") {
        return ApprovalRulesStore::looksLikeCommandHead(ApprovalRule{"id", tool, head, {}});
    };
    for (const char* head : {"git", "./build.sh", "sudo apt-get", "g++"}) EXPECT_TRUE(plausible(head)) << head;
    for (const char* head : {"persist the disk", "rm \"x\"", "it's", "", "sudo ", "sudo sudo x"})
        EXPECT_FALSE(plausible(head)) << head;
    EXPECT_TRUE(plausible(std::nullopt, "Edit"));
    EXPECT_FALSE(plausible(std::nullopt, ""));
    EXPECT_FALSE(plausible(std::string(65, 'a')));
    EXPECT_TRUE(plausible(std::string(64, 'a')));

    TempDir dir;
    DefaultsStore defaults(dir / "defaults.json");
    Json list = Json::array({storedRule("A", "Bash", "git"), storedRule("B", "Bash", "persist the disk"),
                             storedRule("C", "Bash", "rm\"x"), storedRule("D", "Read", std::nullopt),
                             storedRule("E", "Bash", "ls")});
    list[0]["createdAt"] = "2026-01-02T03:04:05.000Z";
    list[4]["provider"] = "someNewAgent";  // from a newer version: kept, not applied
    defaults.setValue("approvalRules.v1", list);

    std::ostringstream logged;
    auto previous = spdlog::default_logger();
    spdlog::set_default_logger(std::make_shared<spdlog::logger>("t", std::make_shared<spdlog::sinks::ostream_sink_mt>(logged)));
    spdlog::set_level(spdlog::level::info);
    ApprovalRulesStore rules(defaults);
    spdlog::set_default_logger(previous);

    EXPECT_NE(logged.str().find("[approval] dropped 2 malformed always-rule(s)"), std::string::npos) << logged.str();
    auto kept = rules.alwaysRules();
    ASSERT_EQ(kept.size(), 2u);
    EXPECT_EQ(kept[0].id, "A");
    EXPECT_EQ(kept[1].id, "D");
    EXPECT_EQ(defaults.list("approvalRules.v1")->size(), 3u);  // the cleaned list is saved back
    EXPECT_TRUE(rules.matches(claude, "s", "Read", "/etc/hosts", false));
    EXPECT_FALSE(rules.matches(claude, "s", "Bash", "ls", false));

    // Stored rules that cannot be decoded at all read as none.
    defaults.setValue("approvalRules.v1", "garbage");
    EXPECT_TRUE(rules.alwaysRules().empty());
}

// A process that runs for weeks sees thousands of sessions: their rules go
// after a day unused, and never more than kMaxSessions sessions keep any.
TEST(ApprovalRulesStore, SessionRulesAgeOutAndAreCapped) {
    TempDir dir;
    DefaultsStore defaults(dir / "defaults.json");
    auto now = std::chrono::system_clock::now();
    ApprovalRulesStore rules(defaults, [&] { return now; });

    rules.addSessionRule(claude, "kept", "Bash", "make");
    rules.addSessionRule(claude, "idle", "Bash", "make");
    now += ApprovalRulesStore::kSessionRulesIdle - 1h;
    EXPECT_TRUE(rules.matches(claude, "kept", "Bash", "make", false));  // using a rule keeps it
    now += 2h;
    EXPECT_TRUE(rules.matches(claude, "kept", "Bash", "make", false));
    EXPECT_FALSE(rules.matches(claude, "idle", "Bash", "make", false));

    for (int i = 0; i < 2000; ++i) {
        now += 1s;
        rules.addSessionRule(claude, "session-" + std::to_string(i), "Bash", "make");
    }
    EXPECT_EQ(rules.sessionCount(), ApprovalRulesStore::kMaxSessions);
    EXPECT_TRUE(rules.matches(claude, "session-1999", "Bash", "make", false));
    EXPECT_FALSE(rules.matches(claude, "session-0", "Bash", "make", false));  // the least recently used went first
    for (int i = 0; i < 200; ++i) rules.addSessionRule(claude, "busy", "Bash", "tool" + std::to_string(i));
    EXPECT_TRUE(rules.matches(claude, "busy", "Bash", "tool0", false));
    EXPECT_FALSE(rules.matches(claude, "busy", "Bash", "tool199", false));  // a session keeps a bounded set

    now += ApprovalRulesStore::kSessionRulesIdle + 1s;
    EXPECT_EQ(rules.sessionCount(), 0u);
}

// Gates are answered from memory: the defaults file is read again only when
// it changed, its rules are never rewritten from a gate, and a write waiting
// on the file's lock (another process holding it) never holds a gate up.
TEST(ApprovalRulesStore, GatesNeverWaitOnTheDefaultsFile) {
    TempDir dir;
    auto file = dir / "defaults.json";
    DefaultsStore defaults(file);
    ApprovalRulesStore rules(defaults);
    rules.addAlwaysRule(claude, "Bash", "git");
    rules.flush();

    // Another process adds a rule and an implausible one: read once, never written back from a gate.
    DefaultsStore elsewhere(file);
    elsewhere.update("approvalRules.v1", [](Json& list) {
        list.push_back(storedRule("N", "Bash", "npm"));
        list.push_back(storedRule("X", "Bash", "not a head"));
    });
    auto before = FileStamp::of(file);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(rules.matches(claude, "s", "Bash", "git status && npm test", false));
    EXPECT_EQ(FileStamp::of(file), before);
    EXPECT_EQ(elsewhere.list("approvalRules.v1")->size(), 3u);

    // A settings write of this process waits on the file lock another process holds...
    int lockFd = ::open((file.string() + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(lockFd, 0);
    ASSERT_EQ(::flock(lockFd, LOCK_EX), 0);
    std::thread writer([&] { defaults.setBool("soundEnabled", false); });
    bool busy = false;
    for (int i = 0; i < 2000 && !busy; ++i) {
        defaults.tryValue("soundEnabled", busy);
        if (!busy) std::this_thread::sleep_for(1ms);
    }
    ASSERT_TRUE(busy);
    // ...while the file changes under it: gates are still answered, from the rules in memory.
    ASSERT_TRUE(FileUtil::writeAtomically(file, elsewhere.snapshot().dump(), 0600).ok);
    auto gate = std::async(std::launch::async, [&] { return rules.matches(claude, "s", "Bash", "git log", false); });
    bool answered = gate.wait_for(10s) == std::future_status::ready;
    ::flock(lockFd, LOCK_UN);
    ::close(lockFd);
    writer.join();
    ASSERT_TRUE(answered) << "a gate waited on the defaults file's lock";
    EXPECT_TRUE(gate.get());
}
