#include "scrivet/claude_transcript_reader.hpp"

#include <algorithm>

namespace scrivet::ClaudeTranscriptReader {

std::string encodedDirName(const std::string& cwd) {
    std::string out = cwd;
    std::replace(out.begin(), out.end(), '/', '-');
    std::replace(out.begin(), out.end(), '.', '-');
    return out;
}

fs::path transcriptURL(const fs::path& projectsRoot, const std::string& cwd, const std::string& sessionId) {
    return projectsRoot / encodedDirName(cwd) / (sessionId + ".jsonl");
}

std::vector<fs::path> recentTranscripts(const fs::path& folder, size_t limit) {
    std::vector<std::pair<fs::file_time_type, fs::path>> found;
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        if (it->path().extension() != ".jsonl") continue;
        std::error_code statEc;
        auto mtime = it->last_write_time(statEc);
        if (statEc || !it->is_regular_file(statEc)) continue;
        found.emplace_back(mtime, it->path());
    }
    std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    std::vector<fs::path> out;
    for (size_t i = 0; i < found.size() && i < limit; ++i) out.push_back(found[i].second);
    return out;
}

// Filled in by the transcript reader proper.
std::optional<TranscriptInfo> info(const fs::path&, const std::string&, const fs::path&) { return std::nullopt; }

std::optional<TranscriptInfo> infoForCwd(const fs::path& projectsRoot, const std::string& cwd,
                                         const fs::path& claudeConfig) {
    auto newest = recentTranscripts(projectsRoot / encodedDirName(cwd), 1);
    if (newest.empty()) return std::nullopt;
    return info(newest.front(), cwd, claudeConfig);
}

}  // namespace scrivet::ClaudeTranscriptReader
