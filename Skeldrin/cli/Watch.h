#pragma once
#include "Skeldrin/model/SessionsModel.h"

#include <functional>
#include <string>

namespace skeldrin::cli {

// Starts the model and prints render() again whenever it changes, and every 15 seconds so that the
// elapsed times stay right, until SIGINT or SIGTERM. On a terminal each drawing replaces the last one.
// Returns the exit status.
int watch(SessionsModel& model, const std::function<std::string()>& render, bool terminal);

} // namespace skeldrin::cli
