// Drives the Headliner against fake `claude` and login-shell scripts run as real child processes.
#include "Skeldrin/model/Headliner.h"
#include "tests/support/TestProcesses.h"

#include <QtTest>

#include <cerrno>
#include <csignal>

using namespace skeldrin;
using namespace std::chrono_literals;
using Failure = Headliner::Failure;
using skeldrin::test::writeScript;

namespace {

bool processIsGone(const QString& pidFile)
{
    const pid_t pid = test::readBytes(pidFile).trimmed().toInt();
    return pid > 0 && ::kill(pid, 0) == -1 && errno == ESRCH;
}

QString show(const Headliner::Outcome& outcome)
{
    if (const auto* headline = std::get_if<QString>(&outcome)) return "headline: " + *headline;
    const auto& failure = std::get<Failure>(outcome);
    return QStringList{"not found", "failed", "launch failed"}.value(int(failure.kind)) + ": " + failure.text;
}

// Starts an asynchronous call and waits for its answer, which must not come before the event loop runs.
template <typename T, typename Start> T await(Start start, T none)
{
    std::optional<T> result;
    QObject context;
    start(&context, [&](T answer) { result = std::move(answer); });
    if (result) return none; // answered before the event loop ran
    return QTest::qWaitFor([&] { return result.has_value(); }, 20000) ? *result : none;
}

QString writeToEnd()
{
    const Headliner::Request request{"skeldrin", "Fix login", std::nullopt, "make the login work again"};
    return show(await([&](QObject* c, auto done) { Headliner::write(request, {}, c, done); },
                      Headliner::Outcome(QStringLiteral("<no outcome>"))));
}

std::optional<QString> locate(const QStringList& running, const QStringList& installed, const QString& shell)
{
    return await([&](QObject* c, auto done) { Headliner::locateClaude(running, installed, shell, c, done); },
                 std::optional<QString>("<no answer>"));
}

} // namespace

class HeadlinerTests : public QObject {
    Q_OBJECT

    QTemporaryDir dir_;
    QString claude_;

  private Q_SLOTS:
    void initTestCase()
    {
        qputenv("HOME", dir_.filePath("home").toUtf8());
        qputenv("SHELL", dir_.filePath("no-such-shell").toUtf8());
        claude_ = dir_.filePath("home/.local/bin/claude");
        QCOMPARE(Headliner::installedPaths().first(), claude_);
    }

    void cleanup() { QFile::remove(claude_); }

    void tidy()
    {
        const QString rockets = QString("\U0001F680").repeated(47);
        const std::pair<QString, std::optional<QString>> cases[] = {
            {" \"**`#\u201C\u2019 \n ", std::nullopt},
            {"**Fix login bug...**", "Fix login bug"},
            {"\n\n  Refactor parser  \r\nBecause it was slow.", "Refactor parser"},
            {"Refactor the session store so that writes are atomic now too",
             "Refactor the session store so that writes are"},
            {QString(60, 'x'), QString(48, 'x')},
            {QString(47, 'y') + "z", QString(47, 'y') + "z"},
            {rockets + " go", rockets}, // characters as people see them: an emoji is one
        };
        for (const auto& [reply, headline] : cases)
            QCOMPARE(Headliner::tidy(reply), headline);
    }

    void writeRunsClaudeWithTheFixedArgumentsOrSaysWhyNot()
    {
        if (!QFileInfo::exists("/usr/local/bin/claude") && !QFileInfo::exists("/opt/homebrew/bin/claude"))
            QCOMPARE(writeToEnd(), "not found: ");
        const QByteArray seen = dir_.filePath("seen").toUtf8();
        writeScript(claude_, QByteArray(R"(pwd -P > SEEN; printf '%s\n' "$PATH" >> SEEN
[ -c /dev/stdin ] && [ -c /dev/stderr ] && echo null >> SEEN
printf '%s|' "$@" >> SEEN; cat; echo 'noise on stderr' >&2
printf '{"type":"result","is_error":false,"result":"**Fix the login flow.**\\nMore"}')")
                                 .replace("SEEN", seen));
        QCOMPARE(writeToEnd(), "headline: Fix the login flow");
        const QByteArray where = QFileInfo(QDir::tempPath()).canonicalFilePath().toUtf8() + '\n' +
                                 QFileInfo(claude_).absolutePath().toUtf8() + ":" + qgetenv("PATH") +
                                 "\nnull\n";
        const QByteArray expected =
            where +
            "-p|Project folder: skeldrin\nCurrent title: Fix login\nLatest prompt: make the login work "
            "again|--safe-mode|--model|haiku|--max-turns|1|--tools||--no-session-persistence|--output-"
            "format|json|--system-prompt|You name coding sessions for a tiny status widget.";
        QVERIFY2(test::readBytes(seen).startsWith(expected), test::readBytes(seen).constData());

        QVERIFY(test::writeBytes(claude_, "#!/no/such/interpreter\n"));
        const QString failed = writeToEnd();
        QVERIFY2(failed.startsWith("launch failed: ") && failed.size() > 15, qPrintable(failed));
    }

