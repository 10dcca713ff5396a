// Drives the Headliner against fake `claude` and login-shell scripts run as real child processes.
#include "Skeldrin/model/Headliner.h"
#include "Skeldrin/platform/Platform.h"

#include <QtTest>

#include <cerrno>
#include <csignal>
#include <memory>

using namespace skeldrin;
using namespace std::chrono_literals;
using Failure = Headliner::Failure;

Q_DECLARE_METATYPE(std::optional<QString>)
Q_DECLARE_METATYPE(Headliner::Outcome)

namespace skeldrin {
// Readable QCOMPARE failures.
char* toString(const Headliner::Outcome& outcome)
{
    if (const auto* headline = std::get_if<QString>(&outcome)) return QTest::toString("headline " + *headline);
    const auto& failure = std::get<Headliner::Failure>(outcome);
    return QTest::toString(QStringLiteral("failure %1: %2").arg(int(failure.kind)).arg(failure.text));
}
} // namespace skeldrin

namespace {

constexpr int kWaitMs = 20000;

void writeScript(const QString& path, const QByteArray& body, bool executable = true)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write("#!/bin/sh\n" + body + "\n");
    file.close();
    QFile::Permissions permissions = QFile::ReadOwner | QFile::WriteOwner;
    if (executable) permissions |= QFile::ExeOwner;
    QVERIFY(file.setPermissions(permissions));
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

bool processIsGone(const QString& pidFile)
{
    const pid_t pid = readFile(pidFile).trimmed().toInt();
    return pid > 0 && ::kill(pid, 0) == -1 && errno == ESRCH;
}

} // namespace

class HeadlinerTests : public QObject {
    Q_OBJECT

    QTemporaryDir dir_;
    QString home_;
    QString claude_;

    Headliner::RunResult runToEnd(const QString& executable, std::chrono::milliseconds timeout = 60s)
    {
        std::optional<Headliner::RunResult> result;
        QObject context;
        Headliner::run(executable, {}, &context, [&](Headliner::RunResult r) { result = std::move(r); }, timeout);
        [&] { QVERIFY(!result); QVERIFY(QTest::qWaitFor([&] { return result.has_value(); }, kWaitMs)); }();
        return result.value_or(Headliner::RunResult{"<no result>", -999, std::nullopt});
    }

    Headliner::Outcome writeToEnd(std::chrono::milliseconds timeout = 60s)
    {
        std::optional<Headliner::Outcome> outcome;
        QObject context;
        const Headliner::Request request{"skeldrin", "Fix login", std::nullopt, "make the login work again"};
        Headliner::write(request, {}, &context, [&](Headliner::Outcome o) { outcome = std::move(o); }, timeout);
        [&] { QVERIFY(!outcome); QVERIFY(QTest::qWaitFor([&] { return outcome.has_value(); }, kWaitMs)); }();
        return outcome.value_or(Failure{Failure::Kind::launchFailed, "<no outcome>"});
    }

    std::optional<QString> locateToEnd(const QStringList& running, const QStringList& installed, const QString& shell)
    {
        std::optional<std::optional<QString>> found;
        QObject context;
        Headliner::locateClaude(running, installed, shell, &context, [&](std::optional<QString> f) { found = f; });
        [&] { QVERIFY(!found); QVERIFY(QTest::qWaitFor([&] { return found.has_value(); }, kWaitMs)); }();
        return found.value_or(QString("<no answer>"));
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(dir_.isValid());
        home_ = dir_.filePath("home");
        QVERIFY(QDir().mkpath(home_));
        qputenv("HOME", home_.toUtf8());
        qputenv("SHELL", dir_.filePath("no-such-shell").toUtf8());
        claude_ = home_ + "/.local/bin/claude";
        QCOMPARE(Headliner::installedPaths().first(), claude_);
    }

    void cleanup() { QFile::remove(claude_); }

    void messageHasOnlyThePresentLines()
    {
        QCOMPARE(Headliner::message({"skeldrin", "Fix login", "Login flow", "go on"}),
                 "Project folder: skeldrin\nCurrent title: Fix login\nPrevious headline: Login flow\nLatest prompt: go on");
        QCOMPARE(Headliner::message({"p", std::nullopt, "Old", "new work\nsecond line"}),
                 "Project folder: p\nPrevious headline: Old\nLatest prompt: new work\nsecond line");
    }

