#pragma once

#include <filesystem>
#include <optional>
#include <string>

// Tells, for a working directory, which repository it belongs to and whether
// it is a linked worktree of another checkout.
namespace lumora::WorktreeResolver {

namespace fs = std::filesystem;

struct Resolution {
    std::optional<std::string> repoName;      // the repository; for a worktree, the parent repository
    bool isWorktree = false;
    std::optional<std::string> worktreeName;  // the worktree's own folder when `isWorktree`
    bool operator==(const Resolution&) const = default;
};

// Walks up from `cwd` to the first folder holding a ".git" entry and reads it:
// a ".git" folder is a plain checkout named after its folder; a ".git" file
// pointing into another repository's .git/worktrees is a linked worktree of
// that repository; any other pointer leaves the checkout's own folder as both
// names. Without ".git" anywhere nothing is known.
Resolution resolve(const fs::path& cwd);

// The branch checked out at `cwd` ("feature/x"), or nothing outside a
// repository or on a detached head.
std::optional<std::string> currentBranch(const fs::path& cwd);

}  // namespace lumora::WorktreeResolver