    void writeReportsEveryFailure()
    {
        // clang-format off
        const std::pair<QByteArray, QString> replies[] = {
            {R"(echo '{"is_error":true,"result":"Credit balance is too low"}')", "failed: Credit balance is too low"},
            {"echo 'Welcome to Claude'", "failed: unexpected output"},
            {"echo 'usage: claude'; exit 2", "failed: exit status 2"},
            {R"(echo '{"is_error":false,"result":"Ship it"}'; exit 3)", "headline: Ship it"}, // decoded: it counts
        };
        // clang-format on
        for (const auto& [script, outcome] : replies) {
            writeScript(claude_, script);
            QCOMPARE(writeToEnd(), outcome);
        }
    }

    void runStopsChildrenThatHangOrLoseTheirContextAndReadsAllOutput()
    {
        const QByteArray large(2097152, 'x');
        struct Case {
            QByteArray script; // PID names the file for the child's pid
            int timeoutMs, status;
            QByteArray output;
        };
        // clang-format off
        const Case cases[] = {
            {R"(echo $$ > PID; printf '{"is_error":'; exec sleep 30)", 300, 128 + SIGTERM, R"({"is_error":)"},
            {"trap '' TERM; echo $$ > PID; printf partial; while :; do sleep 1; done", 300, 128 + SIGKILL, "partial"},
            {R"(echo $$ > PID; head -c 2097152 /dev/zero | tr '\0' x; printf '{"is_error":false}')", 60000, 0,
             large + R"({"is_error":false})"},
        };
        // clang-format on
        const QString script = dir_.filePath("child"), pidFile = dir_.filePath("child.pid");
        for (Case c : cases) {
            writeScript(script, c.script.replace("PID", pidFile.toUtf8()));
            const auto result = await(
                [&](QObject* context, auto done) {
                    Headliner::run(script, {}, context, done, std::chrono::milliseconds(c.timeoutMs));
                },
                Headliner::RunResult{"<no result>", -999, std::nullopt});
            QCOMPARE(result.exitStatus, c.status);
            QCOMPARE(result.output, c.output);
            QVERIFY(processIsGone(pidFile));
        }

        // A run whose context goes away is stopped, and its answer dropped.
        QFile::remove(pidFile);
        writeScript(script, "echo $$ > " + pidFile.toUtf8() + "; exec sleep 30");
        bool called = false;
        auto context = std::make_unique<QObject>();
        Headliner::run(script, {}, context.get(), [&](Headliner::RunResult) { called = true; });
        QVERIFY(QTest::qWaitFor([&] { return test::readBytes(pidFile).endsWith('\n'); }, 20000));
        context.reset();
        QVERIFY(QTest::qWaitFor([&] { return processIsGone(pidFile); }, 20000));
        QCoreApplication::processEvents();
        QVERIFY(!called);
    }

    void locateClaude()
    {
        const auto path = [&](const char* name) { return dir_.filePath(QStringLiteral("locate/") + name); };
        const QString plain = path("plain/claude"), installed = path("installed/claude"),
                      fromShell = path("shell/claude"), running = path("running/claude"),
                      other = path("running/node");
        writeScript(plain, "", false);
        for (const QString& p : {installed, fromShell, running, other})
            writeScript(p, "");
        QVERIFY(QDir().mkpath(path("dir/claude")));

        // The shell must be asked as a login shell; anything else is a failed lookup.
        const auto shell = [&](const char* name, const QByteArray& body) {
            writeScript(path(name), "[ $# -eq 3 ] && [ \"$1\" = -l ] && [ \"$2\" = -c ] && "
                                    "[ \"$3\" = 'command -v claude' ] || exit 9\n" +
                                        body);
            return path(name);
        };
        const QString answering =
            shell("answering", "echo 'Welcome back'\necho\necho " + fromShell.toUtf8() + "\necho");
        const QString failing = shell("failing", "echo " + fromShell.toUtf8() + "; exit 1");
        const QStringList skipped{path("missing/claude"), plain, path("dir/claude")};

        QCOMPARE(locate({running}, skipped + QStringList{installed, fromShell}, answering), installed);
        QCOMPARE(locate({running}, skipped, answering), fromShell);
        QCOMPARE(locate({other, plain, running}, skipped, failing), running);
        QCOMPARE(locate({other, plain}, skipped, path("missing/claude")), std::nullopt);
    }
};

QTEST_GUILESS_MAIN(HeadlinerTests)
#include "HeadlinerTests.moc"
