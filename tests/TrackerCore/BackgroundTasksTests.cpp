#include "TrackerCore/Json.h"
#include "TrackerCore/TranscriptTail.h"

#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>

using namespace skeldrin;
using Task = TranscriptTail::BackgroundTask;

namespace {

Date at(const char* iso) { return parseIso8601(iso).value(); }

std::vector<std::string> fixtureLines(const std::string& name)
{
    std::ifstream in(std::string(SKELDRIN_FIXTURES) + "/transcripts/" + name, std::ios::binary);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) lines.push_back(line);
    if (lines.empty()) throw std::runtime_error("missing fixture " + name);
    return lines;
}

std::vector<Task> scan(const std::vector<std::string>& lines, std::size_t count = SIZE_MAX)
{
    std::vector<std::string_view> views(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(std::min(count, lines.size())));
    return TranscriptTail::runningBackgroundTasksIn(views);
}

std::vector<std::string> ids(const std::vector<Task>& tasks)
{
    std::vector<std::string> out;
    for (const auto& task : tasks) out.push_back(task.id);
    return out;
}

std::string start(const char* id, const Json& input, const char* name = "Bash",
                  const char* timestamp = "2026-03-14T11:00:00.000Z")
{
    Json line{{"type", "assistant"},
              {"message", {{"role", "assistant"},
                           {"content", Json::array({{{"type", "tool_use"}, {"id", id}, {"name", name}, {"input", input}}})}}}};
    if (timestamp) line["timestamp"] = timestamp;
    return line.dump();
}

std::string background(const char* id, const char* command, const char* timestamp = "2026-03-14T11:00:00.000Z")
{
    return start(id, {{"command", command}, {"run_in_background", true}}, "Bash", timestamp);
}

std::string result(const char* id, const std::string& text)
{
    return Json{{"type", "user"},
                {"message", {{"role", "user"},
                             {"content", Json::array({{{"tool_use_id", id}, {"type", "tool_result"}, {"content", text}}})}}}}
        .dump();
}

std::string notice(const std::string& body, const char* type = "user")
{
    return Json{{"type", type}, {"message", {{"role", "user"}, {"content", "<task-notification>\n" + body + "\n</task-notification>"}}}}
        .dump();
}

} // namespace

TEST(BackgroundTasks, FollowsTasksThroughAWholeSession)
{
    const auto lines = fixtureLines("background-work.jsonl");
    const auto shellAt = [&](const std::string& needle) {
        for (std::size_t i = 0; i < lines.size(); ++i)
            if (lines[i].find(needle) != std::string::npos) return i;
        throw std::runtime_error("no line with " + needle);
    };
    // The server is open until the notification that names only its announced id.
    const std::size_t notification = shellAt("queue-operation");
    EXPECT_EQ(ids(scan(lines, notification)),
              (std::vector<std::string>{"toolu_01DevSrv8qLw2Nx5Rb7KcJt", "toolu_01Audit5Fg8Hj2Kl4Mn6Pq",
                                        "toolu_01Watch3Zx7Cv9Bn1Mq5Ws", "toolu_01Tail6Yu8Io2Pa4Sd6Fg"}));
    const auto beforeStop = scan(lines, shellAt("\"TaskStop\""));
    ASSERT_EQ(beforeStop.size(), 3u);
    EXPECT_EQ(beforeStop[2], (Task{"toolu_01Tail6Yu8Io2Pa4Sd6Fg", at("2026-03-14T11:00:10.000Z"), "npx vitest --watch",
                                   at("2026-03-14T11:30:10.000Z")}));

    const auto running = scan(lines);
    EXPECT_EQ(running, (std::vector<Task>{
                           {"toolu_01Audit5Fg8Hj2Kl4Mn6Pq", at("2026-03-14T11:00:06.250Z"), "Audit dependencies", std::nullopt},
                           {"toolu_01Watch3Zx7Cv9Bn1Mq5Ws", at("2026-03-14T11:00:08.000Z"), "Watch build log for errors",
                            at("2026-03-14T11:10:08.000Z")},
                       }));

    // The whole file through the tail reader gives the same.
    std::string joined;
    for (const auto& line : lines) joined += line + "\n";
    EXPECT_EQ(TranscriptTail::parse(joined).runningBackgroundTasks, running);
}

