#include "Skeldrin/cli/Cli.h"

#include "Skeldrin/cli/Watch.h"
#include "Skeldrin/platform/SystemJumper.h"
#include "TrackerCore/HookInstaller.h"
#include "TrackerCore/SessionStore.h"
#include "TrackerCore/Text.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QLoggingCategory>
#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <map>
#include <sys/ioctl.h>
#include <unistd.h>

namespace skeldrin::cli {

namespace {

constexpr std::string_view kUsage = R"(Usage: skeldrin [COMMAND]

Shows what your Claude Code sessions are doing.

Commands:
  status [--json]             print the listed sessions once
  watch                       the same, redrawn on every change until Ctrl-C
  connect                     add Skeldrin's hooks to Claude Code's settings
  disconnect                  remove them again
  hooks                       print the hook state: notInstalled, installed or outdated
  transcript FILE [--json]    what the end of a Claude Code transcript says
  jump SESSION_ID             bring forward the terminal, pane or editor where a session runs
  --help                      show this help
  --version                   show the version

Without a command, starts the desktop app (tray icon and widget).
)";

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Failures of connect and disconnect reach the user as one line on stderr.
class StderrAlerts final : public Alerts {
public:
    void showError(const QString& title, const QString& text) override
    {
        QString line = title + QStringLiteral(": ") + text;
        line.replace(QLatin1Char('\n'), QLatin1Char(' '));
        std::cerr << line.toStdString() << '\n';
        failed = true;
    }
    bool failed = false;
};

std::unique_ptr<SessionsModel> makeModel(Alerts& alerts, Jumper* jumper = nullptr)
{
    SessionsModel::Dependencies dependencies;
    dependencies.alerts = &alerts;
    dependencies.jumper = jumper;
    return std::make_unique<SessionsModel>(SessionStore::defaultStore(), std::move(dependencies));
}

Date currentTime() { return SystemClock().now(); }

Json dateOrNull(const std::optional<Date>& date) { return date ? Json(formatIso8601(*date)) : Json(nullptr); }
Json stringOrNull(const std::optional<std::string>& text) { return text ? Json(*text) : Json(nullptr); }

// Names, titles and prompts come from other programs: no line breaks or control characters (an escape
// sequence in a title must not drive the terminal).
std::string oneLine(std::string_view utf8)
{
    std::u32string text = text::decodeUtf8(utf8);
    for (char32_t& c : text)
        if (c < 0x20 || (c >= 0x7f && c < 0xa0) || text::isLineBreak(c)) c = U' ';
    return text::encodeUtf8(text);
}

std::size_t columns(std::string_view utf8) { return text::characterCount(utf8); }

std::string fitted(const std::string& utf8, std::size_t width)
{
    if (columns(utf8) <= width) return utf8;
    if (width == 0) return {};
    return text::characterPrefix(utf8, width - 1) + "…";
}

std::string padded(std::string utf8, std::size_t width)
{
    const std::size_t used = columns(utf8);
    if (used < width) utf8.append(width - used, ' ');
    return utf8;
}

std::string_view colorCode(const ListedSession& entry)
{
    if (entry.session.endedAt) return "2";
    if (entry.shade.kind == Shade::Kind::waitingOnRuns) return "90";
    switch (entry.shade.status) {
    case Status::running: return "34";
    case Status::ready: return entry.seen() ? "2;32" : "32";
    case Status::waiting: return "33";
    case Status::multiStepWaiting: return "1;31";
    }
    return "0";
}

std::string sessionCount(std::size_t count)
{
    return count == 1 ? "1 session" : std::to_string(count) + " sessions";
}

std::optional<std::string> hookHint(HookInstaller::State state)
{
    switch (state) {
    case HookInstaller::State::installed: return std::nullopt;
    case HookInstaller::State::outdated: return "Claude Code's hooks are outdated: run `skeldrin connect`.";
    case HookInstaller::State::notInstalled: return "Claude Code isn't connected: run `skeldrin connect`.";
    }
    return std::nullopt;
}

bool stdoutIsTerminal() { return ::isatty(STDOUT_FILENO) == 1; }

TableStyle terminalStyle()
{
    TableStyle style;
    if (!stdoutIsTerminal()) return style;
    const char* noColor = std::getenv("NO_COLOR");
    style.color = !noColor || !*noColor;
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        style.width = size.ws_col;
    } else if (const char* env = std::getenv("COLUMNS"); env && std::atoi(env) > 0) {
        style.width = std::atoi(env);
    } else {
        style.width = 80;
    }
    return style;
}

