#include "Skeldrin/platform/SystemJumper.h"

#include <QEventLoop>

#include <atomic>
#include <chrono>

namespace skeldrin {
namespace {
std::atomic<int> deferredJumps{0};
} // namespace

void beginDeferredJump()
{
    ++deferredJumps;
}
void endDeferredJump()
{
    --deferredJumps;
}

void waitForDeferredJumps()
{
    // Bounded: a follow-up that never comes must not keep the caller from exiting.
    QEventLoop loop;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (deferredJumps > 0 && std::chrono::steady_clock::now() < deadline)
        loop.processEvents(QEventLoop::WaitForMoreEvents, 50);
}

} // namespace skeldrin
