#include <gtest/gtest.h>

#include "lumora/spend/usage_lines.hpp"

using namespace lumora;
using namespace lumora::UsageLines;

namespace {

simdjson::ondemand::parser parser;

std::optional<Found> claudeLine(const std::string& line) {
    simdjson::padded_string padded(line);
    return claude(padded, parser);
}
std::optional<Found> codexLine(const std::string& line) {
    simdjson::padded_string padded(line);
    return codex(padded, parser, "thread-from-name");
}
std::optional<Found> kimiLine(const std::string& line) {
    simdjson::padded_string padded(line);
    return kimi(padded, parser, "session_x/main");
}

std::string assistant(const std::string& usage, const std::string& extra = R"(,"requestId":"req_1")",
                      const std::string& model = "claude-opus-4-7") {
    return R"({"parentUuid":"p","message":{"id":"msg_1","type":"message","role":"assistant","model":")" + model +
           R"(","content":[{"type":"text","text":"a \"usage\": {} b"}],"usage":)" + usage + "}" + extra +
           R"(,"type":"assistant","uuid":"u1","timestamp":"2026-11-22T00:47:30.162Z"})";
}

}  // namespace

TEST(UsageLines, ClaudeEntriesGiveTheirUsageUnderMessageAndRequestIds) {
    // The real shape (Claude Code 2.1.330): a one-hour and a five-minute cache write.
    auto f = claudeLine(assistant(
        R"({"input_tokens":493,"cache_creation_input_tokens":4444,"cache_read_input_tokens":100,"output_tokens":56,)"
        R"("output_tokens_details":{"thinking_tokens":0},"cache_creation":{"ephemeral_1h_input_tokens":444,)"
        R"("ephemeral_5m_input_tokens":4000},"iterations":[{"input_tokens":9}],"fallback_credit":null})"));
    ASSERT_TRUE(f);
    EXPECT_EQ(f->dedupKey, "msg_1:req_1");
    EXPECT_EQ(f->model, "claude-opus-4-7");
    EXPECT_EQ(f->millis, 1795308450162);
    EXPECT_EQ(f->counts, (UsageCounts{493, 4000, 444, 100, 56}));

    // Aborted mid-stream: no request id, the message id alone; no cache_creation object: all five-minute.
    f = claudeLine(assistant(R"({"input_tokens":1,"cache_creation_input_tokens":10,"output_tokens":1})", ""));
    ASSERT_TRUE(f);
    EXPECT_EQ(f->dedupKey, "msg_1");
    EXPECT_EQ(f->counts, (UsageCounts{1, 10, 0, 0, 1}));

    // What never counts: synthetic replies, zero usage, other entry types, malformed counts.
    EXPECT_FALSE(claudeLine(assistant(R"({"input_tokens":5,"output_tokens":5})", "", "<synthetic>")));
    EXPECT_FALSE(claudeLine(assistant(R"({"input_tokens":0,"output_tokens":0})")));
    std::string user = assistant(R"({"input_tokens":5})");
    user.replace(user.find("\"type\":\"assistant\""), 18, "\"type\":\"user\"");
    EXPECT_FALSE(claudeLine(user));
    for (const char* bad : {R"({"input_tokens":"12","output_tokens":5})", R"({"input_tokens":-3,"output_tokens":5})",
                            R"({"input_tokens":1000000000000000000,"output_tokens":5})",
                            R"({"input_tokens":1.5,"output_tokens":5})", R"({"input_tokens":[1],"output_tokens":5})",
                            R"({"input_tokens":1e400})"}) {
        EXPECT_FALSE(claudeLine(assistant(bad))) << bad;
    }
    EXPECT_TRUE(claudeLine(assistant(R"({"input_tokens":null,"output_tokens":5.0})")));
    for (const char* garbage : {"", "{", "not json", "[1,2]", R"({"type":"assistant","message":{"usage":)",
                                "{\"type\":\"assistant\"}\x01\x02"}) {
        EXPECT_FALSE(claudeLine(garbage)) << garbage;
    }
}

