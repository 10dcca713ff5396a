// Drives the real skeldrin-hook executable the way Claude Code does: one process per event, the
// payload on standard input, with a temporary home.
#include "TrackerCore/Files.h"
#include "TrackerCore/ProcessInspector.h"
#include "TrackerCore/Session.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace skeldrin;
namespace fs = std::filesystem;

namespace {

const std::string kHook = std::string(SKELDRIN_BIN_DIR) + "/skeldrin-hook";

struct Outcome {
    int exitStatus = -1;
    std::string out, err;
};

class Hook {
public:
    explicit Hook(std::map<std::string, std::string> env, std::string executable = kHook)
        : env_(std::move(env))
        , executable_(std::move(executable))
    {
    }

    // Starts the hook with payload on stdin (or the given descriptor as stdin); returns its pid.
    pid_t start(int stdinFd = -1)
    {
        int in[2], out[2], err[2];
        for (int* p : {in, out, err}) {
            // Close-on-exec, so that the hook holds no other end and sees the end of its input.
            if (pipe(p) != 0) throw std::runtime_error("pipe");
            fcntl(p[0], F_SETFD, FD_CLOEXEC);
            fcntl(p[1], F_SETFD, FD_CLOEXEC);
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, stdinFd >= 0 ? stdinFd : in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_adddup2(&actions, err[1], 2);
        std::vector<std::string> strings;
        for (const auto& [k, v] : env_) strings.push_back(k + "=" + v);
        std::vector<char*> envp;
        for (auto& s : strings) envp.push_back(s.data());
        envp.push_back(nullptr);
        char* argv[] = {const_cast<char*>(executable_.c_str()), nullptr};
        pid_t pid;
        if (posix_spawn(&pid, executable_.c_str(), &actions, nullptr, argv, envp.data()) != 0)
            throw std::runtime_error("spawn");
        posix_spawn_file_actions_destroy(&actions);
        close(in[0]);
        close(out[1]);
        close(err[1]);
        stdin_ = in[1];
        stdout_ = out[0];
        stderr_ = err[0];
        return pid;
    }

    Outcome finish(pid_t pid, const std::string& payload)
    {
        Outcome result;
        std::size_t written = 0;
        fcntl(stdin_, F_SETFL, O_NONBLOCK);
        bool inOpen = true, outOpen = true, errOpen = true;
        while (outOpen || errOpen) {
            pollfd fds[3] = {{inOpen ? stdin_ : -1, POLLOUT, 0}, {outOpen ? stdout_ : -1, POLLIN, 0},
                             {errOpen ? stderr_ : -1, POLLIN, 0}};
            poll(fds, 3, 10000);
            if (inOpen && fds[0].revents) {
                const ssize_t n = written < payload.size()
                                      ? ::write(stdin_, payload.data() + written, payload.size() - written)
                                      : 0;
                if (n > 0) written += static_cast<std::size_t>(n);
                if (n < 0 || written == payload.size()) inOpen = false, close(stdin_);
            }
            char buffer[4096];
            for (int i : {1, 2}) {
                if (!fds[i].revents) continue;
                const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
                if (n > 0) (i == 1 ? result.out : result.err).append(buffer, static_cast<std::size_t>(n));
                else (i == 1 ? outOpen : errOpen) = false;
            }
        }
        if (inOpen) close(stdin_);
        close(stdout_);
        close(stderr_);
        int status = 0;
        waitpid(pid, &status, 0);
        result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return result;
    }

    Outcome run(const std::string& payload) { return finish(start(), payload); }

private:
    std::map<std::string, std::string> env_;
    std::string executable_;
    int stdin_ = -1, stdout_ = -1, stderr_ = -1;
};

class HookCommandTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        // Writing to a hook that a test killed must fail with EPIPE, not end the test process.
        std::signal(SIGPIPE, SIG_IGN);
        char pattern[] = "/tmp/skeldrin-hook-XXXXXX";
        home = mkdtemp(pattern);
        sessions = home / "data/Skeldrin/sessions";
        env = {{"HOME", home.string()},
               {"XDG_DATA_HOME", (home / "data").string()},
               {"PATH", "/usr/bin:/bin"},
               {"TERM_PROGRAM", "iTerm.app"},
               {"CLAUDE_PROJECT_DIR", "/work/project"}};
    }
    void TearDown() override { fs::remove_all(home); }

