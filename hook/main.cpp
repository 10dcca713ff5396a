// skeldrin-hook: Claude Code runs this once per session event with the event as JSON on standard input.
// It records the event in the session's file and nothing else. Claude Code adds standard output of some
// hooks to the model's context and treats exit status 2 as "block", so this program never writes to
// standard output and always exits 0; a failure is one line on standard error.
#include "TrackerCore/HookEvent.h"
#include "TrackerCore/ProcessInspector.h"
#include "TrackerCore/Reducer.h"
#include "TrackerCore/SessionStore.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

using namespace skeldrin;

void writeError(std::string_view text)
{
    std::string line = "skeldrin-hook: ";
    line.append(text);
    // One line, whatever the error text holds.
    for (char& c : line)
        if (c == '\n' || c == '\r') c = ' ';
    line += '\n';
    std::size_t written = 0;
    while (written < line.size()) {
        const ssize_t n = ::write(STDERR_FILENO, line.data() + written, line.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        written += static_cast<std::size_t>(n);
    }
}

// Decodes the event from standard input, which is read to its end even when the event is bad: Claude
// Code writes the whole payload, which can exceed 10 MB, and must never block on a full pipe. The payload
// is scanned as it arrives through a small buffer; only the members the hook uses are kept.
HookEvent readEvent(int fd)
{
    const json_scan::Reader reader = [fd](char* buffer, std::size_t capacity) -> std::size_t {
        for (;;) {
            const ssize_t n = ::read(fd, buffer, capacity);
            if (n >= 0) return static_cast<std::size_t>(n);
            if (errno != EINTR)
                throw std::runtime_error(std::string("cannot read the event: ") + std::strerror(errno));
        }
    };
    try {
        return HookEvent::read(reader);
    } catch (const DecodingError&) {
        char rest[16 * 1024];
        while (reader(rest, sizeof rest) > 0) {
        }
        throw;
    }
}

Environment currentEnvironment()
{
    Environment environment;
    for (char** entry = environ; entry && *entry; ++entry) {
        const std::string_view text(*entry);
        const auto equals = text.find('=');
        if (equals == std::string_view::npos) continue;
        environment.insert_or_assign(std::string(text.substr(0, equals)), std::string(text.substr(equals + 1)));
    }
    return environment;
}

// The Claude Code process: $CLAUDE_PID when it names a live process, else the first non-shell ancestor.
std::optional<ProcessRef> claudeProcess(const Environment& environment)
{
    if (const auto it = environment.find("CLAUDE_PID"); it != environment.end()) {
        char* end = nullptr;
        errno = 0;
        const long pid = std::strtol(it->second.c_str(), &end, 10);
        if (errno == 0 && end && *end == '\0' && !it->second.empty() && pid > 1 && pid <= INT32_MAX)
            if (auto process = ProcessInspector::ref(static_cast<ProcessInspector::Pid>(pid))) return process;
    }
    return ProcessInspector::claude(static_cast<ProcessInspector::Pid>(::getpid()));
}

// Executables of a process and its ancestors, nearest first (bounded: a table can change under us).
std::vector<std::string> ancestorExecutables(ProcessInspector::Pid pid)
{
    std::vector<std::string> executables;
    for (int depth = 0; depth < 32 && pid > 1; ++depth) {
        if (auto path = ProcessInspector::executablePath(pid)) executables.push_back(std::move(*path));
        const auto record = ProcessInspector::lookup(pid);
        if (!record) break;
        pid = record->parentPid;
    }
    return executables;
}

HookContext gatherContext()
{
    const Environment environment = currentEnvironment();
    HookContext context;
    context.process = claudeProcess(environment);
    std::optional<std::string> tty;
    if (context.process) {
        tty = ProcessInspector::controllingTTY(context.process->pid);
        if (const auto started = ProcessInspector::startingEnvironment(context.process->pid)) {
            if (const auto it = started->find("CLAUDE_CODE_SESSION_ID"); it != started->end())
                context.inheritedSessionId = it->second;
        }
    }
    context.origin = Origin(environment, std::move(tty));
    if (context.process && !context.origin.bundleId &&
        (context.origin.termProgram == "vscode" || context.origin.entrypoint == "claude-vscode"))
        context.origin.editorExecutable = editorExecutable(ancestorExecutables(context.process->pid));
    return context;
}

void run()
{
    const HookEvent event = readEvent(STDIN_FILENO);

    const HookContext context = gatherContext();
    const auto now = std::chrono::time_point_cast<std::chrono::microseconds>(std::chrono::system_clock::now());
    SessionStore::defaultStore().update(event.sessionId, [&](const std::optional<Session>& current) {
        return Reducer::apply(event, current, context, now);
    });
}

} // namespace

int main(int argc, char**)
{
    // A closed standard error must not kill the hook with SIGPIPE (a signal is not exit status 0).
    std::signal(SIGPIPE, SIG_IGN);
    // Nothing may ever reach Claude Code's context through standard output.
    if (const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC); null >= 0) {
        ::dup2(null, STDOUT_FILENO);
        ::close(null);
    }

    if (argc > 1 || ::isatty(STDIN_FILENO)) {
        writeError("records Claude Code session events for Skeldrin " SKELDRIN_VERSION
                   ". Claude Code runs it with one hook event as JSON on standard input; install it with "
                   "`skeldrin connect`.");
        return 0;
    }
    try {
        run();
    } catch (const std::exception& e) {
        writeError(e.what());
    } catch (...) {
        writeError("unexpected failure");
    }
    return 0;
}
