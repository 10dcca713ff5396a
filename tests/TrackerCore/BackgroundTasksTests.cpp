#include "TrackerCore/Json.h"
#include "TrackerCore/TranscriptTail.h"

#include <gtest/gtest.h>

using namespace skeldrin;

namespace {

const auto at = [](const char* iso) { return parseIso8601(iso).value(); };
constexpr const char* kStart = "2026-03-14T11:00:00.000Z";

const auto scan = [](const std::vector<std::string>& lines) {
    return TranscriptTail::runningBackgroundTasksIn({lines.begin(), lines.end()});
};

// The ids of the tasks still running, oldest first, each followed by a space.
std::string running(const std::vector<std::string>& lines)
{
    std::string ids;
    for (const auto& task : scan(lines))
        ids += task.id + " ";
    return ids;
}

std::string start(const char* id, const Json& input, const char* name = "Bash",
                  const char* timestamp = kStart)
{
    const Json call = {{"type", "tool_use"}, {"id", id}, {"name", name}, {"input", input}};
    Json line{{"type", "assistant"}, {"message", {{"content", Json::array({call})}}}};
    if (timestamp) line["timestamp"] = timestamp;
    return line.dump();
}

const auto background = [](const char* id, const char* command, const char* timestamp = kStart) {
    return start(id, {{"command", command}, {"run_in_background", true}}, "Bash", timestamp);
};

const auto result = [](const char* id, const std::string& text) {
    const Json block = {{"tool_use_id", id}, {"type", "tool_result"}, {"content", text}};
    return Json{{"type", "user"}, {"message", {{"content", Json::array({block})}}}}.dump();
};

const auto notice = [](const std::string& body, const char* type = "user") {
    return Json{{"type", type},
                {"message", {{"content", "<task-notification>\n" + body + "\n</task-notification>"}}}}
        .dump();
};

} // namespace

TEST(BackgroundTasks, EndOnlyWhenANotificationOrTaskStopNamesThem)
{
    const std::vector<std::string> started{
        background("toolu_A", "make docs"), result("toolu_A", "Command running in background with ID: shA1"),
        start("toolu_B", {{"description", "Watch CI"}}, "Monitor"),
        result("toolu_B", "Monitor started (task mon2, timeout 300000ms)")};
    const std::pair<std::string, const char*> cases[] = {
        {"", "toolu_A toolu_B "},
        {notice("<task-id>shA1</task-id>\n<status>completed</status>"), "toolu_B "},
        {notice("<tool-use-id>toolu_B</tool-use-id>\n[Monitor expired after 5m]"), "toolu_A "},
        // Not a notification of an end, or not one Claude Code delivered.
        {notice("<task-id>shA1</task-id> still going"), "toolu_A toolu_B "},
        {notice("<task-id>shA1</task-id><status>completed</status>", "assistant"), "toolu_A toolu_B "},
        // A task id is looked up only among announced ids, never among tool-use ids, and vice versa.
        {notice("<task-id>toolu_A</task-id><status>completed</status>"), "toolu_A toolu_B "},
        {start("toolu_S", {{"task_id", "shA1"}}, "TaskStop"), "toolu_B "},
        {start("toolu_S", {{"task_id", "toolu_A"}}, "TaskStop"), "toolu_A toolu_B "},
    };
    for (const auto& [line, ids] : cases) {
        auto lines = started;
        lines.push_back(line);
        EXPECT_EQ(running(lines), ids) << line;
    }
    // A later alias replaces an earlier one; agentId announces too.
    EXPECT_EQ(running({background("toolu_A", "a"), background("toolu_B", "b"),
                       result("toolu_A", "Command running in background with ID: same1"),
                       result("toolu_B", "Async agent launched.\nagentId: same1 (internal)"),
                       notice("<task-id>same1</task-id><status>completed</status>")}),
              "toolu_A ");
    // Oldest first; no stamp, or one without fractional seconds, starts in the distant past.
    EXPECT_EQ(running({background("toolu_C", "c", "2026-03-14T11:00:03.000Z"),
                       background("toolu_A", "a", "2026-03-14T11:00:01.000Z"),
                       background("toolu_B", "b", "2026-03-14T11:00:02+01:00")}),
              "toolu_B toolu_A toolu_C ");
}