    Outcome hook(const std::string& payload) { return Hook(env).run(payload); }
    std::optional<Session> session(const std::string& id) const
    {
        const auto bytes = files::readWholeFile(sessions / (id + ".json"));
        if (!bytes) return std::nullopt;
        return decodeSession(*bytes);
    }
    std::vector<std::string> listing() const
    {
        std::vector<std::string> names;
        if (fs::exists(sessions))
            for (const auto& e : fs::directory_iterator(sessions)) names.push_back(e.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }
    static std::string event(const std::string& name, const std::string& id, const std::string& extra = "")
    {
        return R"({"hook_event_name":")" + name + R"(","session_id":")" + id + R"(","cwd":"/work/project")" +
               extra + "}";
    }

    fs::path home, sessions;
    std::map<std::string, std::string> env;
};

} // namespace

TEST_F(HookCommandTest, RecordsAnEventWithItsContext)
{
    const auto r = hook(event("UserPromptSubmit", "s1", R"(,"prompt":"fix the build","transcript_path":"/t.jsonl")"));
    EXPECT_EQ(r.exitStatus, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
    const auto s = session("s1");
    ASSERT_TRUE(s);
    EXPECT_EQ(s->lastPrompt, "fix the build");
    EXPECT_EQ(s->status(), Status::running);
    EXPECT_EQ(s->origin.termProgram, "iTerm.app");
    EXPECT_EQ(s->origin.projectDir, "/work/project");
    EXPECT_EQ(s->transcriptPath, "/t.jsonl");
    // Spawned directly by this test process, which is not a shell: that is the session's process.
    EXPECT_EQ(s->process, ProcessInspector::ref(getpid()));
}

TEST_F(HookCommandTest, UsesClaudePidAndTheParentSessionFromItsStartingEnvironment)
{
    // A stand-in Claude Code process started from inside another session.
    pid_t claude;
    char sleepPath[] = "/bin/sleep";
    char seconds[] = "30";
    char* argv[] = {sleepPath, seconds, nullptr};
    char parent[] = "CLAUDE_CODE_SESSION_ID=parent-7";
    char* envp[] = {parent, nullptr};
    ASSERT_EQ(posix_spawn(&claude, "/bin/sleep", nullptr, nullptr, argv, envp), 0);
    env["CLAUDE_PID"] = std::to_string(claude);

    EXPECT_EQ(hook(event("SessionStart", "child-1")).exitStatus, 0);
    kill(claude, SIGKILL);
    waitpid(claude, nullptr, 0);

    const auto s = session("child-1");
    ASSERT_TRUE(s);
    ASSERT_TRUE(s->process);
    EXPECT_EQ(s->process->pid, claude);
    EXPECT_EQ(s->parentId, "parent-7");

    // A CLAUDE_PID that names no live process falls back to the walk.
    env["CLAUDE_PID"] = std::to_string(claude);
    EXPECT_EQ(hook(event("SessionStart", "other")).exitStatus, 0);
    EXPECT_EQ(session("other")->process, ProcessInspector::ref(getpid()));
}

TEST_F(HookCommandTest, BadPayloadsFailQuietlyAndChangeNothing)
{
    ASSERT_EQ(hook(event("Stop", "keep")).exitStatus, 0);
    const auto before = listing();
    const std::string keep = files::readWholeFile(sessions / "keep.json").value();

    const std::string bad[] = {
        "",
        R"({"hook_event_name":"Stop","session_id":"s2")",
        R"(["hook_event_name","Stop"])",
        R"({"hook_event_name":"Stop","session_id":42})",
        R"({"hook_event_name":"Stop","cwd":"/x"})",
        "{\"hook_event_name\":\"Stop\",\"session_id\":\"s\xff\"}",
        R"({"hook_event_name":"Stop","session_id":"../x"})",
        R"({"hook_event_name":"Stop","session_id":"keep","cwd":false})",
        R"({"hook_event_name":"Stop","session_id":"keep/../../evil"})",
        "\x89PNG\r\n\x1a\n\0\0\0binary",
    };
    for (const auto& payload : bad) {
        const auto r = hook(payload);
        EXPECT_EQ(r.exitStatus, 0) << payload;
        EXPECT_EQ(r.out, "") << payload;
        ASSERT_FALSE(r.err.empty()) << payload;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_EQ(r.err.rfind("skeldrin-hook: ", 0), 0u) << r.err;
    }
    EXPECT_EQ(listing(), before);
    EXPECT_EQ(files::readWholeFile(sessions / "keep.json").value(), keep);
    EXPECT_FALSE(fs::exists(home / "data/Skeldrin/x.json"));
}

TEST_F(HookCommandTest, CorruptSessionFileStaysForTheUser)
{
    fs::create_directories(sessions);
    const std::string corrupt = "{\"id\":\"s1\",\"agent\":";
    { std::ofstream(sessions / "s1.json") << corrupt; }
    const auto r = hook(event("UserPromptSubmit", "s1"));
    EXPECT_EQ(r.exitStatus, 0);
    EXPECT_NE(r.err.find("s1"), std::string::npos) << "the error names nothing: " << r.err;
    EXPECT_EQ(files::readWholeFile(sessions / "s1.json").value(), corrupt);
}

TEST_F(HookCommandTest, TerminalOnStdinPrintsUsageInsteadOfWaiting)
{
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(grantpt(master), 0);
    ASSERT_EQ(unlockpt(master), 0);
    const int slave = ::open(ptsname(master), O_RDWR | O_NOCTTY);
    ASSERT_GE(slave, 0);
    Hook h(env);
    const pid_t pid = h.start(slave);
    close(slave);
    const auto r = h.finish(pid, "");
    close(master);
    EXPECT_EQ(r.exitStatus, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("standard input"), std::string::npos);
    EXPECT_TRUE(listing().empty());
}

TEST_F(HookCommandTest, FiftyHooksAtOnceLoseNoUpdate)
{
    constexpr int kShared = 25, kOwn = 25;
    std::vector<std::pair<Hook, pid_t>> running;
    std::vector<std::string> payloads;
    for (int i = 0; i < kShared + kOwn; ++i)
        payloads.push_back(i < kShared
                               ? event("PermissionRequest", "shared",
                                       R"(,"tool_name":"Bash","tool_input":{"command":"make )" + std::to_string(i) +
                                           "\"}")
                               : event("UserPromptSubmit", "own-" + std::to_string(i)));
    running.reserve(payloads.size());
    for (std::size_t i = 0; i < payloads.size(); ++i) {
        running.emplace_back(Hook(env), 0);
        running.back().second = running.back().first.start();
    }
    for (std::size_t i = 0; i < payloads.size(); ++i) {
        const auto r = running[i].first.finish(running[i].second, payloads[i]);
        EXPECT_EQ(r.exitStatus, 0);
        EXPECT_EQ(r.err, "");
    }
    const auto shared = session("shared");
    ASSERT_TRUE(shared);
    EXPECT_EQ(shared->pendingApprovals, kShared);
    EXPECT_EQ(shared->approvalsThisTurn, kShared);
    EXPECT_EQ(shared->openPrompts->size(), static_cast<std::size_t>(kShared));
    for (int i = kShared; i < kShared + kOwn; ++i) EXPECT_TRUE(session("own-" + std::to_string(i))) << i;
}

