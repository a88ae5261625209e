#include "lumora/hooks/plan_sources.hpp"

#include <simdjson.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>

#include "scrivet/journal_entry.hpp"
#include "scrivet/read_only_database.hpp"

namespace lumora {

namespace {

using simdjson::dom::element;
namespace json = scrivet::json;

std::string_view trimmed(std::string_view s) {
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
    return s;
}

std::string lower(std::string_view s) {
    std::string out(s);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

// The window's lines that mention `needle`, in file order. Only those are
// parsed: a journal window is mostly lines about other things.
std::vector<std::string_view> linesWith(std::string_view window, std::string_view needle) {
    std::vector<std::string_view> out;
    size_t at = 0;
    while ((at = window.find(needle, at)) != std::string_view::npos) {
        size_t begin = window.rfind('\n', at);
        begin = begin == std::string_view::npos ? 0 : begin + 1;
        size_t end = window.find('\n', at);
        if (end == std::string_view::npos) end = window.size();
        out.push_back(window.substr(begin, end - begin));
        at = end;
    }
    return out;
}

bool parseLine(simdjson::dom::parser& parser, std::string_view line, element& root) {
    line = trimmed(line);
    if (line.empty() || line.front() != '{') return false;
    return !parser.parse(line.data(), line.size(), true).get(root) && root.is_object();
}

// A tool's arguments: an object, or an object written as a JSON string
// (parsed with `inner`, which must outlive the result).
std::optional<element> argumentsObject(element value, simdjson::dom::parser& inner) {
    if (value.is_object()) return value;
    auto s = json::string(value);
    if (!s) return std::nullopt;
    element parsed;
    if (inner.parse(s->data(), s->size(), true).get(parsed) || !parsed.is_object()) return std::nullopt;
    return parsed;
}

std::optional<std::string> nonBlank(std::optional<std::string_view> s) {
    if (!s || trimmed(*s).empty()) return std::nullopt;
    return std::string(trimmed(*s));
}

bool isCancelled(std::string_view status) {
    auto s = lower(status);
    return s == "cancelled" || s == "canceled";
}

// The tool_use blocks named `name` of an assistant line, in order.
std::vector<element> toolUses(element root, std::string_view name) {
    std::vector<element> out;
    auto message = json::field(root, "message");
    auto content = message ? json::array(*message, "content") : json::array(root, "content");
    if (!content) return out;
    for (element block : *content) {
        if (json::string(block, "type") == "tool_use" && json::string(block, "name") == name) out.push_back(block);
    }
    return out;
}

// Items from a list of step objects; `text` names the step's text key.
std::optional<TaskPlan> listPlan(element list, std::string_view text, bool withActiveForm) {
    simdjson::dom::array steps;
    if (list.get_array().get(steps)) return std::nullopt;
    TaskPlan plan;
    for (element step : steps) {
        auto subject = nonBlank(json::string(step, text));
        if (!subject) continue;  // blank steps are dropped
        auto status = json::string(step, "status").value_or("");
        if (isCancelled(status)) continue;
        TaskPlanItem item;
        item.id = *subject;
        item.subject = *subject;
        item.status = TaskPlanItem::normalizing(status);
        if (withActiveForm) item.activeForm = nonBlank(json::string(step, "activeForm"));
        plan.items.push_back(std::move(item));
    }
    giveOccurrenceIds(plan.items);
    return plan;
}

bool isNumber(std::string_view s) {
    return !s.empty() && s.size() < 10 && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::optional<fs::path> firstExisting(std::initializer_list<fs::path> candidates) {
    for (const auto& p : candidates) {
        std::error_code ec;
        if (fs::is_regular_file(p, ec)) return p;
    }
    return std::nullopt;
}

// Whether a path component is a plain name (no separators, not "." or "..").
bool plainName(const std::string& s) {
    return !s.empty() && s != "." && s != ".." && s.find('/') == std::string::npos && s.find('\0') == std::string::npos;
}

}  // namespace

// --- Claude ------------------------------------------------------------------------

namespace ClaudePlanSource {

fs::path taskFolder(const fs::path& tasksRoot, const std::string& sessionId) { return tasksRoot / sessionId; }

std::optional<TaskPlanItem> taskFromFile(std::string_view text, std::string_view fallbackId) {
    simdjson::dom::parser parser;
    element root;
    if (parser.parse(text.data(), text.size(), true).get(root) || !root.is_object()) return std::nullopt;
    auto subject = nonBlank(json::string(root, "subject"));
    if (!subject) return std::nullopt;
    TaskPlanItem item;
    if (auto id = nonBlank(json::string(root, "id"))) item.id = *id;
    else if (auto n = json::integer(root, "id")) item.id = std::to_string(*n);
    else item.id = std::string(fallbackId);
    item.subject = *subject;
    item.activeForm = nonBlank(json::string(root, "activeForm"));
    item.status = TaskPlanItem::normalizing(json::string(root, "status").value_or(""));
    return item;
}

TaskPlan planFromTasks(std::vector<TaskPlanItem> tasks) {
    std::stable_sort(tasks.begin(), tasks.end(), [](const TaskPlanItem& a, const TaskPlanItem& b) {
        bool na = isNumber(a.id), nb = isNumber(b.id);
        if (na != nb) return na;
        if (na) return std::stol(a.id) < std::stol(b.id);
        return a.id < b.id;
    });
    TaskPlan plan{std::move(tasks)};
    giveOccurrenceIds(plan.items);
    return plan;
}

std::optional<fs::path> locateJournal(const std::string& sessionId, const fs::path& projectsRoot) {
    if (!plainName(sessionId)) return std::nullopt;
    std::error_code ec;
    for (fs::directory_iterator it(projectsRoot, ec), end; !ec && it != end; it.increment(ec)) {
        std::error_code typeEc;
        if (!it->is_directory(typeEc)) continue;
        if (auto found = firstExisting({it->path() / (sessionId + ".jsonl")})) return found;
    }
    return std::nullopt;
}

std::optional<TaskPlan> plan(std::string_view window) {
    auto lines = linesWith(window, "\"TodoWrite\"");
    simdjson::dom::parser parser;
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        element root;
        if (!parseLine(parser, *line, root) || json::string(root, "type") != "assistant") continue;
        auto calls = toolUses(root, "TodoWrite");
        for (auto call = calls.rbegin(); call != calls.rend(); ++call) {
            auto input = json::field(*call, "input");
            auto todos = input ? json::field(*input, "todos") : std::nullopt;
            if (!todos) continue;
            if (auto p = listPlan(*todos, "content", true)) return p;
        }
    }
    return std::nullopt;
}

}  // namespace ClaudePlanSource

// --- Codex -------------------------------------------------------------------------

namespace CodexPlanSource {

std::optional<fs::path> locateRollout(const std::string& sessionId, const fs::path& root, int maxDays,
                                      std::chrono::system_clock::time_point now) {
    using namespace std::chrono;
    if (!plainName(sessionId)) return std::nullopt;
    std::string suffix = "-" + sessionId + ".jsonl";
    auto today = floor<days>(now);
    // The folders are named by local dates: a day either side covers any zone.
    for (int back = -1; back <= maxDays + 1; ++back) {
        year_month_day ymd{today - days(back)};
        char folder[32];
        std::snprintf(folder, sizeof folder, "%04d/%02u/%02u", static_cast<int>(ymd.year()),
                      static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()));
        std::error_code ec;
        for (fs::directory_iterator it(root / folder, ec), end; !ec && it != end; it.increment(ec)) {
            auto name = it->path().filename().string();
            if (name.starts_with("rollout-") && name.ends_with(suffix) && name.size() > 8 + suffix.size())
                return it->path();
        }
    }
    return std::nullopt;
}

std::optional<TaskPlan> planFromArguments(std::string_view arguments) {
    simdjson::dom::parser parser;
    element root;
    if (parser.parse(arguments.data(), arguments.size(), true).get(root) || !root.is_object()) return std::nullopt;
    auto list = json::field(root, "plan");
    if (!list) return std::nullopt;
    return listPlan(*list, "step", false);
}

std::optional<TaskPlan> plan(std::string_view window) {
    auto lines = linesWith(window, "\"update_plan\"");
    simdjson::dom::parser parser, inner;
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        element root;
        if (!parseLine(parser, *line, root) || json::string(root, "type") != "response_item") continue;
        auto payload = json::field(root, "payload");
        if (!payload || json::string(*payload, "type") != "function_call" ||
            json::string(*payload, "name") != "update_plan")
            continue;
        auto args = json::field(*payload, "arguments");
        if (!args) continue;
        std::optional<TaskPlan> p;
        if (auto s = json::string(*args)) {
            p = planFromArguments(*s);
        } else if (auto list = json::field(*args, "plan")) {
            p = listPlan(*list, "step", false);
        }
        // A malformed newest call leaves the older good one to speak.
        if (!p) continue;
        if (p->empty()) return std::nullopt;
        return p;
    }
    return std::nullopt;
}

TaskPlan goalPlan(const std::string& objective, std::string_view status) {
    TaskPlanItem item;
    item.id = "goal";
    item.subject = std::string(trimmed(objective));
    auto s = lower(status);
    item.status = s == "active" ? TaskPlanItem::Status::inProgress
                  : s == "complete" || s == "completed" ? TaskPlanItem::Status::completed
                                                        : TaskPlanItem::Status::pending;
    return TaskPlan{{std::move(item)}};
}

std::optional<std::vector<std::pair<std::string, TaskPlan>>> goals(const fs::path& database,
                                                                   const std::vector<std::string>& threadIds) {
    scrivet::ReadOnlyDatabase db(database);
    std::vector<std::pair<std::string, TaskPlan>> out;
    auto q = db.prepare("SELECT objective, status FROM thread_goals WHERE thread_id = ?1");
    for (const auto& id : threadIds) {
        q.reset().bind(1, id);
        std::optional<TaskPlan> found;
        // One goal per thread; should there be more, the last row stands.
        while (q.step()) {
            if (q.isNull(0) || trimmed(q.text(0)).empty()) continue;
            found = goalPlan(std::string(q.text(0)), q.isNull(1) ? std::string_view{} : q.text(1));
        }
        if (found) out.emplace_back(id, std::move(*found));
    }
    if (!db.ok()) return std::nullopt;
    return out;
}

}  // namespace CodexPlanSource