TEST(BackgroundTasks, ExpiryCountsFromTheStartAndTheTitleFromTheFirstLine)
{
    // Expiry counts from the start; a later result without expiry keeps the earlier one.
    const auto expiry = [](const std::string& text, const char* startedAt = kStart) {
        return scan({background("toolu_A", "x", startedAt), result("toolu_A", text), result("toolu_A", "no")})
            .at(0)
            .expiresAt;
    };
    EXPECT_EQ(expiry("timeout 1500ms"), at("2026-03-14T11:00:01.500Z"));
    EXPECT_EQ(expiry("timeout 120000ms, expires in 5m"), at("2026-03-14T11:05:00.000Z"));
    // Digits too many for a number count as no minutes, so the milliseconds apply.
    EXPECT_EQ(expiry("expires in 99999999999999999999m, timeout 2000ms"), at("2026-03-14T11:00:02.000Z"));
    // A number that fits but lies beyond any writable date stays the latest one.
    EXPECT_EQ(expiry("expires in 9000000000000000000m"), at("9999-12-31T23:59:59.999999Z"));
    EXPECT_EQ(expiry("expires in 5m", nullptr), distantPast() + std::chrono::minutes{5});

    // The title is the first line of the description, the command or the prompt.
    const auto title = [](Json input) {
        input["run_in_background"] = true;
        return scan({start("toolu_A", input, "Task")}).at(0).title;
    };
    EXPECT_EQ(title({{"description", "Audit deps"}, {"command", "npm audit"}}), "Audit deps");
    EXPECT_EQ(title({{"description", ""}, {"command", "\n\r\nnpm test\nnpm run lint"}}), "npm test");
    EXPECT_EQ(title({{"description", "\n"}, {"prompt", "\u2028  Review the diff\u2028then commit"}}),
              "  Review the diff");
    EXPECT_EQ(title({{"description", "\n"}}), "Background task");
    // A line that is not valid UTF-8 is repaired before it is read.
    std::string raw = start("toolu_A", {{"run_in_background", true}, {"command", "build ? docs"}});
    raw[raw.find('?')] = '\xff';
    EXPECT_EQ(scan({raw}).at(0).title, "build \xEF\xBF\xBD docs");
}

TEST(BackgroundTasks, BadLinesAndLinesThatStartNothingAreSkipped)
{
    // Markers match exactly; foreground, non-tool-use, id-less or input-less calls, user lines start nothing,
    // and a task whose start fell before the tail is neither announced nor ended.
    const std::string huge(2 << 20, 'y');
    const auto tasks = running(
        {result("toolu_gone", "with ID: x1"), notice("<task-id>x1</task-id><status>done</status>"),
         R"({"type":"assistant","message":{"content":[{"type":"tool_use","id":"toolu_X","name":"Bash","input":{"run_in_background": true}}]}})",
         start("toolu_B", {{"run_in_background", false}, {"command", "ls"}}),
         R"({"type":"assistant","message":{"content":[{"type":"server_tool_use","id":"s1","name":"Monitor","input":{}},{"type":"tool_use","id":"t1","name":"Monitor"}]}})",
         R"({"type":"user","message":{"content":[{"type":"tool_use","id":"toolu_C","name":"Monitor","input":{}}]}})",
         R"({"type":"assistant","message":{"content":[{"type":"tool_use","id":"toolu_D","name":"Monitor","input":{}},{"type":"tool_use","id":3}]}})",
         "\xff\xfe\"run_in_background\":true\x80<task-notification><status>", "{\"tool_result\" " + huge,
         background("toolu_A", "kept"),
         R"({"type":"assistant","message":"str","id":3,"timestamp":7,"name":"Monitor"})",
         R"({"type":5,"message":{"content":5},"name":"TaskStop"})",
         result("toolu_A", "\"tool_use_id\":\"" + std::string(100000, 'z') + "\" with ID: " + huge),
         notice("<task-id>" + std::string(100000, 'z') + "</task-id><status>done</status>")});
    EXPECT_EQ(tasks, "toolu_A ");
}