TEST_F(HookCommandTest, HookKilledWhileWaitingOnTheLockLeavesNoTrace)
{
    ASSERT_EQ(hook(event("Stop", "s1")).exitStatus, 0);
    const std::string before = files::readWholeFile(sessions / "s1.json").value();

    // Hold the store's lock, start a hook that must wait for it, and kill that hook.
    const int lock = ::open((sessions / ".lock").c_str(), O_RDWR);
    ASSERT_GE(lock, 0);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    Hook blocked(env);
    const pid_t pid = blocked.start();
    usleep(100 * 1000);
    kill(pid, SIGKILL);
    const auto r = blocked.finish(pid, event("UserPromptSubmit", "s1"));
    EXPECT_EQ(r.exitStatus, 128 + SIGKILL);
    flock(lock, LOCK_UN);
    close(lock);

    EXPECT_EQ(files::readWholeFile(sessions / "s1.json").value(), before);
    EXPECT_EQ(hook(event("UserPromptSubmit", "s1")).exitStatus, 0);
    EXPECT_EQ(session("s1")->status(), Status::running);
}

TEST_F(HookCommandTest, LargeToolOutputIsReadToTheEnd)
{
    const std::string output(5 * 1024 * 1024, 'x');
    const auto r = hook(event("PostToolUse", "s1",
                              R"(,"tool_name":"Bash","tool_input":{"command":"cat big"},"tool_response":{"stdout":")" +
                                  output + "\"}"));
    EXPECT_EQ(r.exitStatus, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(session("s1")->phase, Phase::running);
}

