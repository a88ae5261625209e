// Writes the spend benchmark's corpus of agent journals and prints its ground
// truth: `spend_corpus HOME [--small]`. HOME receives .claude, .codex and
// .kimi-code as an agent user's home would; HOME/spend-truth.txt keeps the
// truth (the time the corpus ends, then one line per counted response).
#include <cstring>
#include <iostream>

#include "spend_corpus.hpp"

int main(int argc, char** argv) {
    if (argc < 2) {
        std::cerr << "usage: spend_corpus HOME [--small]\n";
        return 2;
    }
    spendcorpus::fs::path home = argv[1];
    bool small = argc > 2 && std::strcmp(argv[2], "--small") == 0;
    auto now = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
                   .count();
    auto options = small ? spendcorpus::Options::small(home, now) : spendcorpus::Options::full(home, now);
    auto truth = spendcorpus::generate(options);
    spendcorpus::writeTruth(home / "spend-truth.txt", truth);
    std::cout << truth.files << " files, " << truth.bytes << " bytes, " << truth.events.size() << " responses, "
              << truth.tokens() << " tokens, $" << truth.cost() << "\n";
    for (int p = 0; p < 3; ++p) std::cout << "  provider " << p << ": " << truth.tokens(p) << " tokens, $" << truth.cost(p) << "\n";
    std::cout << "  unpriced:";
    for (const auto& m : truth.unpricedModels) std::cout << " " << m;
    std::cout << "\n";
    return 0;
}
