#include "TrackerCore/Session.h"

#include "TrackerCore/Text.h"

namespace skeldrin {

std::string_view rawValue(Status status)
{
    switch (status) {
    case Status::running: return "running";
    case Status::ready: return "ready";
    case Status::waiting: return "waiting";
    case Status::multiStepWaiting: return "multiStepWaiting";
    }
    return "running";
}

std::optional<Status> statusFromRawValue(std::string_view raw)
{
    for (const Status status : allStatuses)
        if (rawValue(status) == raw) return status;
    return std::nullopt;
}

std::string_view label(Status status)
{
    switch (status) {
    case Status::running: return "Running";
    case Status::ready: return "Ready";
    case Status::waiting: return "Needs approval";
    case Status::multiStepWaiting: return "Needs several approvals";
    }
    return "Running";
}

std::string_view rawValue(Phase phase) { return phase == Phase::running ? "running" : "idle"; }

Session::Session(std::string id_, std::string agent_, std::string cwd_, Origin origin_,
                 std::optional<ProcessRef> process_, Date now)
    : id(std::move(id_))
    , agent(std::move(agent_))
    , cwd(std::move(cwd_))
    , openPrompts(std::vector<std::string>{})
    , origin(std::move(origin_))
    , process(process_)
    , startedAt(now)
    , changedAt(now)
{
}

Status Session::status() const
{
    if (pendingApprovals < 1) return phase == Phase::running ? Status::running : Status::ready;
    if (!(pendingApprovals == 1 && approvalsThisTurn < 2)) return Status::multiStepWaiting;
    return multiStepInput ? Status::multiStepWaiting : Status::waiting;
}

bool Session::isBackground() const
{
    if (parentId) return true;
    return origin.entrypoint && origin.entrypoint->starts_with("sdk-");
}

bool Session::outlivesItsProcess() const
{
    if (parentId || !origin.entrypoint) return false;
    const std::string& entrypoint = *origin.entrypoint;
    if (entrypoint.starts_with("sdk-")) return false;
    if (entrypoint == "claude-desktop") return origin.hostSessionId.has_value();
    return entrypoint == "claude-vscode";
}

std::string Session::projectName() const { return text::lastPathComponent(origin.projectDir.value_or(cwd)); }

namespace {

void putString(Json& object, const char* key, const std::optional<std::string>& value)
{
    if (value) object[key] = *value;
}

void putDate(Json& object, const char* key, const std::optional<Date>& value)
{
    if (value) object[key] = formatIso8601(*value);
}

std::optional<Date> optionalDate(const Json& object, const char* key)
{
    const auto text = json_field::optionalString(object, key);
    if (!text) return std::nullopt;
    const auto date = parseIso8601(*text);
    if (!date) throw DecodingError(std::string("\"") + key + "\" is not an ISO 8601 date: " + *text);
    // Session files hold milliseconds; finer digits written by hand are dropped, as writing would drop
    // them, so that a record reads back as it was written.
    return Date{std::chrono::floor<std::chrono::milliseconds>(*date)};
}

Date requiredDate(const Json& object, const char* key)
{
    const auto date = optionalDate(object, key);
    if (!date) throw DecodingError(std::string("\"") + key + "\" is missing");
    return *date;
}

} // namespace

Json toJson(const Session& s)
{
    Json object = Json::object();
    object["id"] = s.id;
    object["agent"] = s.agent;
    object["cwd"] = s.cwd;
    putString(object, "title", s.title);
    putString(object, "lastPrompt", s.lastPrompt);
    object["phase"] = rawValue(s.phase);
    object["pendingApprovals"] = s.pendingApprovals;
    object["approvalsThisTurn"] = s.approvalsThisTurn;
    object["multiStepInput"] = s.multiStepInput;
    putString(object, "waitingFor", s.waitingFor);
    if (s.openPrompts) object["openPrompts"] = *s.openPrompts;
    putString(object, "transcriptPath", s.transcriptPath);
    object["origin"] = toJson(s.origin);
    if (s.process) object["process"] = toJson(*s.process);
    object["startedAt"] = formatIso8601(s.startedAt);
    object["changedAt"] = formatIso8601(s.changedAt);
    putDate(object, "dismissedAt", s.dismissedAt);
    putDate(object, "seenAt", s.seenAt);
    putDate(object, "endedAt", s.endedAt);
    putString(object, "parentId", s.parentId);
    putString(object, "headline", s.headline);
    putString(object, "headlinePrompt", s.headlinePrompt);
    return object;
}

Session sessionFromJson(const Json& json)
{
    using namespace json_field;
    expectObject(json, "session");
    Session s;
    s.id = requiredString(json, "id");
    s.agent = requiredString(json, "agent");
    s.cwd = requiredString(json, "cwd");
    s.title = optionalString(json, "title");
    s.lastPrompt = optionalString(json, "lastPrompt");
    const std::string phase = requiredString(json, "phase");
    if (phase == "idle")
        s.phase = Phase::idle;
    else if (phase == "running")
        s.phase = Phase::running;
    else
        throw DecodingError("\"phase\" is neither idle nor running: " + phase);
    s.pendingApprovals = requiredInt64(json, "pendingApprovals");
    s.approvalsThisTurn = requiredInt64(json, "approvalsThisTurn");
    s.multiStepInput = requiredBool(json, "multiStepInput");
    s.waitingFor = optionalString(json, "waitingFor");
    s.openPrompts = optionalStringArray(json, "openPrompts");
    s.transcriptPath = optionalString(json, "transcriptPath");
    s.origin = originFromJson(requiredObject(json, "origin"));
    if (const auto it = json.find("process"); it != json.end() && !it->is_null())
        s.process = processRefFromJson(*it);
    s.startedAt = requiredDate(json, "startedAt");
    s.changedAt = requiredDate(json, "changedAt");
    s.dismissedAt = optionalDate(json, "dismissedAt");
    s.seenAt = optionalDate(json, "seenAt");
    s.endedAt = optionalDate(json, "endedAt");
    s.parentId = optionalString(json, "parentId");
    s.headline = optionalString(json, "headline");
    s.headlinePrompt = optionalString(json, "headlinePrompt");
    return s;
}

std::string encodeSession(const Session& session) { return encodePretty(toJson(session)) + "\n"; }

Session decodeSession(std::string_view bytes) { return sessionFromJson(parseJson(bytes)); }

} // namespace skeldrin
