// Arbitrary bytes in every text of a session, through what `lumora --scan`
// prints: the JSON of --json and the plain line. Folder names, branches and
// journal texts are bytes, not always UTF-8; the output must always be
// written (never throw) and always be valid UTF-8 JSON.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "lumora/app/run_commands.hpp"
#include "lumora/base/json_text.hpp"
#include "scrivet/tail_reader.hpp"

namespace {

// Hands out the input as a sequence of texts and numbers.
class Bytes {
public:
    explicit Bytes(std::string_view data) : data_(data) {}
    std::string text() {
        size_t n = take() % 48;
        n = std::min(n, data_.size());
        std::string out(data_.substr(0, n));
        data_.remove_prefix(n);
        return out;
    }
    std::optional<std::string> maybe() {
        if (take() % 4 == 0) return std::nullopt;
        return text();
    }
    uint8_t take() {
        if (data_.empty()) return 0;
        uint8_t b = static_cast<uint8_t>(data_.front());
        data_.remove_prefix(1);
        return b;
    }

private:
    std::string_view data_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace lumora;
    Bytes in(std::string_view(reinterpret_cast<const char*>(data), size));
    AgentInstance a;
    a.id = in.text();
    a.provider = static_cast<HarnessProvider>(in.take() % 5);
    if (in.take() % 2) a.pid = in.take();
    a.projectName = in.text();
    a.cwd = in.text();
    a.gitBranch = in.maybe();
    a.repoName = in.maybe();
    a.isWorktree = in.take() % 2;
    a.worktreeName = in.maybe();
    a.status = static_cast<AgentStatus>(in.take() % 4);
    a.summary = in.maybe();
    a.cpu = in.take() / 3.0;
    a.model = in.maybe();
    if (in.take() % 2) a.contextTokens = in.take() * 1000;
    if (in.take() % 2) a.contextMax = in.take() * 4000;
    if (in.take() % 2) a.pendingApproval = static_cast<PendingApproval>(in.take() % 3);
    if (in.take() % 2) {
        ApprovalRequest r;
        r.sessionId = in.text();
        r.toolName = in.text();
        r.detail = in.maybe();
        r.reason = in.maybe();
        a.approval = r;
    }
    if (in.take() % 2) a.question = PendingQuestion{in.text(), {in.text(), in.text()}, in.take() % 3};
    for (int i = in.take() % 3; i > 0; --i)
        a.recentActivity.push_back({static_cast<ActivityLine::Kind>(in.take() % 6), in.text()});
    for (int i = in.take() % 3; i > 0; --i)
        a.subagents.push_back({in.text(), in.text(), in.text(), in.maybe(), in.maybe(), true, std::nullopt});
    a.subagentCount = static_cast<int>(a.subagents.size());
    if (in.take() % 2) a.host = AgentHost{static_cast<AgentHost::Kind>(in.take() % 3), in.text(), in.maybe()};
    a.topic = in.maybe();
    a.workspaceFolders = {in.text()};

    auto json = RunCommands::toJson(a);
    std::string text = JsonText::dump(json, 2);
    if (!JsonText::parse(text)) __builtin_trap();  // what we print parses again
    std::string line = RunCommands::scanLine(a);
    if (scrivet::TailReader::repairUtf8(line)) __builtin_trap();  // the plain line is UTF-8 too
    return 0;
}