TEST(BackgroundTasks, EndsOnlyWhatANotificationOrTaskStopNames)
{
    const std::vector<std::string> started{background("toolu_A", "make docs"), result("toolu_A", "Command running in background with ID: shA1"),
                                           start("toolu_B", {{"description", "Watch CI"}}, "Monitor"),
                                           result("toolu_B", "Monitor started (task mon2, timeout 300000ms)")};
    const auto after = [&](std::vector<std::string> more) {
        auto lines = started;
        lines.insert(lines.end(), more.begin(), more.end());
        return ids(scan(lines));
    };
    const std::vector<std::string> both{"toolu_A", "toolu_B"};
    EXPECT_EQ(after({}), both);
    EXPECT_EQ(after({notice("<task-id>shA1</task-id>\n<status>completed</status>")}), std::vector<std::string>{"toolu_B"});
    EXPECT_EQ(after({notice("<tool-use-id>toolu_B</tool-use-id>\n[Monitor expired after 5m]")}),
              std::vector<std::string>{"toolu_A"});
    EXPECT_EQ(after({notice("<task-id>mon2</task-id> [Monitor timed out]")}), std::vector<std::string>{"toolu_A"});
    // One notification may name two tasks, one each way.
    EXPECT_EQ(after({notice("<tool-use-id>toolu_A</tool-use-id><task-id>mon2</task-id><status>killed</status>")}),
              std::vector<std::string>{});
    // Not a notification of an end, or not one Claude Code delivered.
    EXPECT_EQ(after({notice("<task-id>shA1</task-id> still going")}), both);
    EXPECT_EQ(after({notice("<task-id>shA1</task-id><status>completed</status>", "assistant")}), both);
    EXPECT_EQ(after({notice("<task-id>shA1</task-id><status>completed</status>", "api-request-blob")}), both);
    EXPECT_EQ(after({R"({"message":"<task-notification><task-id>shA1</task-id><status>done</status>"})"}), both);
    // A task id is looked up only among announced ids, never among tool-use ids, and vice versa.
    EXPECT_EQ(after({notice("<task-id>toolu_A</task-id><status>completed</status>")}), both);
    EXPECT_EQ(after({notice("<tool-use-id>shA1</tool-use-id><status>completed</status>")}), both);
    EXPECT_EQ(after({start("toolu_S", {{"task_id", "shA1"}}, "TaskStop")}), std::vector<std::string>{"toolu_B"});
    EXPECT_EQ(after({start("toolu_S", {{"task_id", "toolu_A"}}, "TaskStop")}), both);
    EXPECT_EQ(after({start("toolu_S", {{"task_id", "never-announced"}}, "TaskStop")}), both);
}

TEST(BackgroundTasks, ResultsCountOnlyForOpenTasks)
{
    // The start fell before the tail: its result and its notification are ignored.
    EXPECT_TRUE(scan({result("toolu_gone", "Command running in background with ID: x1"),
                      notice("<task-id>x1</task-id><status>completed</status>")})
                    .empty());
    // A result is read only for the task it belongs to, and a later alias replaces an earlier one.
    const auto tasks = scan({background("toolu_A", "a"), background("toolu_B", "b"),
                             result("toolu_A", "Command running in background with ID: same1"),
                             result("toolu_B", "Command running in background with ID: same1"),
                             notice("<task-id>same1</task-id><status>completed</status>")});
    EXPECT_EQ(ids(tasks), std::vector<std::string>{"toolu_A"});
    // agentId announces too; a restart under the same id replaces the task.
    EXPECT_EQ(scan({background("toolu_A", "first"), background("toolu_A", "second", "2026-03-14T12:00:00.000Z")}),
              (std::vector<Task>{{"toolu_A", at("2026-03-14T12:00:00.000Z"), "second", std::nullopt}}));
    EXPECT_TRUE(scan({background("toolu_A", "agent"), result("toolu_A", "Async agent launched.\nagentId: ag77 (internal)"),
                      notice("<task-id>ag77</task-id><status>completed</status>")})
                    .empty());
}