    void tidy_data()
    {
        QTest::addColumn<std::optional<QString>>("reply");
        QTest::addColumn<std::optional<QString>>("headline");
        const std::optional<QString> none;
        const QString sixty = "Refactor the session store so that writes are atomic now too";
        QTest::newRow("absent") << none << none;
        QTest::newRow("only wrappers") << std::optional<QString>(" \"**`#\u201C\u2019 \n ") << none;
        QTest::newRow("markdown bold, full stop") << std::optional<QString>("**Fix login bug.**") << std::optional<QString>("Fix login bug");
        QTest::newRow("first line only") << std::optional<QString>("\n\n  Refactor parser  \r\nBecause it was slow.") << std::optional<QString>("Refactor parser");
        QTest::newRow("quotes then stops") << std::optional<QString>("\u201CTidy the hooks...\u201D") << std::optional<QString>("Tidy the hooks");
        QTest::newRow("inner quotes stay") << std::optional<QString>("# Fix \"--tools\" flag") << std::optional<QString>("Fix \"--tools\" flag");
        QTest::newRow("long, cut at last space") << std::optional<QString>(sixty) << std::optional<QString>("Refactor the session store so that writes are");
        QTest::newRow("long, no space") << std::optional<QString>(QString(60, 'x')) << std::optional<QString>(QString(48, 'x'));
        QTest::newRow("exactly 48") << std::optional<QString>(QString(47, 'y') + "z") << std::optional<QString>(QString(47, 'y') + "z");
        // Characters as people see them: an accent with its base and an emoji are one each.
        const QString accented = QString("e\u0301").repeated(48);
        QTest::newRow("48 accented") << std::optional<QString>(accented) << std::optional<QString>(accented);
        QTest::newRow("emoji count once") << std::optional<QString>(QString("\U0001F680").repeated(47) + " go")
                                          << std::optional<QString>(QString("\U0001F680").repeated(47));
    }

    void tidy()
    {
        QFETCH(std::optional<QString>, reply);
        QFETCH(std::optional<QString>, headline);
        QCOMPARE(Headliner::tidy(reply), headline);
    }

    void writeRunsClaudeWithTheFixedArgumentsInTheTemporaryDirectory()
    {
        const QString seen = dir_.filePath("seen");
        writeScript(claude_, "printf '%s\\0' \"$@\" > " + seen.toUtf8() + ".args\n"
                             "pwd -P > " + seen.toUtf8() + ".cwd\n"
                             "printf '%s' \"$PATH\" > " + seen.toUtf8() + ".path\n"
                             "[ -c /dev/stdin ] && [ -c /dev/stderr ] && echo null > " + seen.toUtf8() + ".stdio\n"
                             "cat; echo 'noise on stderr' >&2\n"
                             "printf '{\"type\":\"result\",\"is_error\":false,\"result\":\"**Fix the login flow.**\\\\nMore\"}'");
        QCOMPARE(writeToEnd(), Headliner::Outcome(QString("Fix the login flow")));

        QList<QByteArray> arguments = readFile(seen + ".args").split('\0');
        QCOMPARE(arguments.takeLast(), QByteArray());
        const QList<QByteArray> expected{
            "-p", "Project folder: skeldrin\nCurrent title: Fix login\nLatest prompt: make the login work again",
            "--safe-mode", "--model", "haiku", "--max-turns", "1", "--tools", "", "--no-session-persistence",
            "--output-format", "json", "--system-prompt",
            "You name coding sessions for a tiny status widget. Reply with only a headline of 2 to 5 words in sentence "
            "case that says what the work is about now, judged mostly by the latest prompt. If the latest prompt just "
            "continues the same work (like \"ok do it\", \"yes\" or \"continue\"), reply with the previous headline "
            "exactly, word for word. No quotes, no trailing period."};
        QCOMPARE(arguments, expected);
        QCOMPARE(readFile(seen + ".cwd").trimmed(), QFileInfo(QDir::tempPath()).canonicalFilePath().toUtf8());
        QCOMPARE(readFile(seen + ".path"), QFileInfo(claude_).absolutePath().toUtf8() + ":" + qgetenv("PATH"));
        QCOMPARE(readFile(seen + ".stdio"), QByteArray("null\n"));
    }

