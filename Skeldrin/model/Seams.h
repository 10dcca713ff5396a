#pragma once
// What the live model asks of the world, behind small interfaces so tests can stand in for the clock,
// the process table, the jump to a session and the alerts.
#include "TrackerCore/Date.h"
#include "TrackerCore/Origin.h"
#include "TrackerCore/Session.h"

#include <QString>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace skeldrin {

class Clock {
public:
    virtual ~Clock() = default;
    virtual Date now() const = 0;
};

class SystemClock final : public Clock {
public:
    Date now() const override;
};

class ProcessTable {
public:
    virtual ~ProcessTable() = default;
    virtual bool isAlive(const ProcessRef& process) const = 0;
    virtual std::optional<std::string> executablePath(std::int32_t pid) const = 0;
};

// The operating system's process table, made per platform (platform/linux, platform/mac).
std::unique_ptr<ProcessTable> makeSystemProcessTable();

// Brings forward the place where a session runs, without waiting on the programs it asks.
class Jumper {
public:
    // Called once, on the calling thread: with nothing when the jump was made, else with the error
    // (its what() is for the user).
    using Done = std::function<void(std::exception_ptr error)>;

    virtual ~Jumper() = default;
    // done may be called before start returns.
    virtual void start(const Session& session, Done done) = 0;
};

// A jumper whose work is done at once: jump returns, or throws the error.
class ImmediateJumper : public Jumper {
public:
    void start(const Session& session, Done done) final;
    virtual void jump(const Session& session) = 0;
};

// Failures of what the user asked for: a modal alert in the app, a line on stderr on the command line.
class Alerts {
public:
    virtual ~Alerts() = default;
    virtual void showError(const QString& title, const QString& text) = 0;
};

} // namespace skeldrin