struct Options {
    QString command;
    QStringList positional;
    bool json = false;
};

Options parse(const QStringList& arguments)
{
    Options options;
    options.command = arguments.value(1);
    bool optionsEnded = false;
    for (qsizetype i = 2; i < arguments.size(); ++i) {
        const QString& argument = arguments[i];
        if (!optionsEnded && argument == QLatin1String("--")) {
            optionsEnded = true;
        } else if (!optionsEnded && argument == QLatin1String("--json")) {
            options.json = true;
        } else if (!optionsEnded && argument.startsWith(QLatin1Char('-')) && argument.size() > 1) {
            throw UsageError("unknown option " + argument.toStdString());
        } else {
            options.positional << argument;
        }
    }
    const bool takesJson =
        options.command == QLatin1String("status") || options.command == QLatin1String("transcript");
    if (options.json && !takesJson)
        throw UsageError("--json does not apply to " + options.command.toStdString());
    const bool takesOne =
        options.command == QLatin1String("transcript") || options.command == QLatin1String("jump");
    const qsizetype wanted = takesOne ? 1 : 0;
    if (options.positional.size() < wanted)
        throw UsageError(options.command == QLatin1String("jump") ? "jump needs a SESSION_ID"
                                                                  : "transcript needs a FILE");
    if (options.positional.size() > wanted)
        throw UsageError("unexpected argument " + options.positional[wanted].toStdString());
    return options;
}

void refreshOnce(SessionsModel& model)
{
    model.reload();
    model.refreshHookState();
    model.refreshCycle();
}

int status(const Options& options)
{
    StderrAlerts alerts;
    const auto model = makeModel(alerts);
    refreshOnce(*model);
    if (options.json)
        std::cout << encodePretty(statusJson(*model)) << '\n';
    else
        std::cout << statusTable(*model, currentTime(), terminalStyle());
    std::cout.flush();
    return 0;
}

int hooks()
{
    StderrAlerts alerts;
    const auto model = makeModel(alerts);
    model->refreshHookState();
    std::cout << HookInstaller::rawValue(model->hookState()) << '\n';
    return 0;
}

int changeHooks(bool connecting)
{
    StderrAlerts alerts;
    const auto model = makeModel(alerts);
    if (connecting)
        model->connectClaudeCode();
    else
        model->disconnectClaudeCode();
    if (alerts.failed) return 1;
    std::cout << "hooks: " << HookInstaller::rawValue(model->hookState()) << '\n'
              << "settings: " << HookInstaller::settingsURL().string() << '\n';
    return 0;
}

int transcript(const Options& options)
{
    const std::filesystem::path file = options.positional.front().toStdString();
    TranscriptTail tail;
    try {
        tail = TranscriptTail::read(file, SessionsModel::transcriptBudget);
    } catch (const std::exception& e) {
        std::cerr << "skeldrin: cannot read " << file.string() << ": " << oneLine(e.what()) << '\n';
        return 1;
    }
    if (options.json) {
        std::cout << encodePretty(transcriptJson(tail)) << '\n';
        return 0;
    }
    std::cout << "Title: " << (tail.title ? oneLine(*tail.title) : "(none)") << '\n'
              << "Interrupted: " << (tail.interruptedAt ? formatIso8601(*tail.interruptedAt) : "no") << '\n'
              << "Background tasks: " << tail.runningBackgroundTasks.size() << '\n';
    for (const auto& task : tail.runningBackgroundTasks) {
        std::cout << "  " << formatIso8601(task.startedAt) << "  " << oneLine(task.title) << "  (" << task.id;
        if (task.expiresAt) std::cout << ", expires " << formatIso8601(*task.expiresAt);
        std::cout << ")\n";
    }
    return 0;
}

