#include "Skeldrin/model/SessionList.h"

#include <map>
#include <unordered_set>

namespace skeldrin {

std::string_view Shade::rawValue() const
{
    return kind == Kind::waitingOnRuns ? "waitingOnRuns" : skeldrin::rawValue(status);
}

std::string_view rawValue(ListedSession::Role role)
{
    switch (role) {
    case ListedSession::Role::main: return "main";
    case ListedSession::Role::child: return "child";
    case ListedSession::Role::detached: return "detached";
    }
    return "main";
}

namespace SessionList {
namespace {

bool isSdk(const Session& s) { return s.origin.entrypoint && s.origin.entrypoint->starts_with("sdk-"); }

struct Arranger {
    const std::set<std::string>& folded;
    std::map<std::string, std::vector<const Session*>> children;
    std::unordered_set<std::string> placed;
    std::vector<ListedSession> result;

    void place(const Session& s, ListedSession::Role role)
    {
        if (s.dismissedAt) return;
        if (!placed.insert(s.id).second) return;
        static const std::vector<const Session*> none;
        const auto it = children.find(s.id);
        const auto& kids = it == children.end() ? none : it->second;

        const Status status = s.status();
        const bool kidsBusy =
            std::any_of(kids.begin(), kids.end(), [](const Session* k) { return k->status() != Status::ready; });
        const Shade shade = status == Status::ready && kidsBusy ? Shade::waitingOnRuns() : Shade::of(status);
        const bool isFolded = folded.count(s.id) > 0;
        const auto visibleKids =
            std::count_if(kids.begin(), kids.end(), [](const Session* k) { return !k->dismissedAt; });
        result.push_back(ListedSession{s, role, shade, static_cast<int>(visibleKids), isFolded});
        if (isFolded) return;
        for (const Session* kid : kids) place(*kid, ListedSession::Role::child);
    }
};

} // namespace

std::vector<ListedSession> arrange(const std::vector<Session>& sessions, const std::set<std::string>& folded)
{
    std::unordered_set<std::string> ids;
    for (const auto& s : sessions) ids.insert(s.id);

    Arranger arranger{folded, {}, {}, {}};
    arranger.result.reserve(sessions.size()); // a growing vector would copy every session it holds
    for (const auto& s : sessions)
        if (s.parentId && ids.count(*s.parentId)) arranger.children[*s.parentId].push_back(&s);

    for (const auto& s : sessions)
        if (!s.parentId && !isSdk(s)) arranger.place(s, ListedSession::Role::main);
    for (const auto& s : sessions)
        if ((!s.parentId && isSdk(s)) || (s.parentId && !ids.count(*s.parentId)))
            arranger.place(s, ListedSession::Role::detached);
    return std::move(arranger.result);
}

} // namespace SessionList
} // namespace skeldrin