TEST(BackgroundTasks, ExpiryCountsFromTheStart)
{
    const auto expiry = [](const std::string& text, const char* startedAt = "2026-03-14T11:00:00.000Z") {
        const auto tasks = scan({background("toolu_A", "x", startedAt), result("toolu_A", text)});
        return tasks.at(0).expiresAt;
    };
    EXPECT_EQ(expiry("Running (expires in 5m)"), at("2026-03-14T11:05:00.000Z"));
    EXPECT_EQ(expiry("Monitor started (task m1, timeout 120000ms)"), at("2026-03-14T11:02:00.000Z"));
    EXPECT_EQ(expiry("timeout 1500ms"), at("2026-03-14T11:00:01.500Z"));
    EXPECT_EQ(expiry("timeout 120000ms, expires in 5m"), at("2026-03-14T11:05:00.000Z"));
    EXPECT_EQ(expiry("nothing said"), std::nullopt);
    // Digits too many for a number count as no minutes, so the milliseconds apply.
    EXPECT_EQ(expiry("expires in 99999999999999999999m, timeout 2000ms"), at("2026-03-14T11:00:02.000Z"));
    // A number that fits but lies beyond any writable date stays the latest one.
    EXPECT_EQ(expiry("expires in 9000000000000000000m"), at("9999-12-31T23:59:59.999999Z"));
    // Without a start stamp the task started in the distant past, and so did its expiry.
    EXPECT_EQ(expiry("expires in 5m", nullptr), distantPast() + std::chrono::minutes{5});

    // The result line's own time is not used, and a later result without expiry keeps the earlier one.
    const auto tasks = scan({background("toolu_A", "x"), result("toolu_A", "expires in 1m"), result("toolu_A", "no expiry")});
    EXPECT_EQ(tasks.at(0).expiresAt, at("2026-03-14T11:01:00.000Z"));
}

TEST(BackgroundTasks, TitleIsTheFirstLineOfDescriptionCommandOrPrompt)
{
    const auto title = [](const Json& input) {
        Json withFlag = input;
        withFlag["run_in_background"] = true;
        return scan({start("toolu_A", withFlag, "Task")}).at(0).title;
    };
    EXPECT_EQ(title({{"description", "Audit deps"}, {"command", "npm audit"}}), "Audit deps");
    EXPECT_EQ(title({{"description", ""}, {"command", "\n\r\nnpm test\nnpm run lint"}}), "npm test");
    EXPECT_EQ(title({{"description", "\n"}, {"prompt", "\u2028\u2029\u0085  Review the diff\u2028then commit"}}),
              "  Review the diff");
    EXPECT_EQ(title({{"command", "a\vb"}, {"prompt", "p"}}), "a");
    EXPECT_EQ(title({{"description", "\f"}, {"command", "\u0085"}, {"prompt", "\r\n"}}), "Background task");
    EXPECT_EQ(title(Json::object()), "Background task");
    EXPECT_EQ(title({{"description", std::string(100000, 'd')}}), std::string(100000, 'd'));
    // A line that is not valid UTF-8 is repaired before it is read.
    const std::string raw = std::string(R"({"type":"assistant","message":{"content":[{"type":"tool_use","id":"toolu_A",)") +
                            "\"name\":\"Bash\",\"input\":{\"run_in_background\":true,\"command\":\"build \xff docs\"}}]}}";
    EXPECT_EQ(scan({raw}).at(0).title, "build \xEF\xBF\xBD docs");
}

