#pragma once
// The command-line front end: `skeldrin status`, `watch`, `connect`, `disconnect`, `hooks`, `transcript`.
#include "Skeldrin/model/RowText.h"
#include "Skeldrin/model/SessionsModel.h"
#include "TrackerCore/Date.h"
#include "TrackerCore/Json.h"
#include "TrackerCore/TranscriptTail.h"

#include <QStringList>
#include <optional>
#include <string>

namespace skeldrin::cli {

// Runs one command (arguments as QCoreApplication::arguments() gives them, program first) and returns
// the exit status: 0 done, 1 failed, 2 not understood. Needs a QCoreApplication.
int run(const QStringList& arguments);

// How the table for people is drawn.
struct TableStyle {
    bool color = false;        // ANSI colours on the status words
    std::optional<int> width;  // terminal columns: the prompt is cut to fit; none: never cut
};

// The listed sessions as aligned columns, with a summary line first.
std::string statusTable(const SessionsModel& model, Date now, const TableStyle& style);
// {"mostUrgent", "sessions": [row, ...]}
Json statusJson(const SessionsModel& model);
// {"title", "interruptedAt", "runningBackgroundTasks": [...]}
Json transcriptJson(const TranscriptTail& tail);

using skeldrin::elapsed;
using skeldrin::place;
using skeldrin::statusWord;

} // namespace skeldrin::cli
