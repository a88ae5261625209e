#include "scrivet/session_namer.hpp"

#include <simdjson.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <nlohmann/json.hpp>

#include "scrivet/journal_entry.hpp"
#include "scrivet/regular_file.hpp"
#include "scrivet/transcript_records.hpp"

namespace scrivet {

namespace {

// After a request that got no answer, new sessions wait this long before the
// server is asked again (they are not marked as tried meanwhile).
constexpr auto kQuietAfterSilence = std::chrono::seconds(30);
// The names file keeps the newest names only.
constexpr size_t kKeptNames = 2000;
constexpr size_t kMaxNamesFile = 1024 * 1024;
constexpr size_t kMaxNameChars = 48;
constexpr size_t kMaxPlainAnswer = 120;

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }
bool isContinuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }
bool isUpper(char c) { return c >= 'A' && c <= 'Z'; }
bool isLower(char c) { return c >= 'a' && c <= 'z'; }
bool isWordChar(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || static_cast<unsigned char>(c) >= 0x80;
}

std::string_view trimmed(std::string_view s) {
    while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
    while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
    return s;
}

std::string lower(std::string_view s) {
    std::string out(s);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

size_t characters(std::string_view s) {
    size_t n = 0;
    for (char c : s) n += isContinuation(c) ? 0 : 1;
    return n;
}

std::vector<std::string_view> words(std::string_view s) {
    std::vector<std::string_view> out;
    size_t i = 0;
    while (i < s.size()) {
        while (i < s.size() && isBlank(s[i])) ++i;
        size_t start = i;
        while (i < s.size() && !isBlank(s[i])) ++i;
        if (i > start) out.push_back(s.substr(start, i - start));
    }
    return out;
}

// A word without the punctuation around it ("(Stripe)," -> "Stripe").
std::string_view core(std::string_view w) {
    while (!w.empty() && !isWordChar(w.front())) w.remove_prefix(1);
    while (!w.empty() && !isWordChar(w.back())) w.remove_suffix(1);
    return w;
}

bool hasUpper(std::string_view w) { return std::any_of(w.begin(), w.end(), isUpper); }
// "OLED", "API2"; a single capital is not an acronym.
bool isAcronym(std::string_view w) {
    int letters = 0;
    for (char c : w) {
        if (isLower(c)) return false;
        if (isUpper(c)) ++letters;
    }
    return letters >= 2;
}
// "iOS", "GitHub": a capital past the first letter.
bool innerCapital(std::string_view w) { return w.size() > 1 && std::any_of(w.begin() + 1, w.end(), isUpper); }

// Strips one pair of wrapping quotes, if the text has them.
bool stripQuotes(std::string& s) {
    static const std::pair<std::string_view, std::string_view> kPairs[] = {
        {"\"", "\""}, {"'", "'"}, {"`", "`"}, {"“", "”"}, {"‘", "’"}, {"«", "»"}};
    for (auto [open, close] : kPairs) {
        if (s.size() >= open.size() + close.size() && s.starts_with(open) && s.ends_with(close)) {
            s = std::string(trimmed(std::string_view(s).substr(open.size(), s.size() - open.size() - close.size())));
            return true;
        }
    }
    return false;
}

std::optional<std::string> stringAt(simdjson::dom::element e, std::string_view key) {
    auto s = json::string(e, key);
    if (!s) return std::nullopt;
    return std::string(*s);
}

}  // namespace

const std::string& SessionNamer::instructions() {
    static const std::string kText =
        "You label coding-assistant chat sessions for a list, like naming a file.\n"
        "Read the user's first message and name the TASK it asks for as a short noun phrase of 2 to 5 words.\n"
        "Reuse the user's own words where you can.\n"
        "Never answer, follow or comment on the request, and never speak to the user; only name the task.\n"
        "Write in sentence case: capitalise the first word and proper names only, and keep acronyms as the user "
        "wrote them.\n"
        "No quotes and no trailing period.\n"
        "When the message is too vague to name, use the user's own words.";
    return kText;
}

SessionNamer& SessionNamer::shared() {
    static SessionNamer namer;
    return namer;
}

SessionNamer::~SessionNamer() { stop(); }

void SessionNamer::configure(Config config) {
    // The worker may be asking the old server; it is cancelled and joined
    // before anything changes, with no lock held.
    {
        std::unique_lock lock(queueLock_);
        quit_ = true;
        queue_.clear();
    }
    cancel_ = true;
    queueChanged_.notify_all();
    if (worker_.joinable()) worker_.join();
    {
        std::lock_guard lock(queueLock_);
        quit_ = false;
    }
    cancel_ = false;
    auto file = config.cacheFile;
    {
        std::lock_guard lock(configLock_);
        config_ = std::move(config);
        lastUnanswered_ = false;
    }
    {
        std::lock_guard lock(attemptedLock_);
        attempted_.clear();
    }
    load(file);
}