// --- Cursor ------------------------------------------------------------------------

namespace CursorPlanSource {

std::optional<fs::path> locateTranscript(const std::string& sessionId, const fs::path& projectsRoot) {
    if (!plainName(sessionId)) return std::nullopt;
    std::error_code ec;
    for (fs::directory_iterator it(projectsRoot, ec), end; !ec && it != end; it.increment(ec)) {
        auto folder = it->path() / "agent-transcripts";
        if (auto found = firstExisting({folder / (sessionId + ".jsonl"), folder / sessionId / (sessionId + ".jsonl")}))
            return found;
    }
    return std::nullopt;
}

std::optional<TaskPlan> plan(std::string_view window, const std::optional<TaskPlan>& onto) {
    auto lines = linesWith(window, "\"TodoWrite\"");
    simdjson::dom::parser parser, inner;
    std::optional<TaskPlan> current = onto;
    bool said = false;
    for (auto line : lines) {
        element root;
        if (!parseLine(parser, line, root)) continue;
        for (element call : toolUses(root, "TodoWrite")) {
            auto rawInput = json::field(call, "input");
            auto input = rawInput ? argumentsObject(*rawInput, inner) : std::nullopt;
            auto todos = input ? json::array(*input, "todos") : std::nullopt;
            if (!todos) continue;
            bool merge = json::boolean(*input, "merge").value_or(false);
            said = true;
            TaskPlan next = merge && current ? *current : TaskPlan{};
            for (element todo : *todos) {
                auto id = nonBlank(json::string(todo, "id"));
                if (!id) {
                    if (auto n = json::integer(todo, "id")) id = std::to_string(*n);
                }
                auto content = nonBlank(json::string(todo, "content"));
                auto status = json::string(todo, "status");
                if (!id) id = content;
                if (!id) continue;
                auto known = std::find_if(next.items.begin(), next.items.end(),
                                          [&](const TaskPlanItem& i) { return i.id == *id; });
                if (status && isCancelled(*status)) {
                    if (known != next.items.end()) next.items.erase(known);
                    continue;
                }
                if (known != next.items.end()) {
                    if (status) known->status = TaskPlanItem::normalizing(*status);
                    if (content) known->subject = *content;
                    continue;
                }
                // An id never seen, even in a merge, still counts: named by its id.
                next.items.push_back({*id, content.value_or(*id), std::nullopt,
                                      TaskPlanItem::normalizing(status.value_or(""))});
            }
            current = std::move(next);
        }
    }
    if (!said) return std::nullopt;
    return current.value_or(TaskPlan{});
}

}  // namespace CursorPlanSource

