#include "TrackerCore/Reducer.h"

#include <gtest/gtest.h>

using namespace skeldrin;
using namespace std::chrono;

namespace {

const auto at = [](int s) { return Date{sys_days{2026y / March / 14}} + seconds{s}; };
const auto bash = [](const char* command) {
    return Json{{"tool_name", "Bash"}, {"tool_input", {{"command", command}}}};
};
const auto notification = [](const char* type, const char* message = "m") {
    return Json{{"notification_type", type}, {"message", message}};
};

const auto event = [](std::string name, Json extra = Json::object()) {
    extra["hook_event_name"] = std::move(name);
    extra["session_id"] = "s1";
    return HookEvent::fromJson(extra);
};

const HookContext kContext{{}, ProcessRef{100, 1.5}, {}};

// Applies events in order, one second apart, to a session that is expected to stay.
Session run(std::initializer_list<HookEvent> events, std::optional<Session> start = std::nullopt)
{
    int t = 0;
    for (const auto& e : events) {
        start = Reducer::apply(e, start, kContext, at(++t));
        if (!start) throw std::runtime_error("session removed");
    }
    return *start;
}

} // namespace

TEST(Reducer, SessionsStartReviveAndEndByTheirOrigin)
{
    HookContext c{{}, kContext.process, "parent"};
    auto life = Reducer::apply(
        event("SessionStart", {{"cwd", "/w"}, {"transcript_path", "/t.jsonl"}, {"session_title", "T"}}),
        std::nullopt, c, at(1));
    Session expected("s1", "claude", "/w", c.origin, c.process, at(1));
    expected.transcriptPath = "/t.jsonl";
    expected.title = "T";
    expected.parentId = "parent";
    EXPECT_EQ(life, expected);

    // Own id is never its own parent; an absent process keeps the known one; any event revives.
    c.inheritedSessionId = "s1";
    c.process.reset();
    life->endedAt = at(2);
    life = Reducer::apply(event("Notification"), life, c, at(3));
    EXPECT_EQ(life->parentId, "parent");
    EXPECT_EQ(life->process, kContext.process);
    EXPECT_FALSE(life->endedAt);
    EXPECT_FALSE(Reducer::apply(event("SessionEnd", {{"reason", "other"}}), life, c, at(4))); // CLI session

    // An editor's session outlives its process, unless it was cleared.
    life->parentId.reset();
    life->origin.entrypoint = "claude-vscode";
    life->phase = Phase::running;
    EXPECT_EQ(Reducer::apply(event("SessionEnd", {{"reason", "prompt_input_exit"}}), life, c, at(5)),
              Reducer::processEnded(*life, at(5)));
    EXPECT_FALSE(Reducer::apply(event("SessionEnd", {{"reason", "clear"}}), life, c, at(5)));
}

TEST(Reducer, ApprovalsCountAndCloseWithinATurn)
{
    // Requests count and close; a prompt is kept as its first line, trimmed, cut to 120 characters.
    Session s = run({event("UserPromptSubmit", {{"prompt", "  " + std::string(121, 'a') + "\nplease"}}),
                     event("UserPromptSubmit", {{"prompt", "from a hook"}, {"source", "resume"}}),
                     event("PermissionRequest", bash("ls")), event("PermissionRequest", bash("ls"))});
    EXPECT_EQ(s.lastPrompt, std::string(119, 'a') + "\u2026");
    EXPECT_EQ(s.openPrompts, (std::vector<std::string>{"tool:Bash: ls", "tool:Bash: ls"}));
    EXPECT_EQ(s.pendingApprovals, 2);
    EXPECT_EQ(s.waitingFor, "Bash: ls");
    EXPECT_EQ(s.status(), Status::multiStepWaiting);

    s = run({event("PostToolUse", bash("ls")), event("PermissionDenied", bash("rm -rf /"))}, s); // not open
    EXPECT_EQ(s.openPrompts, std::vector<std::string>{"tool:Bash: ls"});
    EXPECT_EQ(s.status(), Status::multiStepWaiting); // second approval this turn
    s = run({event("PermissionDenied", bash("ls"))}, s);
    EXPECT_FALSE(s.waitingFor);
    EXPECT_EQ(s.status(), Status::running);

    s = run({event("PermissionRequest", bash("ls")), event("Stop")}, s);
    EXPECT_EQ(s.approvalsThisTurn, 0);
    EXPECT_EQ(s.status(), Status::ready);

    s = run(
        {event("PermissionRequest", {{"tool_name", "Edit"}, {"tool_input", {{"file_path", "/src/m.c"}}}})},
        s);
    EXPECT_EQ(s.waitingFor, "Edit: m.c"); // a file tool is described by its file's name
}

