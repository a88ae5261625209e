#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "lumora/base/defaults_store.hpp"
#include "lumora/approvals/approval_rules_store.hpp"
#include "lumora/platform/paths.hpp"
#include "lumora/platform/peer_credentials.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;

TEST(ApprovalsCommand, ListsAndRemovesAlwaysRules) {
    TempHome home;
    auto bin = lumoraBinary().string();
    EXPECT_EQ(runCommand(bin + " --approvals").output, "no always-rules\n");

    DefaultsStore defaults(Paths::defaultsFile());
    ApprovalRulesStore rules(defaults);
    auto git = rules.addAlwaysRule(scrivet::HarnessProvider::claudeCode, "Bash", "git");
    auto edit = rules.addAlwaysRule(scrivet::HarnessProvider::claudeCode, "Edit", std::nullopt);
    rules.flush();  // saved on the store's queue

    auto listed = runCommand(bin + " --approvals");
    EXPECT_EQ(listed.status, 0);
    EXPECT_NE(listed.output.find(git.id + "  Bash  git  "), std::string::npos) << listed.output;
    EXPECT_NE(listed.output.find(edit.id + "  Edit  *  "), std::string::npos) << listed.output;

    auto removed = runCommand(bin + " --approvals-remove " + git.id);
    EXPECT_EQ(removed.status, 0);
    ASSERT_EQ(rules.alwaysRules().size(), 1u);
    EXPECT_EQ(rules.alwaysRules()[0].id, edit.id);

    auto missing = runCommand(bin + " --approvals-remove " + git.id + " 2>&1");
    EXPECT_NE(missing.status, 0);
    EXPECT_EQ(missing.output, "lumora: no always-rule with id " + git.id + "\n");
}

TEST(PeerCredentials, TellsTheUserAtTheOtherEnd) {
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    auto peer = PeerCredentials::of(pair[0]);
    ASSERT_TRUE(peer);
    EXPECT_EQ(peer->uid, PeerCredentials::currentUserId());
    EXPECT_EQ(peer->pid, ::getpid());
    ::close(pair[0]);
    ::close(pair[1]);
    EXPECT_FALSE(PeerCredentials::of(-1));
}