// --- Kimi --------------------------------------------------------------------------

namespace KimiPlanSource {

std::optional<fs::path> locateJournal(const std::string& sessionId, const fs::path& sessionsRoot) {
    if (!plainName(sessionId)) return std::nullopt;
    std::error_code ec;
    for (fs::directory_iterator it(sessionsRoot, ec), end; !ec && it != end; it.increment(ec)) {
        if (auto found = firstExisting({it->path() / sessionId / "agents/main/wire.jsonl"})) return found;
    }
    return std::nullopt;
}

std::optional<TaskPlan> plan(std::string_view window) {
    auto lines = linesWith(window, "TodoList\"");
    simdjson::dom::parser parser, inner;
    auto field = [](element e, std::string_view name) -> std::optional<element> {
        if (auto f = json::field(e, name)) return f;
        if (auto payload = json::field(e, "payload")) return json::field(*payload, name);
        return std::nullopt;
    };
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        element root;
        if (!parseLine(parser, *line, root)) continue;
        auto type = field(root, "type");
        auto name = field(root, "name");
        if (!type || json::string(*type) != "tool.call" || !name) continue;
        auto n = json::string(*name).value_or("");
        if (n != "TodoList" && n != "SetTodoList") continue;
        auto raw = field(root, "args");
        if (!raw) raw = field(root, "arguments");
        auto args = raw ? argumentsObject(*raw, inner) : std::nullopt;
        auto todos = args ? json::field(*args, "todos") : std::nullopt;
        if (!todos) continue;
        if (auto p = listPlan(*todos, "title", false)) return p;
    }
    return std::nullopt;
}

}  // namespace KimiPlanSource

// --- OpenCode ------------------------------------------------------------------------

namespace OpenCodePlanSource {

TaskPlan plan(const std::vector<scrivet::OpenCodeTranscriptReader::OpenCodeTodo>& todos) {
    TaskPlan plan;
    for (const auto& t : todos) {
        auto content = nonBlank(t.content);
        if (!content || isCancelled(t.status)) continue;
        plan.items.push_back({*content, *content, std::nullopt, TaskPlanItem::normalizing(t.status)});
    }
    giveOccurrenceIds(plan.items);
    return plan;
}

}  // namespace OpenCodePlanSource

}  // namespace lumora