TEST(UsageLines, CodexCountsAndRecordsOfOneResponseShareAKey) {
    std::string usage = R"({"input_tokens":7227,"cached_input_tokens":3613,"cache_write_input_tokens":0,)"
                        R"("output_tokens":48,"reasoning_output_tokens":7,"total_tokens":7275})";
    std::string running = R"({"input_tokens":14336,"cached_input_tokens":7167,"output_tokens":104,"total_tokens":14440})";
    auto count = codexLine(R"({"timestamp":"2026-11-22T00:46:31.231Z","ordinal":17,"type":"event_msg","payload":{"type":"token_count","info":{"total_token_usage":)" +
                           running + R"(,"last_token_usage":)" + usage + R"(,"model_context_window":258400},"rate_limits":{"primary":null}}})");
    auto record = codexLine(R"({"timestamp":"2026-11-22T00:46:31.187Z","type":"token_usage_record","payload":{"thread_id":"thread-from-name","response_id":"resp_1","usage":)" +
                            usage + R"(,"turn_token_usage":)" + running + R"(,"thread_token_usage":)" + running + "}}");
    ASSERT_TRUE(count && record);
    EXPECT_EQ(count->dedupKey, "codex:thread-from-name:14440");
    EXPECT_EQ(record->dedupKey, count->dedupKey);
    // Input includes the cached part; reasoning is inside output.
    EXPECT_EQ(count->counts, (UsageCounts{3614, 0, 0, 3613, 48}));
    EXPECT_EQ(count->counts.total(), 7275);

    auto context = codexLine(R"({"timestamp":"2026-11-22T00:46:25.151Z","type":"turn_context","payload":{"cwd":"/p","model":"gpt-5.5-codex"}})");
    ASSERT_TRUE(context);
    EXPECT_EQ(context->kind, Found::Kind::model);
    EXPECT_EQ(context->model, "gpt-5.5-codex");

    EXPECT_FALSE(codexLine(R"({"type":"event_msg","payload":{"type":"token_count","info":null,"rate_limits":{}}})"));
    EXPECT_FALSE(codexLine(R"({"type":"event_msg","payload":{"type":"agent_message","message":"\"token_count\""}})"));
    EXPECT_FALSE(codexLine(R"({"type":"event_msg","payload":{"type":"token_count","info":{"last_token_usage":{"input_tokens":-1}}}})"));
}

TEST(UsageLines, KimiCountsTurnRecordsOnly) {
    auto turn = kimiLine(R"({"type":"usage.record","model":"kimi-code/k3","usage":{"input_other":3968,"output":383,)"
                         R"("input_cache_read":19200,"input_cache_creation":0},"usageScope":"turn","time":1795308450162})");
    ASSERT_TRUE(turn);
    EXPECT_EQ(turn->counts.total(), 23551);
    EXPECT_EQ(turn->millis, 1795308450162);
    EXPECT_EQ(turn->model, "kimi-code/k3");
    EXPECT_EQ(turn->dedupKey, "kimi:session_x/main:1795308450162:23551");
    EXPECT_FALSE(kimiLine(R"({"type":"usage.record","model":"k3","usage":{"input_other":5},"usageScope":"step","time":1})"));
    EXPECT_FALSE(kimiLine(R"({"type":"usage.record","model":"k3","usage":{"input_other":5},"time":1})"));
    // The same record wrapped in a payload.
    EXPECT_TRUE(kimiLine(R"({"type":"usage.record","payload":{"model":"k3","usage":{"input":10,"input_cache_read":4},"usageScope":"turn","time":2}})"));
}

TEST(UsageLines, IsoTimesWithZonesAndFractions) {
    EXPECT_EQ(parseIsoMillis("1970-01-01T00:00:00Z"), 0);
    EXPECT_EQ(parseIsoMillis("2026-11-22T00:47:30.162Z"), 1795308450162);
    EXPECT_EQ(parseIsoMillis("2026-11-22T00:47:30.162345Z"), 1795308450162);
    EXPECT_EQ(parseIsoMillis("2026-11-22T01:47:30.162+01:00"), 1795308450162);
    EXPECT_EQ(parseIsoMillis("2026-11-21T19:17:30.162-0530"), 1795308450162);
    for (const char* bad : {"", "2026-11-22", "2026-11-22T00:47:30", "2026-13-22T00:47:30Z", "2026-11-22T00:47:30.Z",
                            "2026-11-22T00:47:30Zjunk", "yyyy-11-22T00:47:30Z"}) {
        EXPECT_FALSE(parseIsoMillis(bad)) << bad;
    }
}