    void writeReportsEveryFailure_data()
    {
        QTest::addColumn<QByteArray>("script");
        QTest::addColumn<Headliner::Outcome>("outcome");
        const auto failed = [](const char* text) { return Headliner::Outcome(Failure{Failure::Kind::claudeFailed, text}); };
        QTest::newRow("is_error") << QByteArray(R"(echo '{"is_error":true,"result":"Credit balance is too low"}')")
                                  << failed("Credit balance is too low");
        QTest::newRow("is_error, no result") << QByteArray(R"(echo '{"is_error":true}')") << failed("no reply");
        QTest::newRow("tidies to nothing") << QByteArray(R"(echo '{"is_error":false,"result":" ** "}')") << failed(" ** ");
        QTest::newRow("garbage, exit 0") << QByteArray("echo 'Welcome to Claude'") << failed("unexpected output");
        QTest::newRow("garbage, exit 2") << QByteArray("echo 'usage: claude'; exit 2") << failed("exit status 2");
        QTest::newRow("no is_error") << QByteArray(R"(echo '{"result":"Fine headline"}')") << failed("unexpected output");
        QTest::newRow("result not text") << QByteArray(R"(echo '{"is_error":false,"result":7}'; exit 1)") << failed("exit status 1");
        // A reply that decodes counts whatever the status.
        QTest::newRow("reply, exit 3") << QByteArray(R"(echo '{"is_error":false,"result":"Ship it"}'; exit 3)")
                                       << Headliner::Outcome(QString("Ship it"));
    }

    void writeReportsEveryFailure()
    {
        QFETCH(QByteArray, script);
        QFETCH(Headliner::Outcome, outcome);
        writeScript(claude_, script);
        QCOMPARE(writeToEnd(), outcome);
    }

    void failureDescriptions()
    {
        QCOMPARE((Failure{Failure::Kind::claudeFailed, "exit status 2"}.description()),
                 "Claude Code couldn't write a headline: exit status 2");
        QCOMPARE((Failure{Failure::Kind::claudeNotFound, {}}.description()),
                 "Couldn't find Claude Code on " + platform::thisMachine() + ".");
    }

    void hangingClaudeIsStoppedAndReportedThroughItsStatus()
    {
        const QString pidFile = dir_.filePath("hang.pid");
        writeScript(claude_, "echo $$ > " + pidFile.toUtf8() + "; printf '{\"is_error\":'; exec sleep 30");
        QCOMPARE(writeToEnd(300ms), Headliner::Outcome(Failure{Failure::Kind::claudeFailed, "exit status 143"}));
        QVERIFY(processIsGone(pidFile));
    }

    void childIgnoringTerminateIsKilled()
    {
        const QString script = dir_.filePath("stubborn");
        const QString pidFile = dir_.filePath("stubborn.pid");
        writeScript(script, "trap '' TERM; echo $$ > " + pidFile.toUtf8() + "; printf partial; while :; do sleep 1; done");
        const Headliner::RunResult result = runToEnd(script, 300ms);
        QCOMPARE(result.exitStatus, 128 + SIGKILL);
        QCOMPARE(result.output, QByteArray("partial"));
        QVERIFY(processIsGone(pidFile));
    }

    void largeOutputIsReadToTheEnd()
    {
        const QString script = dir_.filePath("chatty");
        writeScript(script, "head -c 2097152 /dev/zero | tr '\\0' x; printf '{\"is_error\":false}'");
        const Headliner::RunResult result = runToEnd(script);
        QCOMPARE(result.exitStatus, 0);
        QCOMPARE(result.output.size(), 2097152 + 18);
        QCOMPARE(result.output.count('x'), 2097152);
        QVERIFY(result.output.endsWith("{\"is_error\":false}"));
    }

    void launchFailuresAreReportedAsTheyAre()
    {
        const Headliner::RunResult missing = runToEnd(dir_.filePath("missing"));
        QVERIFY(missing.launchError && !missing.launchError->isEmpty());

        writeScript(claude_, ""); // an executable whose interpreter does not exist
        QFile file(claude_);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("#!/no/such/interpreter\n");
        file.close();
        const Headliner::Outcome outcome = writeToEnd();
        const auto* failure = std::get_if<Failure>(&outcome);
        QVERIFY(failure && failure->kind == Failure::Kind::launchFailed && !failure->text.isEmpty());
        QCOMPARE(failure->description(), failure->text);
    }

