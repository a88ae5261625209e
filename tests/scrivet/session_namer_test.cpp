#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "scrivet/session_namer.hpp"

using scrivet::SessionNamer;

namespace {

std::string chatAnswer(const std::string& content) {
    return nlohmann::json{{"choices", {{{"index", 0}, {"message", {{"role", "assistant"}, {"content", content}}}}}}}.dump();
}

}  // namespace

TEST(SessionNamer, TidiesAndRefusesWhatIsNotAName) {
    EXPECT_EQ(SessionNamer::tidy("Title: Release binary compile"), "Release binary compile");
    EXPECT_EQ(SessionNamer::tidy("  \"Release   binary compile.\"  "), "Release binary compile");
    EXPECT_EQ(SessionNamer::tidy("“Dark mode toggle”."), "Dark mode toggle");

    for (const char* good : {"Release binary compile", "Dark mode toggle", "Stripe webhook retries"})
        EXPECT_TRUE(SessionNamer::acceptable(good)) << good;
    for (const char* bad : {"", "Does it have access?", "I will compile the binary", "You are asking about rows",
                            "Compile", "Let me look at the build", "Your login page fix", "Fixing what you’re after",
                            "A very long phrase that keeps going on and on", "Migrate every legacy billing "
                                                                            "endpoint to the new gateway"})
        EXPECT_FALSE(SessionNamer::acceptable(bad)) << bad;

    EXPECT_EQ(SessionNamer::sentenceCased("Dark Mode Toggle", "add a dark mode toggle to settings"), "Dark mode toggle");
    EXPECT_EQ(SessionNamer::sentenceCased("Stripe Webhook Retries", "make the Stripe webhook retry"),
              "Stripe webhook retries");
    EXPECT_EQ(SessionNamer::sentenceCased("OLED Burn-In Check", "check the OLED for burn-in"), "OLED burn-in check");
    // A capital that only opens the user's sentence is not a name.
    EXPECT_EQ(SessionNamer::sentenceCased("Settings Add Button", "Add a button to settings. Add tests"),
              "Settings add button");
}

TEST(SessionNamer, SpeaksToLoopbackServersOnly) {
    EXPECT_EQ(SessionNamer::chatURL("http://127.0.0.1:8080"), "http://127.0.0.1:8080/v1/chat/completions");
    EXPECT_EQ(SessionNamer::chatURL("http://localhost:11434/v1/"), "http://localhost:11434/v1/chat/completions");
    EXPECT_EQ(SessionNamer::chatURL("http://[::1]:8080/v1/chat/completions"), "http://[::1]:8080/v1/chat/completions");
    EXPECT_EQ(SessionNamer::chatURL("https://127.0.0.2:9000/api"), "https://127.0.0.2:9000/api/v1/chat/completions");
    for (const char* refused : {"", "http://example.com:8080", "http://10.0.0.5:8080", "http://127.0.0.1.evil.com/",
                                "http://user@127.0.0.1:8080", "http://127.0.0.1@evil.com", "ftp://127.0.0.1/",
                                "http://[::2]:80", "http://127.0.0.999/", "http://localhost.evil/", "127.0.0.1:8080",
                                "http://127.0.0.1:8080/?q=1"})
        EXPECT_FALSE(SessionNamer::chatURL(refused)) << refused;

    // The request: the instructions, the prompt and the schema of one `title`.
    auto body = nlohmann::json::parse(SessionNamer::requestBody("qwen3", "fix the build"));
    EXPECT_EQ(body["model"], "qwen3");
    EXPECT_EQ(body["messages"][0]["content"], SessionNamer::instructions());
    EXPECT_TRUE(SessionNamer::instructions().starts_with(
        "You label coding-assistant chat sessions for a list, like naming a file.\n"));
    EXPECT_EQ(body["messages"][1]["content"], "First message:\n\nfix the build");
    const auto& schema = body["response_format"]["json_schema"]["schema"];
    EXPECT_EQ(schema["required"], nlohmann::json::array({"title"}));
    EXPECT_EQ(schema["properties"]["title"]["description"], std::string(SessionNamer::kTitleDescription));
    EXPECT_FALSE(nlohmann::json::parse(SessionNamer::requestBody("", "x")).contains("model"));
    // Bytes that are not UTF-8 never break the request.
    EXPECT_NO_THROW(nlohmann::json::parse(SessionNamer::requestBody("m", "bad \xff\xfe bytes")));

    // Answers: the schema's object, a bare line from a server that ignored it, or nothing.
    EXPECT_EQ(SessionNamer::titleFromAnswer(chatAnswer(R"({"title":"Build fix"})")), "Build fix");
    EXPECT_EQ(SessionNamer::titleFromAnswer(chatAnswer("<think>hmm</think>\n{\"title\":\"Build fix\"}")), "Build fix");
    EXPECT_EQ(SessionNamer::titleFromAnswer(chatAnswer("Build fix")), "Build fix");
    for (const std::string& junk : {std::string("<html><body>502</body></html>"), std::string("{"), std::string("[]"),
                                    chatAnswer("{\"name\":\"x\"}"), chatAnswer("{not json"), chatAnswer("line\nline"),
                                    chatAnswer(std::string(500, 'a')), std::string(R"({"choices":[]})"),
                                    std::string(R"({"choices":[{"message":{"content":7}}]})")})
        EXPECT_FALSE(SessionNamer::titleFromAnswer(junk)) << junk;
}

TEST(SessionNamer, WithoutAServerNamesNothingAndSaysWhy) {
    SessionNamer namer;
    EXPECT_FALSE(namer.isAvailable());
    EXPECT_EQ(namer.unavailableReason(), "Naming sessions needs a local model server (set namingEndpoint).");
    EXPECT_FALSE(namer.cachedName("s1", "fix the build"));
    bool asked = false;
    SessionNamer::Config c;
    c.endpoint = "http://models.example.com:8080";  // not this machine: refused, never asked
    c.transport = [&](const SessionNamer::Exchange&) {
        asked = true;
        return SessionNamer::Answer{200, chatAnswer(R"({"title":"Build fix"})")};
    };
    namer.configure(c);
    namer.start();
    EXPECT_EQ(namer.unavailableReason(), "Naming sessions needs a local model server (set namingEndpoint).");
    EXPECT_FALSE(namer.cachedName("s1", "fix the build"));
    EXPECT_FALSE(namer.name("fix the build"));
    EXPECT_FALSE(asked);
}
