#include <gtest/gtest.h>

#include "lumora/monitor/worktree_resolver.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using Resolution = WorktreeResolver::Resolution;

namespace {

void git(const fs::path& dir, const std::string& args) {
    auto r = runCommand("cd '" + dir.string() + "' && git -c user.name=t -c user.email=t@t " + args + " 2>&1");
    ASSERT_EQ(r.status, 0) << args << ": " << r.output;
}

}  // namespace

TEST(WorktreeResolver, CheckoutsAndLinkedWorktrees) {
    TempDir dir;
    auto repo = dir / "lumora";
    fs::create_directories(repo / "src/deep");
    git(repo, "init -q -b main");
    git(repo, "commit -q --allow-empty -m first");

    // No repository anywhere.
    fs::create_directories(dir / "plain");
    EXPECT_EQ(WorktreeResolver::resolve(dir / "plain"), Resolution{});
    EXPECT_FALSE(WorktreeResolver::currentBranch(dir / "plain"));

    // A plain checkout, from its root and from a subfolder.
    EXPECT_EQ(WorktreeResolver::resolve(repo), (Resolution{"lumora", false, std::nullopt}));
    EXPECT_EQ(WorktreeResolver::resolve(repo / "src/deep"), (Resolution{"lumora", false, std::nullopt}));
    EXPECT_EQ(WorktreeResolver::currentBranch(repo / "src"), "main");

    // A linked worktree made by git, with an absolute pointer.
    git(repo, "worktree add -q -b feature/x ../wt-one");
    EXPECT_EQ(WorktreeResolver::resolve(dir / "wt-one"), (Resolution{"lumora", true, "wt-one"}));
    EXPECT_EQ(WorktreeResolver::currentBranch(dir / "wt-one"), "feature/x");

    // A relative pointer, resolved against the checkout.
    git(repo, "worktree add -q -b rel ../rel1");
    writeFile(dir / "rel1/.git", "gitdir: ../lumora/.git/worktrees/rel1\n");
    EXPECT_EQ(WorktreeResolver::resolve(dir / "rel1"), (Resolution{"lumora", true, "rel1"}));
    EXPECT_EQ(WorktreeResolver::currentBranch(dir / "rel1"), "rel");

    // A workspaces folder whose checkout points into the parent repository.
    auto clone = dir / "conductor/workspaces/lumora/my-proj-clone";
    fs::create_directories(clone / "app");
    writeFile(clone / ".git", "gitdir: " + (repo / ".git/worktrees/cond-abc").string() + "\n");
    EXPECT_EQ(WorktreeResolver::resolve(clone / "app"), (Resolution{"lumora", true, "my-proj-clone"}));

    // A pointer that leads nowhere near a worktrees folder.
    auto odd = dir / "odd";
    fs::create_directories(odd);
    writeFile(odd / ".git", "gitdir: /some/elsewhere\n");
    EXPECT_EQ(WorktreeResolver::resolve(odd), (Resolution{"odd", true, "odd"}));
    writeFile(odd / ".git", "garbage");
    EXPECT_EQ(WorktreeResolver::resolve(odd), (Resolution{"odd", true, "odd"}));

    // A detached head has no branch.
    git(dir / "wt-one", "checkout -q --detach");
    EXPECT_FALSE(WorktreeResolver::currentBranch(dir / "wt-one"));
}