    void locateClaude()
    {
        const QString plain = dir_.filePath("locate/plain/claude");
        const QString installed = dir_.filePath("locate/installed/claude");
        const QString fromShell = dir_.filePath("locate/shell/claude");
        const QString running = dir_.filePath("locate/running/claude");
        const QString other = dir_.filePath("locate/running/node");
        writeScript(plain, "", false);
        for (const QString& path : {installed, fromShell, running, other}) writeScript(path, "");
        QVERIFY(QDir().mkpath(dir_.filePath("locate/dir/claude")));
        const QString missing = dir_.filePath("locate/missing/claude");

        // The shell must be asked as a login shell; anything else is a failed lookup.
        const auto shell = [&](const QString& name, const QByteArray& body) {
            const QString path = dir_.filePath("locate/shell-" + name);
            writeScript(path, "[ $# -eq 3 ] && [ \"$1\" = -l ] && [ \"$2\" = -c ] && [ \"$3\" = 'command -v claude' ] || exit 9\n" + body);
            return path;
        };
        const QString answering = shell("answering", "echo 'Welcome back'\necho\necho " + fromShell.toUtf8() + "\necho");
        const QString failing = shell("failing", "echo " + fromShell.toUtf8() + "; exit 1");
        const QString pointingAtPlain = shell("plain", "echo " + plain.toUtf8());
        const QStringList skipped{missing, plain, dir_.filePath("locate/dir/claude")};

        QCOMPARE(locateToEnd({running}, skipped + QStringList{installed, fromShell}, answering), std::optional<QString>(installed));
        QCOMPARE(locateToEnd({running}, skipped, answering), std::optional<QString>(fromShell));
        QCOMPARE(locateToEnd({other, plain, running}, skipped, failing), std::optional<QString>(running));
        QCOMPARE(locateToEnd({other, running}, skipped, pointingAtPlain), std::optional<QString>(running));
        QCOMPARE(locateToEnd({other, plain}, skipped, missing), std::optional<QString>());
        QCOMPARE(locateToEnd({}, {}, dir_.filePath("locate/dir/claude")), std::optional<QString>());
    }

    void claudeNotFoundWhenNothingAnswers()
    {
        if (QFileInfo::exists("/opt/homebrew/bin/claude") || QFileInfo::exists("/usr/local/bin/claude"))
            QSKIP("Claude Code is installed system-wide on this machine");
        writeScript(dir_.filePath("quiet-shell"), "exit 1");
        qputenv("SHELL", dir_.filePath("quiet-shell").toUtf8());
        QCOMPARE(Headliner::userShell(), dir_.filePath("quiet-shell"));
        QCOMPARE(writeToEnd(), Headliner::Outcome(Failure{Failure::Kind::claudeNotFound, {}}));
        qunsetenv("SHELL");
        QCOMPARE(Headliner::userShell(), "/bin/zsh");
        qputenv("SHELL", dir_.filePath("no-such-shell").toUtf8());
    }

    void destroyingTheContextKillsTheChildAndDropsTheAnswer()
    {
        const QString script = dir_.filePath("forever");
        const QString pidFile = dir_.filePath("forever.pid");
        writeScript(script, "echo $$ > " + pidFile.toUtf8() + "; exec sleep 30");
        bool called = false;
        auto context = std::make_unique<QObject>();
        Headliner::run(script, {}, context.get(), [&](Headliner::RunResult) { called = true; });
        QVERIFY(QTest::qWaitFor([&] { return QFileInfo::exists(pidFile) && readFile(pidFile).endsWith('\n'); }, kWaitMs));
        context.reset();
        QVERIFY(QTest::qWaitFor([&] { return processIsGone(pidFile); }, kWaitMs));

        auto other = std::make_unique<QObject>();
        Headliner::locateClaude({}, {script}, {}, other.get(), [&](std::optional<QString>) { called = true; });
        other.reset();
        QCoreApplication::processEvents();
        QVERIFY(!called);
    }
};

QTEST_GUILESS_MAIN(HeadlinerTests)
#include "HeadlinerTests.moc"