TEST(Reducer, OnlyAStatusChangeTouchesTheTimes)
{
    const Json edit = {{"tool_name", "Edit"}, {"tool_input", {{"file_path", "/src/m.c"}}}};
    Session s = run({event("UserPromptSubmit"), event("PermissionRequest", edit)});
    s.seenAt = s.dismissedAt = at(50);
    const Session before = s;
    s = *Reducer::apply(event("PreToolUse", bash("ls")), s, kContext, at(60)); // still waiting
    EXPECT_EQ(s, before);

    const Session ended = Reducer::processEnded(s, at(70)); // interrupted too
    EXPECT_EQ(ended.status(), Status::ready);
    EXPECT_TRUE(ended.changedAt == at(70) && ended.endedAt == at(70));
    EXPECT_FALSE(ended.process || ended.seenAt || ended.dismissedAt);

    s = *Reducer::apply(event("Stop"), s, kContext, at(80));
    EXPECT_EQ(s.changedAt, at(80));
    EXPECT_FALSE(s.seenAt || s.dismissedAt);
    s.seenAt = at(85);
    const Session endedReady = Reducer::processEnded(s, at(90)); // a ready one is not interrupted
    EXPECT_TRUE(endedReady.seenAt == at(85) && endedReady.changedAt == at(80));
}

TEST(Reducer, QuestionsAndNotificationsOpenPromptsThatToolsAndFailuresClose)
{
    // Questions open one prompt per call.
    const Json ask = {{"tool_name", "AskUserQuestion"},
                      {"tool_use_id", "t1"},
                      {"tool_input", {{"questions", {Json::object(), Json::object()}}}}};
    Session s = run({event("UserPromptSubmit"), event("PreToolUse", ask), event("PermissionRequest", ask)});
    EXPECT_EQ(s.openPrompts, std::vector<std::string>{"call:t1"});
    EXPECT_EQ(s.waitingFor, "2 questions");
    EXPECT_EQ(s.status(), Status::multiStepWaiting);

    // One question without an id opens "any"; a plan approval is multi-step.
    s = run({event("PostToolUse", ask), event("PreToolUse", {{"tool_name", "AskUserQuestion"}})}, s);
    EXPECT_EQ(s.openPrompts, std::vector<std::string>{"any"});
    EXPECT_EQ(s.waitingFor, "Question");
    EXPECT_EQ(s.status(), Status::waiting);
    s = run({event("Stop"), event("PermissionRequest", {{"tool_name", "ExitPlanMode"}})}, s);
    EXPECT_EQ(s.waitingFor, "Plan approval");
    EXPECT_EQ(s.status(), Status::multiStepWaiting);

    // Finishing the call keeps other prompts open but ends the multi-step input.
    s = run({event("PreToolUse", ask), event("PostToolUse", ask)}, s);
    EXPECT_EQ(s.openPrompts, std::vector<std::string>{"tool:ExitPlanMode"});
    EXPECT_FALSE(s.multiStepInput);

    // Notifications open prompts only when none is counted.
    s = run({event("UserPromptSubmit"), event("PermissionRequest", bash("ls")),
             event("Notification", notification("elicitation_dialog"))});
    EXPECT_EQ(s.openPrompts, std::vector<std::string>{"tool:Bash: ls"});

    s = run({event("UserPromptSubmit"), event("Notification", notification("permission_prompt", "Allow?"))},
            s);
    EXPECT_EQ(s.openPrompts, std::vector<std::string>{"any"});
    EXPECT_EQ(s.waitingFor, "Allow?");
    EXPECT_EQ(s.status(), Status::waiting);

    s = run({event("Notification", notification("idle_prompt"))}, s);
    EXPECT_EQ(s.phase, Phase::running); // a prompt is open: not idle
    s = run({event("PostToolUse", bash("whatever")), event("Notification", notification("idle_prompt"))}, s);
    EXPECT_EQ(s.pendingApprovals, 0); // "any" closes with any tool
    EXPECT_EQ(s.phase, Phase::idle);
    // An interrupt ends the turn, any other failure closes the tool.
    s = run({event("UserPromptSubmit"), event("PermissionRequest", bash("make")),
             event("PostToolUseFailure", bash("make"))});
    EXPECT_EQ(s.pendingApprovals, 0);
    EXPECT_EQ(s.phase, Phase::running);
    s = run({event("PermissionRequest", bash("make")), event("PostToolUseFailure", {{"is_interrupt", true}})},
            s);
    EXPECT_EQ(s.status(), Status::ready);

    // Without open prompts, a finished tool clears the count; a denial counts one down, to none at most.
    for (const auto& [close, pending] :
         {std::pair{"PostToolUse", 3}, {"PermissionDenied", 1}, {"PermissionDenied", 0}}) {
        s.openPrompts.reset();
        s.pendingApprovals = pending;
        s = run({event(close)}, s);
        EXPECT_EQ(s.pendingApprovals, 0) << close;
        EXPECT_EQ(s.openPrompts, std::vector<std::string>{}) << close;
    }
}
