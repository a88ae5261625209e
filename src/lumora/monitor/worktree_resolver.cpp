#include "lumora/monitor/worktree_resolver.hpp"

#include "lumora/base/file_util.hpp"

namespace lumora::WorktreeResolver {

namespace {

struct Checkout {
    fs::path root;     // the folder holding ".git"
    fs::path gitDir;   // the repository's (or worktree's) git folder
    bool pointer = false;
};

std::string trim(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r' || s.back() == ' ' || s.back() == '\t')) s.pop_back();
    size_t i = 0;
    while (i < s.size() && (s[i] == ' ' || s[i] == '\t')) ++i;
    return s.substr(i);
}

std::string folderName(const fs::path& p) {
    fs::path n = p.lexically_normal();
    if (!n.has_filename()) n = n.parent_path();
    return n.filename().string();
}

std::optional<Checkout> findCheckout(const fs::path& cwd) {
    std::error_code ec;
    fs::path dir = cwd.lexically_normal();
    if (!dir.has_filename()) dir = dir.parent_path();
    for (;;) {
        fs::path git = dir / ".git";
        auto st = fs::symlink_status(git, ec);
        if (!ec && fs::exists(st)) {
            if (fs::is_directory(st)) return Checkout{dir, git, false};
            auto contents = FileUtil::readFile(git);
            std::string line = contents ? trim(contents->substr(0, contents->find('\n'))) : std::string();
            fs::path target;
            if (line.starts_with("gitdir:")) {
                target = fs::path(trim(line.substr(7)));
                if (target.is_relative()) target = dir / target;
                target = target.lexically_normal();
            }
            return Checkout{dir, target, true};
        }
        if (!dir.has_relative_path()) return std::nullopt;
        fs::path parent = dir.parent_path();
        if (parent == dir) return std::nullopt;
        dir = parent;
    }
}

}  // namespace

Resolution resolve(const fs::path& cwd) {
    Resolution r;
    auto checkout = findCheckout(cwd);
    if (!checkout) return r;
    std::string own = folderName(checkout->root);
    if (!checkout->pointer) {
        r.repoName = own;
        return r;
    }
    fs::path target = checkout->gitDir;
    if (!target.has_filename()) target = target.parent_path();
    fs::path holder = target.parent_path();      // .../.git/worktrees
    fs::path repoGit = holder.parent_path();     // .../.git (or a bare "repo.git")
    std::string gitName = repoGit.filename().string();
    if (!target.empty() && holder.filename() == "worktrees" && !gitName.empty()) {
        r.isWorktree = true;
        r.worktreeName = own;
        if (gitName == ".git") r.repoName = folderName(repoGit.parent_path());
        else if (gitName.size() > 4 && gitName.ends_with(".git")) r.repoName = gitName.substr(0, gitName.size() - 4);
        else r.repoName = gitName;
        return r;
    }
    if (!target.empty() && holder.filename() == "modules") {
        // A submodule: a checkout of its own.
        r.repoName = own;
        return r;
    }
    r.repoName = own;
    r.isWorktree = true;
    r.worktreeName = own;
    return r;
}

std::optional<std::string> currentBranch(const fs::path& cwd) {
    auto checkout = findCheckout(cwd);
    if (!checkout || checkout->gitDir.empty()) return std::nullopt;
    auto head = FileUtil::readFile(checkout->gitDir / "HEAD");
    if (!head) return std::nullopt;
    std::string line = trim(head->substr(0, head->find('\n')));
    static const std::string prefix = "ref: refs/heads/";
    if (!line.starts_with(prefix)) return std::nullopt;
    return line.substr(prefix.size());
}

}  // namespace lumora::WorktreeResolver
