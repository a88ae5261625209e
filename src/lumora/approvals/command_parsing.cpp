#include "lumora/approvals/command_parsing.hpp"

#include <algorithm>
#include <initializer_list>

namespace lumora::CommandParsing {

namespace {

using sv = std::string_view;

// One word of a simple command.
struct Word {
    std::string value;     // quotes and escapes removed; expansions kept as written
    bool plain = true;     // no quotes, escapes or expansions: the word is exactly its text
    bool literal = true;   // no unquoted glob or brace, no "$": the shell passes `value` as it is
};

// The words between two separators, and how the stretch of text ends.
struct Segment {
    size_t begin = 0, end = 0;   // where it stands in the command
    std::vector<Word> words;
    bool opensSubshell = false;  // ended by "("
    bool afterSubshell = false;  // begins right after ")": only separators and redirections may follow
    bool redirects = false;      // has a redirection
};

bool isBlank(char c) { return c == ' ' || c == '\t'; }

bool isOperator(char c) {
    return c == '\n' || c == ';' || c == '&' || c == '|' || c == '(' || c == ')' || c == '<' || c == '>';
}

bool startsWith(sv s, sv prefix) { return s.substr(0, prefix.size()) == prefix; }

bool isNameChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

bool allDigits(sv s) {
    return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool isIdentifier(sv s) {
    return !s.empty() && !(s[0] >= '0' && s[0] <= '9') && std::all_of(s.begin(), s.end(), isNameChar);
}

bool oneOf(sv word, std::initializer_list<sv> words) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

// Characters that a terminal does not show as what they are, or that end a
// line for some readers and not for others: C0 and C1 controls other than tab
// and newline, DEL, zero-width and direction marks, the Unicode line and
// paragraph separators, direction embeddings and isolates, the byte-order mark.
bool hasHiddenCharacters(sv s) {
    for (size_t i = 0; i < s.size(); ++i) {
        auto b = static_cast<unsigned char>(s[i]);
        if ((b < 0x20 && b != '\t' && b != '\n') || b == 0x7F) return true;
        if (i + 1 >= s.size()) continue;
        auto b1 = static_cast<unsigned char>(s[i + 1]);
        if (b == 0xC2 && b1 >= 0x80 && b1 <= 0x9F) return true;  // C1 controls, NEL among them
        if (i + 2 >= s.size()) continue;
        auto b2 = static_cast<unsigned char>(s[i + 2]);
        if (b == 0xE2 && b1 == 0x80 && ((b2 >= 0x8B && b2 <= 0x8F) || (b2 >= 0xA8 && b2 <= 0xAE))) return true;
        if (b == 0xE2 && b1 == 0x81 && b2 >= 0xA0 && b2 <= 0xAF) return true;
        if (b == 0xEF && b1 == 0xBB && b2 == 0xBF) return true;
        if (b == 0xE1 && b1 == 0xA0 && b2 == 0x8E) return true;  // Mongolian vowel separator
    }
    return false;
}

// Reads a command line the way a POSIX shell splits it into simple commands,
// marking it unscopable at the first construct whose effect cannot be told
// from the text. It reads on after that, so splitSegments still has segments.
class Lexer {
public:
    explicit Lexer(sv text) : s_(text) {}

    std::vector<Segment> run() {
        size_t i = 0;
        const size_t n = s_.size();
        while (i < n) {
            char c = s_[i];
            char next = i + 1 < n ? s_[i + 1] : '\0';
            if (isBlank(c)) {
                ++i;
            } else if (c == '\\' && next == '\n') {
                i += 2;  // a continued line
            } else if (c == '\n' || c == ';') {
                endSegment(i, i + 1);
                ++i;
            } else if (c == '&' && next == '&') {
                endSegment(i, i + 2);
                i += 2;
            } else if (c == '&' && next == '>') {
                redirect(i);
            } else if (c == '&') {
                endSegment(i, i + 1);
                ++i;
            } else if (c == '|') {
                size_t len = next == '|' || next == '&' ? 2 : 1;
                if (next == '&') scopable = false;  // "|&" also pipes the errors; some shells read it otherwise
                endSegment(i, i + len);
                i += len;
            } else if (c == '(') {
                // A subshell opens only where a command starts, after a blank:
                // "f()", "!(x)" and "((" define functions, match patterns or count.
                if (lastWordEnd_ == i || next == '(') scopable = false;
                current_.opensSubshell = true;
                ++depth_;
                endSegment(i, i + 1);
                ++i;
            } else if (c == ')') {
                if (depth_ == 0) scopable = false;
                else --depth_;
                endSegment(i, i + 1);
                current_.afterSubshell = true;
                ++i;
            } else if (c == '<' || c == '>') {
                redirect(i);
            } else {
                Word w = word(i);
                lastWordEnd_ = i;
                if (i < n && (s_[i] == '<' || s_[i] == '>')) {
                    // "2>" names a descriptor; "{name}>" would assign a variable.
                    if (w.plain && allDigits(w.value)) continue;
                    if (!w.value.empty() && w.value.front() == '{') scopable = false;
                }
                if (current_.afterSubshell) scopable = false;
                current_.words.push_back(std::move(w));
            }
        }
        endSegment(n, n);
        if (depth_ != 0) scopable = false;
        return std::move(segments_);
    }

    bool scopable = true;

private:
    void endSegment(size_t at, size_t resume) {
        current_.end = at;
        segments_.push_back(std::move(current_));
        current_ = Segment{};
        current_.begin = resume;
    }

    // Whether a "$" at `i` starts an expansion whose effect is known: a
    // variable or a parameter by its plain name. ANSI-C and locale quoting,
    // "$[...]" arithmetic and "${...}" with anything but a name are not.
    bool plainExpansion(size_t i, bool quoted) const {
        char next = i + 1 < s_.size() ? s_[i + 1] : '\0';
        if (next == '(' || next == '[') return false;
        if (!quoted && (next == '\'' || next == '"')) return false;
        if (next == '{') {
            size_t j = i + 2;
            while (j < s_.size() && isNameChar(s_[j])) ++j;
            return j > i + 2 && j < s_.size() && s_[j] == '}';
        }
        return true;
    }

    // One word from `i` up to an unquoted blank or operator.
    Word word(size_t& i) {
        Word w;
        const size_t n = s_.size();
        bool any = false;
        while (i < n) {
            char c = s_[i];
            if (isBlank(c) || isOperator(c)) break;
            if (c == '\\') {
                if (i + 1 >= n) {
                    scopable = false;  // a backslash with nothing to escape
                    ++i;
                    break;
                }
                if (s_[i + 1] != '\n') {
                    w.value += s_[i + 1];
                    w.plain = false;
                }
                i += 2;
                any = true;
                continue;
            }
            if (c == '\'') {
                size_t close = s_.find('\'', i + 1);
                if (close == sv::npos) {
                    scopable = false;
                    i = n;
                    break;
                }
                w.value.append(s_.substr(i + 1, close - i - 1));
                w.plain = false;
                i = close + 1;
                any = true;
                continue;
            }
            if (c == '"') {
                size_t j = i + 1;
                bool closed = false;
                while (j < n) {
                    char d = s_[j];
                    if (d == '\\' && j + 1 < n) {
                        char e = s_[j + 1];
                        if (e != '\n') {
                            if (e != '"' && e != '\\' && e != '$' && e != '`') w.value += '\\';
                            w.value += e;
                        }
                        j += 2;
                        continue;
                    }
                    if (d == '"') {
                        closed = true;
                        break;
                    }
                    if (d == '$') {
                        if (!plainExpansion(j, true)) scopable = false;
                        w.literal = false;
                    }
                    if (d == '`') scopable = false;
                    w.value += d;
                    ++j;
                }
                if (!closed) {
                    scopable = false;
                    i = n;
                    break;
                }
                w.plain = false;
                i = j + 1;
                any = true;
                continue;
            }
            if (c == '$') {
                if (!plainExpansion(i, false)) scopable = false;
                w.plain = false;
                w.literal = false;
            } else if (c == '`') {
                scopable = false;
            } else if (c == '#' && !any) {
                scopable = false;  // a comment: shells disagree on where it ends
            } else if (c == '*' || c == '?' || c == '[' || c == '{') {
                w.literal = false;  // may expand to other words (file names, brace lists)
            }
            w.value += c;
            ++i;
            any = true;
        }
        return w;
    }

    // A redirection at `i`. Reading a file is harmless; writing one is not
    // (`git log > ~/.bashrc`), except /dev/null and copies of descriptors.
    void redirect(size_t& i) {
        const size_t n = s_.size();
        current_.redirects = true;
        enum class Kind { write, duplicateOut, read, duplicateIn } kind = Kind::write;
        if (s_[i] == '&') {
            i += 2;
            if (i < n && s_[i] == '>') ++i;
        } else if (s_[i] == '>') {
            ++i;
            if (i < n && (s_[i] == '>' || s_[i] == '|')) ++i;
            else if (i < n && s_[i] == '&') {
                ++i;
                kind = Kind::duplicateOut;
            }
        } else {
            ++i;
            kind = Kind::read;
            if (i < n && (s_[i] == '<' || s_[i] == '>')) {
                scopable = false;  // here-documents and read-write opens
                ++i;
            } else if (i < n && s_[i] == '&') {
                ++i;
                kind = Kind::duplicateIn;
            }
        }
        while (i < n && isBlank(s_[i])) ++i;
        if (i >= n || isOperator(s_[i])) {
            scopable = false;
            return;
        }
        Word target = word(i);
        lastWordEnd_ = i;
        const std::string& t = target.value;
        bool descriptor = target.plain && (allDigits(t) || t == "-" || (t.size() > 1 && t.back() == '-' && allDigits(t.substr(0, t.size() - 1))));
        bool devNull = target.plain && t == "/dev/null";
        bool ok = false;
        switch (kind) {
            case Kind::write: ok = devNull; break;
            case Kind::duplicateOut: ok = descriptor || devNull; break;
            case Kind::read: ok = !startsWith(t, "/dev/tcp/") && !startsWith(t, "/dev/udp/"); break;
            case Kind::duplicateIn: ok = descriptor; break;
        }
        if (!ok) scopable = false;
    }

    sv s_;
    std::vector<Segment> segments_;
    Segment current_;
    int depth_ = 0;
    size_t lastWordEnd_ = sv::npos;
};

// Shell words that define, run or re-read code, or change how the words after
// them are read: a rule on them could approve anything.
bool isShellWord(sv w) {
    return oneOf(w, {"case", "esac", "select", "function", "coproc", "[[", "]]", "in", "eval", "source", ".",
                     "trap", "alias", "unalias", "enable", "hash", "export", "declare", "typeset", "local",
                     "readonly", "unset", "shopt", "read", "mapfile", "readarray", "getopts", "let", "fc", "r",
                     "complete", "compgen", "bind", "autoload", "zmodload", "emulate", "setopt", "unsetopt",
                     "noglob", "nocorrect", "repeat", "foreach", "sched", "float", "integer", "vared",
                     "zparseopts", "functions", "disable", "zle", "bindkey", "zcompile"});
}

// Programs whose work is to run another program (or a script given to them).
bool runsOtherPrograms(sv family) {
    return oneOf(family,
                 {"sh", "bash", "rbash", "zsh", "dash", "ksh", "mksh", "pdksh", "oksh", "yash", "posh", "fish",
                  "csh", "tcsh", "ash", "busybox", "toybox", "xargs", "parallel", "nice", "ionice", "timeout",
                  "gtimeout", "watch", "stdbuf", "chroot", "doas", "su", "runuser", "pkexec", "setsid", "setpriv",
                  "taskset", "chrt", "numactl", "flock", "strace", "ltrace", "gdb", "lldb", "valgrind", "unbuffer",
                  "script", "expect", "entr", "chronic", "ifne", "systemd-run", "nsenter", "unshare", "firejail",
                  "bwrap", "caffeinate", "time", "npx", "bunx", "pnpx", "uvx", "sshpass", "at", "batch", "crontab",
                  "launchctl", "osascript", "open", "xdg-open", "ssh-agent", "dbus-run-session", "xvfb-run",
                  "catchsegv", "faketime", "proxychains", "torsocks", "tsocks", "sg", "newgrp", "chpst", "fakeroot",
                  "cross-env", "env-cmd", "dotenv", "concurrently", "nodemon", "npm-run-all", "run-p", "run-s",
                  "tmux", "screen", "mosh", "watchexec", "hyperfine", "nix-shell", "start-stop-daemon",
                  "daemonize", "xterm", "x-terminal-emulator", "gnome-terminal", "konsole"});
}

// The program's name without its folder and without a version at its end
// ("/usr/bin/python3.11" → "python", "zsh-5.9" → "zsh").
std::string family(sv program) {
    size_t slash = program.rfind('/');
    sv base = slash == sv::npos ? program : program.substr(slash + 1);
    sv name = base;
    while (!name.empty() && ((name.back() >= '0' && name.back() <= '9') || name.back() == '.')) name.remove_suffix(1);
    if (name.size() < base.size() && !name.empty() && (name.back() == '-' || name.back() == '_')) name.remove_suffix(1);
    return std::string(name.empty() ? base : name);
}

// A single-dash cluster of short options ("-xvf"), not a long option or "-".
bool isShortCluster(sv a) { return a.size() > 1 && a[0] == '-' && a[1] != '-'; }

bool clusterHasAny(sv a, sv letters) {
    return isShortCluster(a) && a.substr(1).find_first_of(letters) != sv::npos;
}

bool anyArg(const std::vector<sv>& args, const auto& test) { return std::any_of(args.begin(), args.end(), test); }

bool startsWithAny(sv a, std::initializer_list<sv> prefixes) {
    return std::any_of(prefixes.begin(), prefixes.end(), [&](sv p) { return startsWith(a, p); });
}

bool gitRunsCommands(const std::vector<sv>& args) {
    size_t k = 0;
    for (; k < args.size() && startsWith(args[k], "-"); ++k) {
        sv a = args[k];
        if (a == "--") {
            ++k;
            break;
        }
        // -c and --config-env set configuration (core.pager, core.sshCommand, aliases
        // that run shell commands); the other three point git at other programs or repositories.
        if (startsWith(a, "-c") || startsWithAny(a, {"--config-env", "--exec-path", "--git-dir", "--work-tree"}))
            return true;
        if (a == "-C" || a == "--namespace" || a == "--super-prefix") ++k;
    }
    if (k >= args.size()) return false;
    sv sub = args[k];
    std::vector<sv> rest(args.begin() + static_cast<long>(k) + 1, args.end());
    if (oneOf(sub, {"config", "filter-branch", "filter-repo", "send-email", "daemon", "instaweb", "credential",
                    "credential-store", "credential-cache", "web--browse", "hook", "mergetool", "difftool"}))
        return true;
    if (anyArg(rest, [](sv a) { return startsWithAny(a, {"--exec", "--upload-pack", "--receive-pack", "--template"}); }))
        return true;
    if (sub == "rebase" && anyArg(rest, [](sv a) { return clusterHasAny(a, "x"); })) return true;
    if (sub == "bisect" && anyArg(rest, [](sv a) { return a == "run"; })) return true;
    if (sub == "submodule" && anyArg(rest, [](sv a) { return a == "foreach"; })) return true;
    if (sub == "grep" && anyArg(rest, [](sv a) { return startsWithAny(a, {"-O", "--open-files-in-pager"}); })) return true;
    if (oneOf(sub, {"clone", "ls-remote", "fetch-pack"}) &&
        anyArg(rest, [](sv a) { return clusterHasAny(a, "uc") || startsWith(a, "--config"); }))
        return true;
    return false;
}

// ssh with a command to run, or with options that name programs (ProxyCommand,
// LocalCommand, a configuration file that may set them).
bool sshRunsCommands(const std::vector<sv>& args) {
    int positionals = 0;
    for (size_t k = 0; k < args.size(); ++k) {
        sv a = args[k];
        if (a == "--") {
            positionals += static_cast<int>(args.size() - k - 1);
            break;
        }
        if (!isShortCluster(a)) {
            if (startsWith(a, "-")) return true;  // no long options: unknown
            ++positionals;
            continue;
        }
        for (size_t c = 1; c < a.size(); ++c) {
            if (a[c] == 'o' || a[c] == 'F') return true;
            if (sv("BbcDEeIiJLlmOpQRSWw").find(a[c]) != sv::npos) {
                if (c + 1 == a.size()) ++k;  // the value is the next word
                break;
            }
        }
    }
    return positionals > 1;
}

// sed editing files in place, reading its script from a file, or a script
// that may execute ("e") or write ("w", "W").
bool sedRunsCommands(const std::vector<sv>& args) {
    std::vector<sv> scripts;
    bool scriptGiven = false, positional = false;
    for (size_t k = 0; k < args.size(); ++k) {
        sv a = args[k];
        if (positional || a == "--" || !startsWith(a, "-") || a == "-") {
            if (a == "--" && !positional) {
                positional = true;
                continue;
            }
            if (!scriptGiven) {
                scripts.push_back(a);
                scriptGiven = true;
            }
            continue;
        }
        if (startsWith(a, "--")) {
            if (startsWithAny(a, {"--file", "--in-place"})) return true;
            if (startsWith(a, "--expression=")) {
                scripts.push_back(a.substr(13));
                scriptGiven = true;
            } else if (a == "--expression" && k + 1 < args.size()) {
                scripts.push_back(args[++k]);
                scriptGiven = true;
            }
            continue;
        }
        for (size_t c = 1; c < a.size(); ++c) {
            if (a[c] == 'i' || a[c] == 'f') return true;
            if (a[c] == 'e' || a[c] == 'l') {
                sv value = c + 1 < a.size() ? a.substr(c + 1) : (k + 1 < args.size() ? args[++k] : sv());
                if (a[c] == 'e') {
                    scripts.push_back(value);
                    scriptGiven = true;
                }
                break;
            }
        }
    }
    return std::any_of(scripts.begin(), scripts.end(), [](sv s) { return s.find_first_of("ewW") != sv::npos; });
}

// awk loading programs or extensions from files, or a program that runs
// commands or writes (system(), pipes, "> file", gawk's @load and @include).
bool awkRunsCommands(const std::vector<sv>& args) {
    auto risky = [](sv program) {
        return program.find("system") != sv::npos || program.find_first_of("|>@") != sv::npos;
    };
    bool programGiven = false;
    for (size_t k = 0; k < args.size(); ++k) {
        sv a = args[k];
        if (startsWith(a, "--")) {
            if (startsWithAny(a, {"--file", "--exec", "--include", "--load"})) return true;
            if (startsWith(a, "--source")) {
                sv program = a.size() > 9 && a[8] == '=' ? a.substr(9) : (k + 1 < args.size() ? args[++k] : sv());
                if (risky(program)) return true;
                programGiven = true;
            }
            continue;
        }
        if (isShortCluster(a)) {
            char o = a[1];
            if (o == 'f' || o == 'E' || o == 'i' || o == 'l') return true;
            if (o == 'e') {
                sv program = a.size() > 2 ? a.substr(2) : (k + 1 < args.size() ? args[++k] : sv());
                if (risky(program)) return true;
                programGiven = true;
            } else if ((o == 'v' || o == 'F') && a.size() == 2) {
                ++k;
            }
            continue;
        }
        if (!programGiven) {
            if (risky(a)) return true;
            programGiven = true;
        }
    }
    return false;
}

bool setChangesTheShell(const std::vector<sv>& args) {
    for (size_t k = 0; k < args.size(); ++k) {
        sv a = args[k];
        if (a == "--") return false;  // the rest only sets the positional parameters
        if (a.size() < 2 || (a[0] != '-' && a[0] != '+')) return true;
        for (size_t c = 1; c < a.size(); ++c) {
            if (sv("euxv").find(a[c]) != sv::npos) continue;
            if (a[c] != 'o' || c + 1 != a.size() || k + 1 >= args.size()) return true;
            if (!oneOf(args[++k], {"pipefail", "errexit", "nounset", "xtrace", "verbose", "noclobber"})) return true;
        }
    }
    return false;
}

// Programs that run other programs through some of their options or
// subcommands. Every argument is looked at (a program's own arguments may
// come after a script's name, which errs on the side of asking). Nothing for
// a program without such options.
std::optional<bool> optionsRunCommands(sv family, const std::vector<sv>& args) {
    auto cluster = [&](sv letters, std::initializer_list<sv> longs = {}) {
        return anyArg(args, [&](sv a) {
            return clusterHasAny(a, letters) ||
                   std::any_of(longs.begin(), longs.end(), [&](sv l) { return a == l || startsWith(a, std::string(l) + "="); });
        });
    };
    auto word = [&](std::initializer_list<sv> words) { return anyArg(args, [&](sv a) { return oneOf(a, words); }); };

    if (family == "git") return gitRunsCommands(args);
    if (family == "ssh") return sshRunsCommands(args);
    if (family == "sed" || family == "gsed") return sedRunsCommands(args);
    if (oneOf(family, {"awk", "gawk", "mawk", "nawk"})) return awkRunsCommands(args);
    if (family == "set") return setChangesTheShell(args);
    if (family == "find" || family == "gfind")
        return word({"-exec", "-execdir", "-ok", "-okdir", "-delete", "-fprint", "-fprint0", "-fprintf", "-fls"});
    if (family == "scp") return cluster("SoFD");
    if (family == "sftp") return cluster("SoFDb");
    if (family == "rsync")
        return cluster("eM") || anyArg(args, [](sv a) { return startsWithAny(a, {"--rsh", "--rsync-path", "--remote-option"}); });
    if (family == "tar" || family == "gtar" || family == "bsdtar") {
        bool oldStyle = !args.empty() && !startsWith(args[0], "-") && args[0].find_first_of("IF") != sv::npos;
        return oldStyle || cluster("IF") ||
               anyArg(args, [](sv a) {
                   return startsWithAny(a, {"--to-command", "--checkpoint-action", "--use-compress-program",
                                            "--info-script", "--new-volume-script", "--rsh-command", "--rmt-command"});
               });
    }
    if (family == "zip") return anyArg(args, [](sv a) { return startsWithAny(a, {"-TT", "--unzip-command"}); });
    if (family == "make" || family == "gmake" || family == "bmake")
        return cluster("fE") || anyArg(args, [](sv a) {
                   return startsWithAny(a, {"--file", "--makefile", "--eval"}) ||
                          (!startsWith(a, "-") && a.find('=') != sv::npos);
               });
    if (family == "printf") return cluster("v");
    if (oneOf(family, {"vi", "vim", "nvim", "view", "ex", "gvim", "vimdiff", "rvim"}))
        return cluster("cS", {"--cmd"}) || anyArg(args, [](sv a) { return startsWith(a, "+"); });
    if (family == "python" || family == "pypy") return cluster("c");
    if (family == "node" || family == "nodejs") return cluster("ep", {"--eval", "--print"});
    if (family == "bun") return cluster("ep", {"--eval", "--print"}) || word({"x", "exec"});
    if (family == "deno") return word({"eval"});
    if (family == "perl") return cluster("eEMmix");
    if (family == "ruby") return cluster("eIrx");
    if (family == "php") return cluster("rRBEFd");
    if (family == "lua" || family == "luajit") return cluster("el");
    if (family == "Rscript" || family == "R") return cluster("e", {"--expr"});
    if (oneOf(family, {"docker", "podman", "nerdctl"})) return word({"run", "exec", "create", "debug", "attach"});
    if (family == "kubectl" || family == "oc") return word({"exec", "run", "debug", "attach"});
    if (family == "npm") return word({"exec", "x", "explore"});
    if (family == "pnpm") return word({"exec", "dlx", "x"});
    if (family == "yarn") return word({"exec", "dlx"});
    if (oneOf(family, {"uv", "poetry", "pipenv", "pdm", "hatch", "rye", "conda", "mamba", "micromamba", "pixi"}))
        return word({"run", "exec", "shell"});
    if (family == "bundle" || family == "bundler") return word({"exec"});
    if (oneOf(family, {"rbenv", "pyenv", "nodenv", "goenv", "jenv", "plenv", "direnv"})) return word({"exec"});
    if (oneOf(family, {"nvm", "mise", "rtx", "asdf"})) return word({"exec", "x", "run"});
    if (family == "nix") return word({"run", "shell", "develop"});
    if (family == "devbox") return word({"run", "shell"});
    if (family == "gh") return word({"alias", "extension", "ext"});
    return std::nullopt;
}

enum class Verdict { blank, head, unscopable };
struct SegmentHead {
    Verdict verdict = Verdict::blank;
    std::string head;
};

SegmentHead unscopable() { return {Verdict::unscopable, {}}; }

// The program at words[i] and its arguments; `underSudo` for the program sudo runs.
SegmentHead program(const std::vector<Word>& words, size_t i, bool underSudo) {
    const Word& p = words[i];
    if (!p.plain || p.value.find('=') != std::string::npos || startsWith(p.value, "-")) return unscopable();
    std::string fam = family(p.value);
    bool last = i + 1 == words.size();
    if (oneOf(fam, {"env", "command", "builtin", "exec", "nohup"})) {
        // Looked through when nothing but a program follows: "env FOO=1 x",
        // "env -i x" or "command -p x" fall to the checks on the next word.
        if (underSudo) return unscopable();
        if (last) return {Verdict::head, p.value};
        return program(words, i + 1, false);
    }
    if (fam == "sudo") {
        if (underSudo || p.value != "sudo") return unscopable();
        if (last) return {Verdict::head, p.value};
        auto inner = program(words, i + 1, true);
        if (inner.verdict != Verdict::head) return unscopable();
        return {Verdict::head, "sudo " + inner.head};
    }
    if (isShellWord(p.value) || runsOtherPrograms(fam)) return unscopable();
    std::vector<sv> args;
    bool literal = true;
    for (size_t k = i + 1; k < words.size(); ++k) {
        args.push_back(words[k].value);
        literal = literal && words[k].literal;
    }
    // For a program whose options can run commands, an argument the shell
    // expands could become any option: such a command is not readable.
    auto runs = optionsRunCommands(fam, args);
    if (runs && (*runs || !literal)) return unscopable();
    if (!isPlausibleWord(p.value)) return unscopable();
    return {Verdict::head, p.value};
}

// The one program a segment runs, after the words that only introduce it
// ("!", "{", "if", "then", "else", "elif", "while", "until", "do", "time").
SegmentHead analyze(const Segment& segment) {
    const auto& w = segment.words;
    size_t i = 0;
    while (i < w.size() && w[i].plain &&
           oneOf(w[i].value, {"!", "{", "if", "then", "else", "elif", "while", "until", "do", "time"})) {
        if (w[i].value == "time" && i + 1 < w.size() && w[i + 1].plain && w[i + 1].value == "-p") ++i;
        ++i;
    }
    // A redirection with no command runs a program of the shell's choosing
    // (zsh reads `< file` with a pager); after ")" it belongs to the subshell.
    bool bareRedirection = segment.redirects && !segment.afterSubshell;
    if (segment.opensSubshell) return i == w.size() && !bareRedirection ? SegmentHead{} : unscopable();
    if (i == w.size()) return bareRedirection ? unscopable() : SegmentHead{};
    const Word& first = w[i];
    if (!first.plain) return unscopable();
    if (oneOf(first.value, {"}", "fi", "done"})) return i + 1 == w.size() ? SegmentHead{} : unscopable();
    if (first.value == "for") {
        // "for name" or "for name in words": no program of its own.
        bool header = i + 1 < w.size() && w[i + 1].plain && isIdentifier(w[i + 1].value) &&
                      (i + 2 == w.size() || (w[i + 2].plain && w[i + 2].value == "in"));
        return header ? SegmentHead{} : unscopable();
    }
    return program(w, i, false);
}

}  // namespace

bool isShellTool(std::string_view toolName) {
    return std::find(std::begin(shellToolNames), std::end(shellToolNames), toolName) != std::end(shellToolNames);
}

bool isPlausibleWord(std::string_view w) {
    if (w.empty() || w.size() > 64) return false;
    return std::all_of(w.begin(), w.end(), [](char c) {
        return isNameChar(c) || std::string_view("-./+:@").find(c) != std::string_view::npos;
    });
}

std::vector<std::string> splitSegments(std::string_view command) {
    std::vector<std::string> out;
    for (const auto& segment : Lexer(command).run())
        out.emplace_back(command.substr(segment.begin, segment.end - segment.begin));
    return out;
}

std::optional<std::string> headOfSegment(std::string_view segment) {
    auto h = heads(segment);
    if (!h || h->size() != 1) return std::nullopt;
    return h->front();
}

std::optional<std::vector<std::string>> heads(std::string_view command) {
    for (std::string_view hidden : {"`", "$(", "<(", ">(", "<<"}) {
        if (command.find(hidden) != std::string_view::npos) return std::nullopt;
    }
    if (hasHiddenCharacters(command)) return std::nullopt;
    Lexer lexer(command);
    auto segments = lexer.run();
    if (!lexer.scopable) return std::nullopt;
    std::vector<std::string> out;
    for (const auto& segment : segments) {
        auto h = analyze(segment);
        if (h.verdict == Verdict::unscopable) return std::nullopt;
        if (h.verdict == Verdict::head && std::find(out.begin(), out.end(), h.head) == out.end())
            out.push_back(std::move(h.head));
    }
    if (out.empty()) return std::nullopt;
    return out;
}

}  // namespace lumora::CommandParsing
