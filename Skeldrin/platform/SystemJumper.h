#pragma once
#include "Skeldrin/model/Seams.h"

#include <memory>

namespace skeldrin {

// The platform's jumper: brings forward the terminal tab, pane, editor or app where a session runs.
std::unique_ptr<Jumper> makeSystemJumper();

} // namespace skeldrin
