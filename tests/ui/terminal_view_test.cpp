// Drives the real `lumora --demo` inside tmux: keys go in with send-keys and
// the screen comes back with capture-pane.
#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

#include "support/test_support.hpp"
#include "ui/tmux.hpp"

using namespace lumora::test;
using namespace std::chrono_literals;

namespace {

std::string demoCommand(const TempHome& home, const std::string& extraEnv = "") {
    return "env HOME=" + home.path().string() + " XDG_CONFIG_HOME=" + (home / ".config").string() +
           " XDG_DATA_HOME=" + (home / ".local/share").string() + " TERM=xterm-256color LANG=C.UTF-8 " + extraEnv +
           " " + lumoraBinary().string() + " --demo";
}

std::vector<std::string> lines(const std::string& screen) {
    std::vector<std::string> out;
    size_t start = 0;
    for (size_t nl; (nl = screen.find('\n', start)) != std::string::npos; start = nl + 1) out.push_back(screen.substr(start, nl - start));
    if (start < screen.size()) out.push_back(screen.substr(start));
    return out;
}

int lineWith(const std::string& screen, const std::string& text) {
    auto ls = lines(screen);
    for (size_t i = 0; i < ls.size(); ++i)
        if (ls[i].find(text) != std::string::npos) return static_cast<int>(i);
    return -1;
}

}  // namespace

TEST(TerminalView, RowsKeysAndAnApprovalFromTheKeyboard) {
    TempHome home;
    Tmux tmux(80, 24, demoCommand(home));
    std::string s = tmux.waitFor("13 agents");
    // Under the tab line, the quota strip (three providers), then the rows
    // worst first: needs-you rows, then waiting, then working; the selection on the first.
    EXPECT_EQ(lineWith(s, "Claude · Max 20x"), 1);
    int need = lineWith(s, "Needs you");
    EXPECT_EQ(need, 5);
    EXPECT_EQ(lineWith(s, "▸ ● Needs you       lumora · main"), 5);
    EXPECT_NE(lineWith(s, "[a] Approve  [d] Deny  [s] Allow git, npm this session"), -1);
    EXPECT_NE(lineWith(s, "Outside sandbox"), -1);
    EXPECT_NE(lineWith(s, "1 Pagefind   2 Algolia   3 Lunr   +1 more"), -1);
    EXPECT_NE(lineWith(s, "↓ 10 more"), -1);  // thirteen rows, as many as fit
    EXPECT_EQ(lineWith(s, "q Quit"), 23);

    // Down moves the selection; Enter expands the row.
    tmux.keys("j");
    s = tmux.waitFor("▸ ● Needs you       payments-api");
    EXPECT_EQ(lineWith(s, "[s]"), -1);  // an escalated request offers no wider scope
    tmux.keys("Enter");
    tmux.waitFor("kitty · /home/dev/src/payments-api");

    // Back on the shell request, "Always allow" answers it and says so.
    tmux.keys("g A");
    s = tmux.waitFor("✓ Approved · won't ask again");
    EXPECT_NE(lineWith(s, "▸ ● Working         lumora · main"), -1);

    tmux.keys("q");
    tmux.waitFor("exit status 0");
}

TEST(TerminalView, HelpResizeAndQuit) {
    TempHome home;
    Tmux tmux(80, 24, demoCommand(home));
    tmux.waitFor("13 agents");
    tmux.keys("?");
    std::string s = tmux.waitFor("Statuses");
    EXPECT_NE(lineWith(s, "A             Always allow its commands"), -1);
    EXPECT_NE(lineWith(s, "q             quit"), -1);
    tmux.keys("x");  // any key closes the help
    tmux.waitFor("Release checklist for 0.3");

    tmux.resize(120, 40);
    auto deadline = std::chrono::steady_clock::now() + 20s;
    while (std::chrono::steady_clock::now() < deadline) {
        s = tmux.screen();
        if (lines(s).size() >= 1 && lines(s)[0].find("13 agents") > 100) break;
        std::this_thread::sleep_for(50ms);
    }
    ASSERT_GT(lines(s)[0].find("13 agents"), 100u) << s;
    EXPECT_EQ(lineWith(s, "[a] Approve  [d] Deny  [s] Allow git, npm this session  [A] Always allow git, npm"), 9);

    tmux.keys("q");
    s = tmux.waitFor("exit status 0");
    EXPECT_EQ(lineWith(s, "13 agents"), -1);  // the screen was given back
}

TEST(TerminalView, ColoursOffStillShowLabels) {
    TempHome home;
    {
        Tmux tmux(80, 24, demoCommand(home));
        tmux.waitFor("13 agents");
        EXPECT_NE(tmux.screen(true).find("38;5;"), std::string::npos);  // status colours
    }
    for (std::string env : {"NO_COLOR=1", "TERM=vt100"}) {
        Tmux tmux(80, 40, demoCommand(home, env));
        std::string s = tmux.waitFor("13 agents");
        EXPECT_NE(lineWith(s, "Needs you"), -1) << env;
        EXPECT_NE(lineWith(s, "Waiting for you"), -1) << env;
        std::string coloured = tmux.screen(true);
        EXPECT_EQ(coloured.find("38;5;"), std::string::npos) << env;
        EXPECT_EQ(coloured.find("[31m"), std::string::npos) << env;
        // Ctrl-C quits as cleanly as q.
        tmux.keys(env == "NO_COLOR=1" ? "C-c" : "q");
        tmux.waitFor("exit status 0");
    }
}

TEST(TerminalView, WithoutATerminalItPrintsTheRowsOnce) {
    TempHome home;
    auto r = runCommand(lumoraBinary().string() + " --demo < /dev/null");
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.output.find("13 agents"), std::string::npos);
    EXPECT_NE(r.output.find("Needs you       lumora · main"), std::string::npos);
    EXPECT_NE(r.output.find("Idle            scratch"), std::string::npos);  // every row, none scrolled away
    EXPECT_EQ(r.output.find("\x1b"), std::string::npos);
}