// The app's jump, so that what follows a jump (a finished session marked seen) happens here too.
int jump(const Options& options)
{
    const std::string id = options.positional.front().toStdString();
    // A failure reaches stderr once, as the alert's line, not also as the model's log line.
    QLoggingCategory::setFilterRules(QStringLiteral("app.skeldrin.sessions.warning=false"));
    StderrAlerts alerts;
    const auto jumper = makeSystemJumper();
    const auto model = makeModel(alerts, jumper.get());
    model->reload();
    std::optional<ListedSession> entry;
    for (const ListedSession& row : model->list())
        if (row.id() == id) entry = row;
    // A dismissed session is not listed, but can still be jumped to from here.
    for (const Session& session : model->stored())
        if (!entry && session.id == id)
            entry = ListedSession{session, ListedSession::Role::main, Shade::of(session.status())};
    if (!entry) {
        std::cerr << "skeldrin: no session " << oneLine(id) << '\n';
        return 1;
    }
    QEventLoop loop;
    std::optional<bool> jumped;
    model->jump(*entry, [&](bool made) {
        jumped = made;
        loop.quit();
    });
    if (!jumped) loop.exec();
    waitForDeferredJumps();
    return *jumped ? 0 : 1;
}

int dispatch(const QStringList& arguments)
{
    const QString command = arguments.value(1);
    if (arguments.size() < 2 || command == QLatin1String("--help") || command == QLatin1String("-h") ||
        command == QLatin1String("help")) {
        if (arguments.size() > 2) throw UsageError("unexpected argument " + arguments[2].toStdString());
        std::cout << kUsage;
        return 0;
    }
    if (command == QLatin1String("--version")) {
        if (arguments.size() > 2) throw UsageError("unexpected argument " + arguments[2].toStdString());
        std::cout << "skeldrin " << SKELDRIN_VERSION << '\n';
        return 0;
    }
    if (command.startsWith(QLatin1Char('-'))) throw UsageError("unknown option " + command.toStdString());

    const Options options = parse(arguments);
    if (command == QLatin1String("status")) return status(options);
    if (command == QLatin1String("watch")) {
        StderrAlerts alerts;
        const auto model = makeModel(alerts);
        return watch(*model, [&model] { return statusTable(*model, currentTime(), terminalStyle()); },
                     stdoutIsTerminal());
    }
    if (command == QLatin1String("connect")) return changeHooks(true);
    if (command == QLatin1String("disconnect")) return changeHooks(false);
    if (command == QLatin1String("hooks")) return hooks();
    if (command == QLatin1String("transcript")) return transcript(options);
    if (command == QLatin1String("jump")) return jump(options);
    throw UsageError("unknown command " + command.toStdString());
}

} // namespace

Json statusJson(const SessionsModel& model)
{
    Json rows = Json::array();
    for (const ListedSession& entry : model.list()) {
        const Session& session = entry.session;
        rows.push_back({
            {"id", entry.id()},
            {"role", rawValue(entry.role)},
            {"shade", entry.shade.rawValue()},
            {"seen", entry.seen()},
            {"runCount", entry.runCount},
            {"runsFolded", entry.runsFolded},
            {"name", model.displayName(session)},
            {"app", session.origin.appName()},
            {"place", place(model, entry)},
            {"lastPrompt", stringOrNull(session.lastPrompt)},
            {"changedAt", formatIso8601(session.changedAt)},
            {"endedAt", dateOrNull(session.endedAt)},
        });
    }
    const auto mostUrgent = model.mostUrgent();
    return {{"mostUrgent", mostUrgent ? Json(rawValue(*mostUrgent)) : Json(nullptr)},
            {"sessions", std::move(rows)}};
}

Json transcriptJson(const TranscriptTail& tail)
{
    Json tasks = Json::array();
    for (const auto& task : tail.runningBackgroundTasks)
        tasks.push_back({{"id", task.id},
                         {"startedAt", formatIso8601(task.startedAt)},
                         {"title", task.title},
                         {"expiresAt", dateOrNull(task.expiresAt)}});
    return {{"title", stringOrNull(tail.title)},
            {"interruptedAt", dateOrNull(tail.interruptedAt)},
            {"runningBackgroundTasks", std::move(tasks)}};
}