TEST(BackgroundTasks, StartsAreReadExactly)
{
    // The substring test is exact: a blank after the colon hides the start.
    EXPECT_TRUE(scan({R"({"type":"assistant","message":{"content":[{"type":"tool_use","id":"toolu_A","name":"Bash","input":{"run_in_background": true}}]}})"})
                    .empty());
    // ...unless a tool name text is also there; the flag itself is then decoded.
    EXPECT_EQ(scan({R"({"type":"assistant","message":{"content":[{"type":"tool_use","id":"toolu_A","name":"Bash","input":{"run_in_background": true}},{"type":"text","text":"x","name":"Monitor"}]}})"})
                  .size(),
              1u);
    // Only tool_use calls with an id and an input; foreground calls are no tasks.
    EXPECT_TRUE(scan({start("toolu_A", {{"run_in_background", false}, {"command", "ls"}}),
                      R"({"type":"assistant","message":{"content":[{"type":"tool_use","name":"Monitor","input":{}},{"type":"server_tool_use","id":"s1","name":"Monitor","input":{}},{"type":"tool_use","id":"t1","name":"Monitor"}]}})"})
                    .empty());
    // Not an assistant line, or a line that does not decode: no start.
    EXPECT_TRUE(scan({R"({"type":"user","message":{"content":[{"type":"tool_use","id":"toolu_A","name":"Monitor","input":{}}]}})",
                      R"({"message":{"content":[{"type":"tool_use","id":"toolu_A","name":"Monitor","input":{}}]}})",
                      R"({"type":"assistant","message":{"content":{"type":"tool_use","id":"toolu_A","name":"Monitor","input":{}}}})",
                      R"({"type":"assistant","message":{"content":[{"type":"tool_use","id":"toolu_A","name":"Monitor","input":{}},{"type":"tool_use","id":3}]}})",
                      R"({"type":"assistant","message":{"content":[{"type":"tool_use","id":"toolu_A","name":"Monitor","input":{"run_in_background":"yes"}}]}})",
                      R"({"type":"assistant","message":{"content":[{"type":"tool_use","id":"toolu_A","name":"Monitor","input":{}}]})"})
                    .empty());
    // A user line that merely carries the marker is still read as the result it is.
    const std::string resultWithMarker =
        R"({"type":"user","message":{"content":[{"tool_use_id":"toolu_A","type":"tool_result","content":"Command running in background with ID: q9"}]},"toolUseResult":{"input":{"run_in_background":true}}})";
    EXPECT_TRUE(scan({background("toolu_A", "x"), resultWithMarker, notice("<task-id>q9</task-id><status>done</status>")})
                    .empty());
}

TEST(BackgroundTasks, OldestStartFirst)
{
    const auto tasks = scan({background("toolu_C", "c", "2026-03-14T11:00:03.000Z"),
                             background("toolu_A", "a", "2026-03-14T11:00:01.000Z"),
                             background("toolu_B", "b", nullptr),
                             background("toolu_D", "d", "2026-03-14T11:00:02+01:00")});
    // No stamp, and a stamp without fractional seconds, both start in the distant past (in either order).
    ASSERT_EQ(tasks.size(), 4u);
    EXPECT_EQ(std::set<std::string>({tasks[0].id, tasks[1].id}), (std::set<std::string>{"toolu_B", "toolu_D"}));
    EXPECT_EQ(tasks[0].startedAt, distantPast());
    EXPECT_EQ(tasks[1].startedAt, distantPast());
    EXPECT_EQ(tasks[2].id, "toolu_A");
    EXPECT_EQ(tasks[3].id, "toolu_C");
    EXPECT_TRUE(scan({}).empty());
}

TEST(BackgroundTasks, BadLinesAreSkippedAndTheRestStillRead)
{
    const std::string huge(2 << 20, 'y');
    const auto tasks = scan({"\xff\xfe\"run_in_background\":true\x80<task-notification><status>",
                             "{\"tool_result\" " + huge,
                             background("toolu_A", "kept"),
                             R"({"type":"assistant","message":"str","id":3,"timestamp":7,"name":"Monitor"})",
                             R"({"type":5,"message":{"content":5},"name":"TaskStop"})",
                             result("toolu_A", "\"tool_use_id\":\"" + std::string(100000, 'z') + "\" with ID: " + huge),
                             notice("<task-id>" + std::string(100000, 'z') + "</task-id><status>done</status>")});
    EXPECT_EQ(ids(tasks), std::vector<std::string>{"toolu_A"});
}
