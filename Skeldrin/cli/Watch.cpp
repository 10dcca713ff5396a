#include "Skeldrin/cli/Watch.h"

#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTimer>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

namespace skeldrin::cli {

namespace {

// Write end of the self-pipe: a signal handler may only write a byte; the event loop does the rest.
int signalPipe = -1;

void onSignal(int number)
{
    const int saved = errno;
    const char byte = number == SIGWINCH ? 'w' : 'q';
    [[maybe_unused]] const ssize_t written = ::write(signalPipe, &byte, 1);
    errno = saved;
}

// The handlers live as long as the watch; whatever was there before comes back after it.
class SignalHandlers {
public:
    SignalHandlers()
    {
        struct sigaction action {};
        action.sa_handler = onSignal;
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_RESTART;
        for (std::size_t i = 0; i < signals_.size(); ++i) ::sigaction(signals_[i], &action, &previous_[i]);
    }
    ~SignalHandlers()
    {
        for (std::size_t i = 0; i < signals_.size(); ++i) ::sigaction(signals_[i], &previous_[i], nullptr);
    }
    SignalHandlers(const SignalHandlers&) = delete;
    SignalHandlers& operator=(const SignalHandlers&) = delete;

private:
    std::array<int, 3> signals_{SIGINT, SIGTERM, SIGWINCH};
    std::array<struct sigaction, 3> previous_{};
};

class Pipe {
public:
    Pipe()
    {
        if (::pipe2(fds_, O_CLOEXEC | O_NONBLOCK) != 0)
            throw std::system_error(errno, std::generic_category(), "cannot make the signal pipe");
    }
    ~Pipe()
    {
        ::close(fds_[0]);
        ::close(fds_[1]);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    int readEnd() const { return fds_[0]; }
    int writeEnd() const { return fds_[1]; }

private:
    int fds_[2] = {-1, -1};
};

void put(const std::string& text)
{
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

// Overwrites the screen in place (clearing each line's rest and everything below) rather than
// clearing it first, so the table does not flicker.
std::string overDrawn(const std::string& table)
{
    std::string out = "\x1b[H";
    std::size_t start = 0;
    while (start < table.size()) {
        std::size_t end = table.find('\n', start);
        if (end == std::string::npos) end = table.size();
        out.append(table, start, end - start);
        out += "\x1b[K\n";
        start = end + 1;
    }
    return out + "\x1b[J";
}

} // namespace

int watch(SessionsModel& model, const std::function<std::string()>& render, bool terminal)
{
    Pipe pipe;
    signalPipe = pipe.writeEnd();
    const SignalHandlers handlers;

    const auto draw = [&] { put(terminal ? overDrawn(render()) : render() + "\n"); };

    // Several changes in one pass of the event loop make one drawing.
    QTimer drawSoon;
    drawSoon.setSingleShot(true);
    drawSoon.setInterval(0);
    QObject::connect(&drawSoon, &QTimer::timeout, draw);
    const auto schedule = [&drawSoon] {
        if (!drawSoon.isActive()) drawSoon.start();
    };
    QObject::connect(&model, &SessionsModel::storedChanged, &drawSoon, schedule);
    QObject::connect(&model, &SessionsModel::hookStateChanged, &drawSoon, schedule);
    QObject::connect(&model, &SessionsModel::transcriptTitlesChanged, &drawSoon, schedule);
    QObject::connect(&model, &SessionsModel::foldedRunsChanged, &drawSoon, schedule);
    QObject::connect(&model, &SessionsModel::backgroundTasksChanged, &drawSoon, schedule);
    QObject::connect(&model, &SessionsModel::headlinesEnabledChanged, &drawSoon, schedule);
    QObject::connect(&model, &SessionsModel::headlineErrorChanged, &drawSoon, schedule);

    // The elapsed times change without any change of the model.
    QTimer tick;
    tick.setInterval(15000);
    QObject::connect(&tick, &QTimer::timeout, schedule);

    QSocketNotifier notifier(pipe.readEnd(), QSocketNotifier::Read);
    QObject::connect(&notifier, &QSocketNotifier::activated, [&] {
        char bytes[64];
        bool quit = false;
        ssize_t n;
        while ((n = ::read(pipe.readEnd(), bytes, sizeof bytes)) > 0)
            for (ssize_t i = 0; i < n; ++i) {
                if (bytes[i] == 'q')
                    quit = true;
                else
                    schedule();
            }
        if (quit) QCoreApplication::quit();
    });

    if (terminal) put("\x1b[?25l\x1b[2J");
    model.start();
    tick.start();
    schedule();
    const int status = QCoreApplication::exec();
    if (terminal) put("\x1b[?25h");
    signalPipe = -1;
    return status;
}

} // namespace skeldrin::cli
