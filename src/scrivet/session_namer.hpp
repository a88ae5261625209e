#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

// Names sessions with a language model that runs on this machine. There is
// no model built into the platform here, so the namer talks to an optional
// local model server that speaks the common chat-completions API with a
// JSON-schema response format (llama.cpp's server and Ollama both do). The
// server is set by the `namingEndpoint` setting, which must name this
// machine (127.0.0.1, ::1 or localhost): prompts never leave the machine.
//
// Each session is named at most once per run, on the namer's own worker
// thread, with a 2-second time-out; a caller never waits for the model.
// Names are kept in memory and in "session-names.json". The names, the set
// of sessions already tried, the work queue and the settings each have their
// own lock, and no lock is held while another is taken or while a request
// runs.
namespace scrivet {

class SessionNamer {
public:
    // The structured answer asked of the model: one field, `title`.
    struct GeneratedName {
        std::string title;
        bool operator==(const GeneratedName&) const = default;
    };

    // One request to the model server, made by the caller's HTTP client.
    struct Exchange {
        std::string url;   // the chat-completions URL (loopback only)
        std::string body;  // the JSON request
        std::chrono::milliseconds timeout{2000};
        size_t maxAnswer = 64 * 1024;            // a longer answer fails the request
        const std::atomic<bool>* cancel = nullptr;  // set when the namer stops
    };
    struct Answer {
        int status = 0;  // 0: no answer at all (refused, timed out, cut off)
        std::string body;
    };
    using Transport = std::function<Answer(const Exchange&)>;

    struct Config {
        std::string endpoint;  // `namingEndpoint`; empty: naming is off
        std::string model;     // `namingModel`; empty: the server's default
        std::filesystem::path cacheFile;  // session-names.json; empty: kept in memory only
        Transport transport;
        std::chrono::milliseconds timeout{2000};
    };

    // The description of `title` given to the model.
    static constexpr std::string_view kTitleDescription =
        "A 2-5 word noun phrase naming the task the user is asking for. Sentence case, no trailing period, no "
        "quotes. Never answer the request; only name it.";
    // The instructions given to the model, verbatim.
    static const std::string& instructions();

    static constexpr std::string_view kNeedsServer = "Naming sessions needs a local model server (set namingEndpoint).";

    // The one namer of the process.
    static SessionNamer& shared();
    SessionNamer() = default;
    ~SessionNamer();
    SessionNamer(const SessionNamer&) = delete;
    SessionNamer& operator=(const SessionNamer&) = delete;

    // Takes new settings: stops any naming in flight, forgets which sessions
    // were tried, and loads the names stored in the cache file (a missing or
    // damaged file starts an empty cache).
    void configure(Config config);
    // Lets the namer ask the server in the background (a long-running app);
    // until then cachedName() only reads the cache. stop() cancels a request
    // in flight and waits for the worker.
    void start();
    void stop();
    // Called on the worker after a session got its name.
    void setOnNamed(std::function<void(const std::string& sessionId)> onNamed);

    // Whether a server is set, is on this machine and answered its last request.
    bool isAvailable() const;
    // Why naming is not available: no (or no local) server is set, or
    // "The local model server at <url> does not answer.".
    std::optional<std::string> unavailableReason() const;

    // Asks the server now, on the caller's thread (at most the time-out):
    // the tidied, acceptable, sentence-cased name of the task, or nothing.
    std::optional<std::string> name(const std::string& prompt);
    // The session's cached name at once; when there is none and the session
    // has not been tried in this run, marks it tried and names it in the
    // background. `prompt` is the cleaned first prompt.
    std::optional<std::string> cachedName(const std::string& sessionId, const std::string& prompt);
    // Sends a tiny request in the background so the server loads its model
    // before the first real one.
    void prewarm();

    // True when nothing is queued or running (tests wait for it).
    bool idle() const;

    // --- The pieces, pure -----------------------------------------------------------------

    // The chat-completions URL for an endpoint: a URL already ending in
    // "/chat/completions" as it is, one ending in "/v1" with it appended, any
    // other with "/v1/chat/completions" appended. Nothing for an endpoint
    // that is not http(s) to this machine.
    static std::optional<std::string> chatURL(std::string_view endpoint);
    // True for an http:// or https:// URL whose host is 127.0.0.1 (or any
    // 127.x address), ::1 or localhost, without credentials.
    static bool isLoopback(std::string_view url);
    // The request: the instructions, "First message:", a blank line and the
    // prompt, and the JSON schema of GeneratedName.
    static std::string requestBody(std::string_view model, std::string_view prompt);
    // The title in a chat-completions answer: the message content as a
    // GeneratedName, or (from a server that ignored the schema) a short plain
    // line; nothing for anything else.
    static std::optional<std::string> titleFromAnswer(std::string_view body);
    // Strips a "Title:" prefix, wrapping quotes and a trailing period, and
    // collapses whitespace.
    static std::string tidy(std::string_view text);
    // Refuses what is not a name: empty, one word, more than six words or 48
    // characters, a question, or words to or from the user ("you…", "I will…").
    static bool acceptable(std::string_view name);
    // Sentence case: the first word capitalised, later words lowered unless
    // the user wrote them capitalised in the prompt (a name, an acronym).
    static std::string sentenceCased(std::string_view name, std::string_view prompt);

private:
    struct Job {
        std::string sessionId;
        std::string prompt;  // empty: a prewarm
    };

    void enqueue(Job job);
    void work();
    void store(const std::string& sessionId, const std::string& name);
    void persist();
    void load(const std::filesystem::path& file);
    // Notes how the last exchange went, for the availability.
    void noteAnswered(bool answered);
    Config config() const;

    // Settings and availability.
    mutable std::mutex configLock_;
    Config config_;
    bool started_ = false;
    bool lastUnanswered_ = false;
    std::chrono::steady_clock::time_point unansweredAt_{};

    // Names by session, in the order they were made (the file keeps the newest).
    mutable std::mutex namesLock_;
    std::unordered_map<std::string, std::string> names_;
    std::vector<std::string> order_;

    std::mutex attemptedLock_;
    std::set<std::string> attempted_;

    mutable std::mutex queueLock_;
    std::condition_variable queueChanged_;
    std::deque<Job> queue_;
    bool busy_ = false;
    bool quit_ = false;
    std::thread worker_;
    std::atomic<bool> cancel_{false};

    std::mutex onNamedLock_;
    std::function<void(const std::string&)> onNamed_;
};

}  // namespace scrivet