void SessionNamer::start() {
    std::lock_guard lock(configLock_);
    started_ = true;
}

void SessionNamer::stop() {
    {
        std::lock_guard lock(configLock_);
        started_ = false;
    }
    {
        std::lock_guard lock(queueLock_);
        quit_ = true;
        queue_.clear();
    }
    cancel_ = true;
    queueChanged_.notify_all();
    if (worker_.joinable()) worker_.join();
    {
        std::lock_guard lock(queueLock_);
        quit_ = false;
    }
    cancel_ = false;
}

void SessionNamer::setOnNamed(std::function<void(const std::string&)> onNamed) {
    std::lock_guard lock(onNamedLock_);
    onNamed_ = std::move(onNamed);
}

SessionNamer::Config SessionNamer::config() const {
    std::lock_guard lock(configLock_);
    return config_;
}

std::optional<std::string> SessionNamer::unavailableReason() const {
    std::lock_guard lock(configLock_);
    if (trimmed(config_.endpoint).empty() || !chatURL(config_.endpoint)) return std::string(kNeedsServer);
    if (lastUnanswered_) return "The local model server at " + std::string(trimmed(config_.endpoint)) + " does not answer.";
    return std::nullopt;
}

bool SessionNamer::isAvailable() const { return !unavailableReason(); }

void SessionNamer::noteAnswered(bool answered) {
    std::lock_guard lock(configLock_);
    lastUnanswered_ = !answered;
    if (!answered) unansweredAt_ = std::chrono::steady_clock::now();
}

std::optional<std::string> SessionNamer::name(const std::string& prompt) {
    auto c = config();
    auto url = chatURL(c.endpoint);
    if (!url || !c.transport || trimmed(prompt).empty()) return std::nullopt;
    Exchange ex;
    ex.url = *url;
    ex.body = requestBody(c.model, prompt);
    ex.timeout = c.timeout;
    ex.cancel = &cancel_;
    Answer answer = c.transport(ex);
    if (cancel_) return std::nullopt;
    noteAnswered(answer.status != 0);
    if (answer.status != 200) return std::nullopt;
    auto title = titleFromAnswer(answer.body);
    if (!title) return std::nullopt;
    auto tidied = tidy(*title);
    if (!acceptable(tidied)) return std::nullopt;
    return sentenceCased(tidied, prompt);
}

std::optional<std::string> SessionNamer::cachedName(const std::string& sessionId, const std::string& prompt) {
    {
        std::lock_guard lock(namesLock_);
        if (auto it = names_.find(sessionId); it != names_.end()) return it->second;
    }
    {
        std::lock_guard lock(configLock_);
        if (!started_ || !chatURL(config_.endpoint) || !config_.transport) return std::nullopt;
        // A server that just did not answer is left alone for a while; the
        // sessions that wait meanwhile are not counted as tried.
        if (lastUnanswered_ && std::chrono::steady_clock::now() - unansweredAt_ < kQuietAfterSilence)
            return std::nullopt;
    }
    if (trimmed(prompt).empty()) return std::nullopt;
    {
        std::lock_guard lock(attemptedLock_);
        if (!attempted_.insert(sessionId).second) return std::nullopt;
    }
    enqueue({sessionId, prompt});
    return std::nullopt;
}

void SessionNamer::prewarm() {
    {
        std::lock_guard lock(configLock_);
        if (!started_ || !chatURL(config_.endpoint) || !config_.transport) return;
    }
    enqueue({"", ""});
}

bool SessionNamer::idle() const {
    std::lock_guard lock(queueLock_);
    return queue_.empty() && !busy_;
}

void SessionNamer::enqueue(Job job) {
    std::lock_guard lock(queueLock_);
    if (quit_) return;
    queue_.push_back(std::move(job));
    if (!worker_.joinable()) worker_ = std::thread([this] { work(); });
    queueChanged_.notify_one();
}

void SessionNamer::work() {
    for (;;) {
        Job job;
        {
            std::unique_lock lock(queueLock_);
            queueChanged_.wait(lock, [&] { return quit_ || !queue_.empty(); });
            if (quit_) return;
            job = std::move(queue_.front());
            queue_.pop_front();
            busy_ = true;
        }
        if (job.sessionId.empty()) {
            name("hello");  // the answer does not matter; the model is loaded
        } else if (auto n = name(job.prompt)) {
            store(job.sessionId, *n);
        }
        std::lock_guard lock(queueLock_);
        busy_ = false;
    }
}

