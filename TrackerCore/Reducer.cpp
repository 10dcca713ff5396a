#include "TrackerCore/Reducer.h"

#include "TrackerCore/Text.h"

#include <algorithm>
#include <cstdlib>

namespace skeldrin::Reducer {
namespace {

bool isQuestionTool(const std::optional<std::string>& tool)
{
    return tool == "AskUserQuestion" || tool == "ExitPlanMode";
}

std::int64_t incremented(std::int64_t value)
{
    // A counter that overflows means the record is corrupt beyond repair; stop rather than wrap.
    if (value == INT64_MAX) std::abort();
    return value + 1;
}

void resetPrompts(Session& s)
{
    s.pendingApprovals = 0;
    s.multiStepInput = false;
    s.waitingFor.reset();
    s.openPrompts = std::vector<std::string>{};
}

void keepPrompts(Session& s, std::vector<std::string> remaining)
{
    if (remaining.empty()) return resetPrompts(s);
    s.pendingApprovals = static_cast<std::int64_t>(remaining.size());
    s.openPrompts = std::move(remaining);
}

void opening(Session& s, std::string key)
{
    std::vector<std::string> prompts = s.openPrompts.value_or(std::vector<std::string>{});
    prompts.push_back(std::move(key));
    keepPrompts(s, std::move(prompts));
}

// Removes the first entry equal to key; false when there is none.
bool removeFirst(std::vector<std::string>& prompts, const std::string& key)
{
    const auto it = std::find(prompts.begin(), prompts.end(), key);
    if (it == prompts.end()) return false;
    prompts.erase(it);
    return true;
}

void toolFinished(Session& s, const HookEvent& event)
{
    if (!s.openPrompts) return resetPrompts(s);
    std::vector<std::string> prompts = *s.openPrompts;
    const std::optional<std::string> callKey =
        event.toolUseId ? std::optional<std::string>("call:" + *event.toolUseId) : std::nullopt;
    const bool hadCall = callKey && std::find(prompts.begin(), prompts.end(), *callKey) != prompts.end();
    std::erase_if(prompts, [&](const std::string& p) { return p == "any" || (callKey && p == *callKey); });
    removeFirst(prompts, "tool:" + describe(event.toolName, event.toolInput).value_or(""));
    if (prompts.empty()) return resetPrompts(s);
    keepPrompts(s, std::move(prompts));
    if (hadCall) s.multiStepInput = false;
}

void questionPrompt(Session& s, const HookEvent& event)
{
    std::size_t n = 1;
    if (event.toolInput && event.toolInput->questions) n = event.toolInput->questions->size();
    s.pendingApprovals = std::max<std::int64_t>(s.pendingApprovals, 1);
    if (event.toolName == "ExitPlanMode") {
        s.multiStepInput = true;
        s.waitingFor = "Plan approval";
    } else {
        s.multiStepInput = n >= 2;
        s.waitingFor = n >= 2 ? std::to_string(n) + " questions" : "Question";
    }
}

void permissionRequest(Session& s, const HookEvent& event)
{
    s.phase = Phase::running;
    const auto description = describe(event.toolName, event.toolInput);
    if (isQuestionTool(event.toolName)) {
        questionPrompt(s, event);
        const auto& prompts = s.openPrompts.value_or(std::vector<std::string>{});
        const bool openedByPreToolUse = std::any_of(prompts.begin(), prompts.end(), [](const std::string& p) {
            return p.starts_with("call:") || p == "any";
        });
        if (!openedByPreToolUse) opening(s, "tool:" + description.value_or(""));
        return;
    }
    s.approvalsThisTurn = incremented(s.approvalsThisTurn);
    s.waitingFor = description;
    opening(s, "tool:" + description.value_or(""));
}

void notification(Session& s, const HookEvent& event)
{
    if (!event.notificationType) return;
    const std::string& type = *event.notificationType;
    if (type == "permission_prompt") {
        if (s.pendingApprovals != 0) return; // the request is already counted
        opening(s, "any");
        s.approvalsThisTurn = incremented(s.approvalsThisTurn);
        s.waitingFor = event.message;
    } else if (type == "elicitation_dialog") {
        if (s.pendingApprovals == 0) opening(s, "any");
        s.waitingFor = event.message;
    } else if (type == "idle_prompt") {
        if (s.pendingApprovals == 0) s.phase = Phase::idle;
    }
}

void permissionDenied(Session& s, const HookEvent& event)
{
    if (!s.openPrompts) {
        s.pendingApprovals = std::max<std::int64_t>(s.pendingApprovals - 1, 0);
        if (s.pendingApprovals == 0) resetPrompts(s);
        return;
    }
    std::vector<std::string> prompts = *s.openPrompts;
    if (removeFirst(prompts, "tool:" + describe(event.toolName, event.toolInput).value_or("")))
        keepPrompts(s, std::move(prompts));
}

void transition(Session& s, const HookEvent& event)
{
    const std::string& name = event.name;
    if (name == "SessionStart") {
        if (event.sessionTitle) s.title = event.sessionTitle;
    } else if (name == "UserPromptSubmit") {
        resetPrompts(s);
        s.approvalsThisTurn = 0;
        s.phase = Phase::running;
        const bool fromUser = !event.source || *event.source == "user";
        if (fromUser && event.prompt) s.lastPrompt = summarize(*event.prompt);
    } else if (name == "PreToolUse") {
        s.phase = Phase::running;
        if (isQuestionTool(event.toolName)) {
            questionPrompt(s, event);
            opening(s, event.toolUseId ? "call:" + *event.toolUseId : "any");
        }
    } else if (name == "PermissionRequest") {
        permissionRequest(s, event);
    } else if (name == "Notification") {
        notification(s, event);
    } else if (name == "PostToolUse") {
        toolFinished(s, event);
        s.phase = Phase::running;
    } else if (name == "PostToolUseFailure") {
        if (event.isInterrupt.value_or(false)) {
            resetPrompts(s);
            s.phase = Phase::idle;
        } else {
            toolFinished(s, event);
            s.phase = Phase::running;
        }
    } else if (name == "PermissionDenied") {
        permissionDenied(s, event);
    } else if (name == "Stop" || name == "StopFailure") {
        resetPrompts(s);
        s.phase = Phase::idle;
        s.approvalsThisTurn = 0;
    }
}

} // namespace

std::string summarize(std::string_view input)
{
    const auto lines = text::nonEmptyLines(text::trimmed(input));
    if (lines.empty()) return {};
    const std::string& first = lines.front();
    if (text::characterCount(first) <= 120) return first;
    return text::characterPrefix(first, 119) + "\u2026";
}

std::optional<std::string> describe(const std::optional<std::string>& tool,
                                    const std::optional<HookEvent::ToolInput>& input)
{
    if (!tool) return std::nullopt;
    if (!input) return *tool;
    if (input->command) return *tool + ": " + summarize(*input->command);
    if (input->filePath) return *tool + ": " + summarize(text::lastPathComponent(*input->filePath));
    return *tool;
}

std::optional<Session> apply(const HookEvent& event, const std::optional<Session>& current,
                             const HookContext& context, Date now)
{
    if (event.name == "SessionEnd") {
        if (!current) return std::nullopt;
        const bool clearedOrLoggedOut = event.reason == "clear" || event.reason == "logout";
        if (current->outlivesItsProcess() && !clearedOrLoggedOut) return processEnded(*current, now);
        return std::nullopt;
    }

    const bool created = !current;
    Session s = created ? Session(event.sessionId, "claude", event.cwd.value_or(""), context.origin,
                                  context.process, now)
                        : *current;
    const Status oldStatus = s.status();

    s.origin = context.origin;
    if (context.process) s.process = context.process;
    s.endedAt.reset();
    if (context.inheritedSessionId && *context.inheritedSessionId != s.id) s.parentId = context.inheritedSessionId;
    if (event.cwd) s.cwd = *event.cwd;
    if (event.transcriptPath) s.transcriptPath = event.transcriptPath;

    transition(s, event);

    if (created || s.status() != oldStatus) {
        s.changedAt = now;
        s.dismissedAt.reset();
        s.seenAt.reset();
    }
    return s;
}

Session seen(Session session, Date at)
{
    session.seenAt = at;
    return session;
}

Session dismissed(Session session, Date at)
{
    session.dismissedAt = at;
    return session;
}

Session interrupted(Session session, Date at)
{
    resetPrompts(session);
    session.phase = Phase::idle;
    session.approvalsThisTurn = 0;
    session.changedAt = at;
    session.dismissedAt.reset();
    session.seenAt.reset();
    return session;
}

Session processEnded(Session session, Date at)
{
    if (session.status() != Status::ready) session = interrupted(std::move(session), at);
    session.process.reset();
    session.endedAt = at;
    return session;
}

} // namespace skeldrin::Reducer
