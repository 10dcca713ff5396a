#include "TrackerCore/Date.h"
#include "TrackerCore/Editor.h"
#include "TrackerCore/Session.h"

#include <gtest/gtest.h>

using namespace skeldrin;
using namespace std::chrono;

namespace {

const auto at = [](int s, int micros = 0) {
    return Date{sys_days{2026y / March / 14}} + seconds{s} + microseconds{micros};
};

Session sample()
{
    Session s("abc-123", "claude", "/Users/ana/src/app/sub", {}, ProcessRef{4242, 1773480000.25}, at(0));
    s.origin.termProgram = "iTerm.app";
    s.title = s.headline = "Fix the login";
    s.transcriptPath = "/Users/ana/.claude/projects/x/abc-123.jsonl";
    s.seenAt = at(5, 123000);
    return s;
}

} // namespace

TEST(SessionTest, StatusAppAndProjectAreDerived)
{
    const Origin o({{"CLAUDE_CODE_ENTRYPOINT", "claude-vscode"},
                    {"__CFBundleIdentifier", "com.todesktop.230313mzl4w4u92"},
                    {"TERM_PROGRAM", ""},
                    {"UNRELATED", "x"}},
                   "/dev/ttys001");
    EXPECT_EQ(o.termProgram, ""); // an empty value is kept
    EXPECT_EQ(o.tty, "/dev/ttys001");
    EXPECT_EQ(o.appName(), "Cursor");
    Session s("x", "claude", "/work/proj/", o, std::nullopt, at(0));
    EXPECT_EQ(s.projectName(), "proj");
    EXPECT_TRUE(s.outlivesItsProcess() && !s.isBackground()); // an editor's session

    s.phase = Phase::running;
    s.pendingApprovals = -3; // counts as none
    EXPECT_EQ(s.status(), Status::running);
    s.pendingApprovals = 1;
    s.phase = Phase::idle; // an open prompt waits, in a turn or not
    EXPECT_EQ(s.status(), Status::waiting);
    s.approvalsThisTurn = 2;
    EXPECT_EQ(s.status(), Status::multiStepWaiting);
    EXPECT_EQ(statusFromRawValue("multiStepWaiting"), Status::multiStepWaiting);
    EXPECT_FALSE(statusFromRawValue("Ready"));

    Origin desktop;
    desktop.termProgram = "vscode";
    EXPECT_EQ(desktop.appName(), "VS Code");
    desktop.entrypoint = "claude-desktop";
    EXPECT_EQ(desktop.appName(), "Claude");
    EXPECT_EQ(Editor(std::optional<std::string>("com.microsoft.vscode")).bundleId, "com.microsoft.VSCode");
}

TEST(SessionTest, FileFormatHasSortedKeysNoNullsAndStrictTypes)
{
    // Encoded with sorted keys and no nulls; decoding enforces the required keys and types.
    const std::string text = encodeSession(sample());
    EXPECT_EQ(decodeSession(text), sample());
    EXPECT_EQ(text.find("\\/"), std::string::npos); // slashes are not escaped
    EXPECT_EQ(text.find("null"), std::string::npos);
    EXPECT_LT(text.find("\"agent\""), text.find("\"approvalsThisTurn\""));

    const Json good = toJson(sample());
    for (const char* key : {"id", "agent", "cwd", "phase", "pendingApprovals", "approvalsThisTurn",
                            "multiStepInput", "origin", "startedAt", "changedAt"}) {
        Json missing = good;
        missing.erase(key);
        EXPECT_THROW(sessionFromJson(missing), DecodingError) << key;
    }
    const std::pair<const char*, Json> wrong[] = {
        {"phase", "paused"},     {"pendingApprovals", 1.5}, {"title", false},
        {"openPrompts", {1, 2}}, {"process", {{"pid", 1}}}, {"startedAt", "2026-03-14T00:00:00Z"}};
    for (const auto& [key, value] : wrong) {
        Json bad = good;
        bad[key] = value;
        EXPECT_THROW(sessionFromJson(bad), DecodingError) << key << " = " << value.dump();
    }
    Json extra = good; // unknown keys are skipped, a null is absent
    extra["somethingNew"] = {1, 2, 3};
    extra["headline"] = nullptr;
    extra.erase("openPrompts"); // absent, which differs from empty
    Session expected = sample();
    expected.headline.reset();
    expected.openPrompts.reset();
    EXPECT_EQ(sessionFromJson(extra), expected);
    EXPECT_THROW(decodeSession("[]"), DecodingError);
}

TEST(Dates, FormatAndParseTheFixedForm)
{
    // Dates are written with milliseconds, truncated.
    EXPECT_EQ(formatIso8601(at(53, 589999) + hours{9} + minutes{26}), "2026-03-14T09:26:53.589Z");
    EXPECT_EQ(formatIso8601(distantPast()), "0001-01-01T00:00:00.000Z");
    EXPECT_EQ(parseIso8601("2026-03-14T00:00:01.5Z"), at(1, 500000));
    EXPECT_EQ(parseIso8601("2026-03-14T02:00:00.000+02:00"), at(0));
    EXPECT_EQ(parseIso8601("2026-03-14T00:00:00.123456789Z"), at(0, 123456));
    // Fractional seconds are required; anything malformed gives nothing.
    for (const char* bad : {"2026-03-14T00:00:00Z", "2026-03-14 00:00:00.000Z", "2026-02-30T00:00:00.000Z",
                            "2026-03-14T24:00:00.000Z", "2026-03-14T00:00:00.000",
                            "2026-03-14T00:00:00.000Zx", "", "20260314T000000.000Z", "2026-03-14T00:00:00.Z"})
        EXPECT_FALSE(parseIso8601(bad)) << bad;
}