void SessionNamer::store(const std::string& sessionId, const std::string& name) {
    {
        std::lock_guard lock(namesLock_);
        if (!names_.emplace(sessionId, name).second) return;
        order_.push_back(sessionId);
        while (order_.size() > kKeptNames) {
            names_.erase(order_.front());
            order_.erase(order_.begin());
        }
    }
    persist();
    std::function<void(const std::string&)> onNamed;
    {
        std::lock_guard lock(onNamedLock_);
        onNamed = onNamed_;
    }
    if (onNamed) onNamed(sessionId);
}

void SessionNamer::persist() {
    auto file = config().cacheFile;
    if (file.empty()) return;
    nlohmann::ordered_json out = nlohmann::ordered_json::object();
    {
        std::lock_guard lock(namesLock_);
        for (const auto& id : order_) out[validUtf8(id)] = validUtf8(names_[id]);
    }
    std::error_code ec;
    std::filesystem::create_directories(file.parent_path(), ec);
    auto temp = file;
    temp += ".tmp";
    {
        std::ofstream o(temp, std::ios::binary | std::ios::trunc);
        if (!o) return;
        o << out.dump(2) << "\n";
        if (!o.flush()) return;
    }
    std::filesystem::rename(temp, file, ec);
    if (ec) std::filesystem::remove(temp, ec);
}

void SessionNamer::load(const std::filesystem::path& file) {
    std::unordered_map<std::string, std::string> names;
    std::vector<std::string> order;
    if (!file.empty()) {
        auto read = RegularFile::read(file, kMaxNamesFile);
        simdjson::dom::parser parser;
        simdjson::dom::object root;
        if (read.text && !parser.parse(*read.text).get(root)) {
            for (auto [key, value] : root) {
                auto name = json::string(value);
                if (!name || trimmed(*name).empty() || characters(*name) > kMaxNameChars) continue;
                if (names.emplace(std::string(key), std::string(*name)).second) order.emplace_back(key);
            }
        }
    }
    std::lock_guard lock(namesLock_);
    names_ = std::move(names);
    order_ = std::move(order);
}

// --- The pieces ------------------------------------------------------------------------

bool SessionNamer::isLoopback(std::string_view url) {
    std::string u = lower(trimmed(url));
    std::string_view rest;
    if (u.starts_with("http://")) rest = std::string_view(u).substr(7);
    else if (u.starts_with("https://")) rest = std::string_view(u).substr(8);
    else return false;
    std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
    if (authority.find('@') != std::string_view::npos) return false;  // no credentials, no tricks
    std::string_view host;
    if (authority.starts_with("[")) {
        auto end = authority.find(']');
        if (end == std::string_view::npos) return false;
        host = authority.substr(1, end - 1);
        auto after = authority.substr(end + 1);
        if (!after.empty() && after.front() != ':') return false;
        return host == "::1";
    }
    host = authority.substr(0, authority.find(':'));
    if (host == "localhost") return true;
    // 127.0.0.0/8, written as four plain numbers.
    if (!host.starts_with("127.")) return false;
    int parts = 0;
    size_t i = 0;
    while (i <= host.size()) {
        size_t dot = host.find('.', i);
        if (dot == std::string_view::npos) dot = host.size();
        auto part = host.substr(i, dot - i);
        if (part.empty() || part.size() > 3 || !std::all_of(part.begin(), part.end(), [](char c) { return c >= '0' && c <= '9'; }))
            return false;
        if (std::stoi(std::string(part)) > 255) return false;
        ++parts;
        i = dot + 1;
    }
    return parts == 4;
}

std::optional<std::string> SessionNamer::chatURL(std::string_view endpoint) {
    std::string url(trimmed(endpoint));
    if (url.empty() || !isLoopback(url)) return std::nullopt;
    if (url.find_first_of("?#") != std::string::npos) return std::nullopt;
    while (url.ends_with("/")) url.pop_back();
    if (url.ends_with("/chat/completions")) return url;
    if (url.ends_with("/v1")) return url + "/chat/completions";
    return url + "/v1/chat/completions";
}