TEST_F(HookCommandTest, DiskAndSystemFailuresExitQuietlyAndLoseNoSession)
{
    // The hook linked dynamically, with a preloaded shim that fails one kind of system call.
    const std::string sharedHook = std::string(SKELDRIN_BIN_DIR) + "/skeldrin-hook-shared";
    struct Case {
        const char* writePoint;
        std::string fail; // call:errno[:skip[:times]]
        std::string event;
        bool applied; // the failure is retried away and the event recorded
    };
    const auto e = [](int error) { return ":" + std::to_string(error); };
    const std::string prompt = event("UserPromptSubmit", "s1"), end = event("SessionEnd", "s1");
    const Case cases[] = {
        {"lock: open", "open" + e(ENOSPC), prompt, false},
        {"lock: wait", "flock" + e(ENOLCK), prompt, false},
        {"lock: interrupted", "flock" + e(EINTR) + ":0:3", prompt, true},
        {"session: create", "open" + e(ENOSPC) + ":1", prompt, false},
        {"session: write", "write" + e(ENOSPC), prompt, false},
        {"session: write", "write" + e(EIO), prompt, false},
        {"session: replace", "rename" + e(EIO), prompt, false},
        {"session: remove", "unlink" + e(EIO), end, false},
        {"read-only directory", "open" + e(EROFS), prompt, false},
    };
    ASSERT_EQ(hook(event("Stop", "s1")).exitStatus, 0);
    const std::string before = files::readWholeFile(sessions / "s1.json").value();
    const auto names = listing();
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.writePoint) + " " + c.fail);
        auto failing = env;
        failing["LD_PRELOAD"] = SKELDRIN_FAIL_SHIM;
        failing["SKELDRIN_FAIL"] = c.fail;
        failing["ASAN_OPTIONS"] = "verify_asan_link_order=0"; // the shim comes first in the sanitizer build
        const auto r = Hook(failing, sharedHook).run(c.event);
        EXPECT_EQ(r.exitStatus, 0);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(listing(), names); // nothing torn, lost or left behind
        if (c.applied) {
            EXPECT_EQ(r.err, "");
            EXPECT_EQ(session("s1")->status(), Status::running);
            files::replaceFile(sessions / "s1.json", sessions / ".restore", before, 0600, false);
        } else {
            EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
            EXPECT_EQ(r.err.rfind("skeldrin-hook: ", 0), 0u) << r.err;
        }
        EXPECT_EQ(files::readWholeFile(sessions / "s1.json").value(), before);
    }
}

TEST_F(HookCommandTest, SessionsDirectoryThatCannotBeMadeFailsQuietly)
{
    // A file where the directory should be, and a directory that cannot be created.
    fs::create_directories(sessions.parent_path());
    skeldrin::test::writeText(sessions, "not a directory");
    auto r = hook(event("Stop", "s1"));
    EXPECT_EQ(r.exitStatus, 0);
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_EQ(skeldrin::test::readText(sessions), "not a directory");

    fs::remove(sessions);
    auto failing = env;
    failing["LD_PRELOAD"] = SKELDRIN_FAIL_SHIM;
    failing["SKELDRIN_FAIL"] = "mkdir:" + std::to_string(EIO);
    failing["ASAN_OPTIONS"] = "verify_asan_link_order=0";
    r = Hook(failing, std::string(SKELDRIN_BIN_DIR) + "/skeldrin-hook-shared").run(event("Stop", "s1"));
    EXPECT_EQ(r.exitStatus, 0);
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_FALSE(fs::exists(sessions));
}