std::string statusTable(const SessionsModel& model, Date now, const TableStyle& style)
{
    const std::vector<ListedSession> entries = model.list();
    const auto hint = hookHint(model.hookState());
    if (entries.empty()) return "No sessions.\n" + (hint ? *hint + "\n" : std::string());

    std::string summary = sessionCount(entries.size());
    if (const auto urgent = model.mostUrgent()) summary += " · most urgent: " + std::string(label(*urgent));
    if (hint) summary += " · " + *hint;

    struct Row {
        std::string word, name, place, changed, prompt;
        const ListedSession* entry = nullptr;
    };
    constexpr std::size_t kNameLimit = 40, kPlaceLimit = 28, kGap = 2;
    std::vector<Row> rows;
    std::map<std::string, int> depths;
    std::size_t wordWidth = columns("STATUS"), nameWidth = columns("NAME"), placeWidth = columns("WHERE"),
                changedWidth = columns("CHANGED");
    for (const ListedSession& entry : entries) {
        int depth = 0;
        if (entry.role == ListedSession::Role::child && entry.session.parentId)
            if (const auto parent = depths.find(*entry.session.parentId); parent != depths.end())
                depth = parent->second + 1;
        depths[entry.id()] = depth;

        Row row;
        row.entry = &entry;
        row.word = statusWord(entry);
        const std::string indent(2 * static_cast<std::size_t>(depth), ' ');
        row.name = fitted(indent + oneLine(model.displayName(entry.session)), kNameLimit);
        row.place = fitted(oneLine(place(model, entry)), kPlaceLimit);
        row.changed = elapsed(entry.session.changedAt, now);
        row.prompt = oneLine(entry.session.lastPrompt.value_or(""));
        wordWidth = std::max(wordWidth, columns(row.word));
        nameWidth = std::max(nameWidth, columns(row.name));
        placeWidth = std::max(placeWidth, columns(row.place));
        changedWidth = std::max(changedWidth, columns(row.changed));
        rows.push_back(std::move(row));
    }

    const std::size_t promptStart = wordWidth + nameWidth + placeWidth + changedWidth + 4 * kGap;
    std::optional<std::size_t> promptWidth;
    if (style.width)
        promptWidth = static_cast<std::size_t>(std::max(0, *style.width - static_cast<int>(promptStart)));

    const auto line = [&](std::string word, const std::string& wordColor, const Row& row) {
        std::string text = padded(std::move(word), wordWidth);
        if (!wordColor.empty()) {
            // The padding stays outside the colour so that the columns line up.
            const std::size_t end = text.find_last_not_of(' ') + 1;
            text = "\x1b[" + wordColor + "m" + text.substr(0, end) + "\x1b[0m" + text.substr(end);
        }
        const std::string gap(kGap, ' ');
        text += gap + padded(row.name, nameWidth) + gap + padded(row.place, placeWidth) + gap +
                padded(row.changed, changedWidth);
        const std::string prompt = promptWidth ? fitted(row.prompt, *promptWidth) : row.prompt;
        if (!prompt.empty()) text += gap + prompt;
        while (!text.empty() && text.back() == ' ') text.pop_back();
        return text + "\n";
    };

    std::string out = summary + "\n";
    out += line("STATUS", {}, Row{"", "NAME", "WHERE", "CHANGED", "PROMPT", nullptr});
    for (const Row& row : rows)
        out += line(row.word, style.color ? std::string(colorCode(*row.entry)) : std::string(), row);
    return out;
}

int run(const QStringList& arguments)
{
    try {
        return dispatch(arguments);
    } catch (const UsageError& e) {
        std::cerr << "skeldrin: " << e.what() << "\n\n" << kUsage;
        return 2;
    } catch (const std::exception& e) {
        std::cerr << "skeldrin: " << oneLine(e.what()) << '\n';
        return 1;
    }
}

} // namespace skeldrin::cli
