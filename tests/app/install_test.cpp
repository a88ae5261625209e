// `make install` through CMake's install rules into a DESTDIR: the files land
// where the desktop looks for them, the installed binary runs, the man page
// renders, and the man page and the completions know every flag of --help.
#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "support/test_support.hpp"

using namespace lumora::test;

namespace {

std::set<std::string> flagsIn(const std::string& text) {
    std::set<std::string> flags;
    std::regex flag(R"((^|[^A-Za-z0-9-])(--[a-z][a-z-]*[a-z]|-h)\b)");
    for (auto it = std::sregex_iterator(text.begin(), text.end(), flag); it != std::sregex_iterator(); ++it)
        flags.insert((*it)[2]);
    return flags;
}

// The completion scripts spell long flags their own ways ("-l hooks-enable" in fish).
std::string fishAsFlags(const std::string& text) {
    return std::regex_replace(std::regex_replace(text, std::regex(" -l "), " --"), std::regex(" -s h "), " -h ");
}

}  // namespace

TEST(Install, InstalledFilesRunRenderAndKnowEveryFlag) {
    TempHome home;
    TempDir dest;
    auto install = runCommand("DESTDIR='" + dest.path().string() + "' cmake --install '" LUMORA_BUILD_DIR "' 2>&1");
    ASSERT_EQ(install.status, 0) << install.output;
    fs::path root = dest.path() / fs::path(LUMORA_INSTALL_PREFIX).relative_path();
    fs::path binary = root / "bin/lumora";
    fs::path man = root / "share/man/man1/lumora.1";
    fs::path bash = root / "share/bash-completion/completions/lumora";
    fs::path zsh = root / "share/zsh/vendor-completions/_lumora";
    fs::path fish = root / "share/fish/vendor_completions.d/lumora.fish";
    for (const auto& file : {binary, man, bash, zsh, fish, root / "share/applications/lumora.desktop",
                             root / "share/icons/hicolor/scalable/apps/lumora.svg", root / "lib/systemd/user/lumora.service"})
        EXPECT_TRUE(fs::is_regular_file(file)) << file;
    EXPECT_NE(readFile(root / "lib/systemd/user/lumora.service")
                  .find("ExecStart=" + (fs::path(LUMORA_INSTALL_PREFIX) / "bin/lumora").string() + " --no-ui\n"),
              std::string::npos);

    // The installed binary works from there, hook programs included (they are embedded).
    auto version = runCommand("'" + binary.string() + "' --version");
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.output.rfind("lumora ", 0), 0u) << version.output;
    auto selfTest = runCommand("'" + binary.string() + "' --hooks-selftest 2>&1");
    EXPECT_EQ(selfTest.status, 0) << selfTest.output;

    // The man page renders without a warning, and lists every flag of --help.
    auto rendered = runCommand("MANWIDTH=100 man -l -P cat '" + man.string() + "' 2>/dev/null");
    ASSERT_EQ(rendered.status, 0);
    EXPECT_NE(rendered.output.find("LUMORA(1)"), std::string::npos);
    auto warnings = runCommand("man --warnings -l -P cat '" + man.string() + "' 2>&1 >/dev/null");
    EXPECT_EQ(warnings.output, "");
    auto help = flagsIn(runCommand("'" + binary.string() + "' --help").output);
    ASSERT_GT(help.size(), 15u);
    auto documented = flagsIn(rendered.output);
    for (const auto& flag : help) EXPECT_TRUE(documented.count(flag)) << flag << " is not in the man page";

    // Each completion script offers exactly the flags of --help.
    EXPECT_EQ(flagsIn(readFile(bash)), help);
    EXPECT_EQ(flagsIn(std::regex_replace(readFile(zsh), std::regex(R"(\{-h,--help\})"), "-h --help")), help);
    EXPECT_EQ(flagsIn(fishAsFlags(readFile(fish))), help);

    // And loads in its shell, where the shell is installed.
    auto loaded = runCommand("bash -c 'source \"" + bash.string() +
                             "\" && COMP_WORDS=(lumora --launch-at-login o) COMP_CWORD=2 && _lumora && "
                             "echo \"${COMPREPLY[*]}\"'");
    EXPECT_EQ(loaded.output, "on off\n");
    if (fs::exists("/usr/bin/zsh")) {
        auto z = runCommand("zsh -n '" + zsh.string() + "' 2>&1");
        EXPECT_EQ(z.status, 0) << z.output;
    }
    if (fs::exists("/usr/bin/fish")) {
        auto f = runCommand("fish -c 'source \"" + fish.string() + "\"; complete -C\"lumora --launch-at-login \"' 2>&1");
        EXPECT_NE(f.output.find("on"), std::string::npos) << f.output;
    }
}
