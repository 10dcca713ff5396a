#pragma once
// The words a session row says, shared by the widget, the hover bar and the command line.
#include "Skeldrin/model/SessionsModel.h"
#include "TrackerCore/Date.h"

#include <string>

namespace skeldrin {

// Where an entry runs, as the hover bar says it.
std::string place(const SessionsModel& model, const ListedSession& entry);
// The status word of a row.
std::string statusWord(const ListedSession& entry);
// "now", "7m", "3h", "2d".
std::string elapsed(Date since, Date now);

} // namespace skeldrin