std::string SessionNamer::requestBody(std::string_view model, std::string_view prompt) {
    using Json = nlohmann::ordered_json;
    Json schema = {{"type", "object"},
                   {"properties", {{"title", {{"type", "string"}, {"description", std::string(kTitleDescription)}}}}},
                   {"required", Json::array({"title"})},
                   {"additionalProperties", false}};
    Json body = Json::object();
    if (!trimmed(model).empty()) body["model"] = std::string(trimmed(model));
    body["messages"] = Json::array({{{"role", "system"}, {"content", instructions()}},
                                    {{"role", "user"}, {"content", "First message:\n\n" + std::string(prompt)}}});
    body["temperature"] = 0;
    body["max_tokens"] = 40;
    body["stream"] = false;
    body["response_format"] = {{"type", "json_schema"},
                               {"json_schema", {{"name", "GeneratedName"}, {"strict", true}, {"schema", schema}}}};
    return body.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::optional<std::string> SessionNamer::titleFromAnswer(std::string_view body) {
    simdjson::dom::parser parser;
    simdjson::dom::element root;
    simdjson::padded_string padded(body);
    if (parser.parse(padded).get(root) || !root.is_object()) return std::nullopt;
    auto choices = json::array(root, "choices");
    simdjson::dom::element first;
    if (!choices || choices->at(0).get(first)) return std::nullopt;
    auto message = json::field(first, "message");
    if (!message) return std::nullopt;
    auto content = stringAt(*message, "content");
    if (!content) return std::nullopt;
    std::string_view text = trimmed(*content);
    // A reasoning model's thoughts come first.
    if (text.starts_with("<think>")) {
        auto end = text.find("</think>");
        if (end == std::string_view::npos) return std::nullopt;
        text = trimmed(text.substr(end + 8));
    }
    if (text.starts_with("```")) {  // a fenced JSON answer
        auto open = text.find('\n');
        auto close = text.rfind("```");
        if (open == std::string_view::npos || close <= open) return std::nullopt;
        text = trimmed(text.substr(open + 1, close - open - 1));
    }
    if (text.starts_with("{")) {
        simdjson::dom::parser inner;
        simdjson::dom::element name;
        simdjson::padded_string paddedText(text);
        if (inner.parse(paddedText).get(name) || !name.is_object()) return std::nullopt;
        return stringAt(name, "title");
    }
    // A server that ignored the schema may still have answered with a name.
    if (text.empty() || text.find('\n') != std::string_view::npos || characters(text) > kMaxPlainAnswer)
        return std::nullopt;
    return std::string(text);
}

std::string SessionNamer::tidy(std::string_view text) {
    std::string s = collapseWhitespace(text);
    for (int round = 0; round < 4; ++round) {
        std::string before = s;
        if (lower(s).starts_with("title:")) s = std::string(trimmed(std::string_view(s).substr(6)));
        stripQuotes(s);
        while (!s.empty() && (s.back() == '.' || s.back() == ' ')) s.pop_back();
        if (s.ends_with("。")) s.resize(s.size() - std::string_view("。").size());
        if (s == before) break;
    }
    return s;
}

bool SessionNamer::acceptable(std::string_view name) {
    auto t = trimmed(name);
    if (t.empty() || characters(t) > kMaxNameChars || t.back() == '?') return false;
    auto ws = words(t);
    if (ws.size() < 2 || ws.size() > 6) return false;
    // Words to the user, or the assistant speaking: the model answered
    // instead of naming.
    static const std::set<std::string> kToUser = {"you", "your", "you're", "youre", "yours", "yourself",
                                                  "you'll", "you've", "you'd", "u"};
    static const std::set<std::string> kAsAssistant = {"i", "i'm", "im", "i'll", "i've", "i'd", "me", "myself"};
    for (auto w : ws) {
        // A typographic apostrophe reads as a plain one ("you’re").
        std::string c;
        for (std::string_view rest = core(w); !rest.empty();) {
            if (rest.starts_with("’")) {
                c += '\'';
                rest.remove_prefix(std::string_view("’").size());
            } else {
                c += static_cast<char>(std::tolower(static_cast<unsigned char>(rest.front())));
                rest.remove_prefix(1);
            }
        }
        if (kToUser.count(c) || kAsAssistant.count(c)) return false;
    }
    std::string head = lower(t);
    for (std::string_view opener : {"let me", "let's", "lets ", "sure", "certainly", "okay", "ok,", "here is",
                                    "here's", "we will", "we'll", "i can", "sorry"})
        if (head.starts_with(opener)) return false;
    return true;
}

std::string SessionNamer::sentenceCased(std::string_view name, std::string_view prompt) {
    // The words the user capitalised on purpose: names and acronyms anywhere,
    // and any word with a capital that does not merely open a sentence.
    std::set<std::string_view> kept;
    bool sentenceStart = true;
    for (auto w : words(prompt)) {
        auto c = core(w);
        if (!c.empty() && hasUpper(c) && (!sentenceStart || isAcronym(c) || innerCapital(c))) kept.insert(c);
        char last = w.back();
        sentenceStart = last == '.' || last == '!' || last == '?' || last == ':';
    }
    std::string out;
    bool first = true;
    for (auto w : words(name)) {
        std::string word(w);
        auto c = core(w);
        if (!kept.count(c)) {
            for (char& ch : word)
                if (isUpper(ch)) ch = static_cast<char>(ch - 'A' + 'a');
            if (first) {
                auto at = std::find_if(word.begin(), word.end(), isWordChar);
                if (at != word.end() && isLower(*at)) *at = static_cast<char>(*at - 'a' + 'A');
            }
        }
        if (!out.empty()) out += ' ';
        out += word;
        first = false;
    }
    return out;
}

}  // namespace scrivet
