#pragma once
#include "Skeldrin/model/Seams.h"

#include <memory>

namespace skeldrin {

// The platform's jumper: brings forward the terminal tab, pane, editor or app where a session runs.
std::unique_ptr<Jumper> makeSystemJumper();

// Runs the event loop until work a jump left for later (an editor's deep link) is done, for callers
// that exit right after jumping.
void waitForDeferredJumps();

// Jumpers count the work they leave on the event loop, so that waitForDeferredJumps knows its end.
void beginDeferredJump();
void endDeferredJump();

} // namespace skeldrin
