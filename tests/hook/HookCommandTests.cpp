// Drives the real skeldrin-hook executable the way Claude Code does: one process per event, the
// payload on standard input, with a temporary home.
#include "TrackerCore/Files.h"
#include "TrackerCore/ProcessInspector.h"
#include "TrackerCore/Session.h"
#include "support/TempDir.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace skeldrin;
namespace fs = std::filesystem;

namespace {

const std::string kHook = std::string(SKELDRIN_BIN_DIR) + "/skeldrin-hook";
const std::string kSharedHook = std::string(SKELDRIN_BIN_DIR) + "/skeldrin-hook-shared";
using Env = std::map<std::string, std::string>;

struct Outcome {
    int exitStatus = -1;
    std::string out, err;
    // Failures are reported as one line of the hook's own, never on standard output.
    bool failedQuietly() const
    {
        return exitStatus == 0 && out.empty() && std::count(err.begin(), err.end(), '\n') == 1 &&
               err.starts_with("skeldrin-hook: ");
    }
};

// All a run wrote to one of its outputs.
std::string readBack(int fd)
{
    std::string text(static_cast<std::size_t>(::lseek(fd, 0, SEEK_END)), '\0');
    if (::pread(fd, text.data(), text.size(), 0) < 0) text = "unreadable";
    ::close(fd);
    return text;
}

// One run of a hook executable; start() and finish() apart let tests run many at once.
class Hook {
  public:
    explicit Hook(const Env& env, std::string executable = kHook)
        : executable_(std::move(executable))
    {
        for (const auto& [k, v] : env)
            env_.push_back(k + "=" + v);
    }

    pid_t start(int stdinFd = -1)
    {
        int in[2];
        if (::pipe2(in, O_CLOEXEC) != 0) throw std::runtime_error("pipe"); // so the hook sees its input end
        out_ = ::memfd_create("out", MFD_CLOEXEC), err_ = ::memfd_create("err", MFD_CLOEXEC);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, stdinFd >= 0 ? stdinFd : in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out_, 1);
        posix_spawn_file_actions_adddup2(&actions, err_, 2);
        std::vector<char*> envp;
        for (auto& s : env_)
            envp.push_back(s.data());
        envp.push_back(nullptr);
        char* argv[] = {executable_.data(), nullptr};
        pid_t pid;
        if (posix_spawn(&pid, executable_.c_str(), &actions, nullptr, argv, envp.data()) != 0)
            throw std::runtime_error("cannot start " + executable_);
        posix_spawn_file_actions_destroy(&actions);
        ::close(in[0]);
        stdin_ = in[1];
        return pid;
    }

    Outcome finish(pid_t pid, const std::string& payload)
    {
        for (std::size_t at = 0; at < payload.size();) {
            const ssize_t n = ::write(stdin_, payload.data() + at, payload.size() - at);
            if (n <= 0) break;
            at += static_cast<std::size_t>(n);
        }
        ::close(stdin_);
        int status = 0;
        ::waitpid(pid, &status, 0);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), readBack(out_),
                readBack(err_)};
    }

    Outcome run(const std::string& payload) { return finish(start(), payload); }

  private:
    std::vector<std::string> env_;
    std::string executable_;
    int stdin_ = -1, out_ = -1, err_ = -1;
};

class HookCommandTest : public ::testing::Test {
  protected:
    HookCommandTest() { std::signal(SIGPIPE, SIG_IGN); } // a hook that stops reading must not end the test

    Outcome hook(const std::string& payload) { return Hook(env).run(payload); }
    // The dynamically linked hook with a preloaded shim that fails one kind of system call.
    Outcome failingHook(const std::string& fail, const std::string& payload)
    {
        Env failing = env;
        failing["LD_PRELOAD"] = SKELDRIN_FAIL_SHIM;
        failing["SKELDRIN_FAIL"] = fail;                      // call:errno[:skip[:times]]
        failing["ASAN_OPTIONS"] = "verify_asan_link_order=0"; // the shim comes first in the sanitizer build
        return Hook(failing, kSharedHook).run(payload);
    }
    std::optional<Session> session(const std::string& id) const
    {
        const auto bytes = files::readWholeFile(sessions / (id + ".json"));
        return bytes ? std::optional(decodeSession(*bytes)) : std::nullopt;
    }
    std::string bytes(const std::string& id) const { return test::readText(sessions / (id + ".json")); }
    std::vector<std::string> listing() const
    {
        std::vector<std::string> names;
        if (fs::exists(sessions))
            for (const auto& e : fs::directory_iterator(sessions))
                names.push_back(e.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }
    static std::string event(const std::string& name, const std::string& id, const std::string& extra = "")
    {
        return R"({"hook_event_name":")" + name + R"(","session_id":")" + id + R"(","cwd":"/work/project")" +
               extra + "}";
    }

    test::TempDir home{"skeldrin-hook"};
    fs::path sessions = home / "data/Skeldrin/sessions";
    Env env = {{"HOME", home.path().string()},
               {"XDG_DATA_HOME", (home / "data").string()},
               {"PATH", "/usr/bin:/bin"},
               {"TERM_PROGRAM", "iTerm.app"},
               {"CLAUDE_PROJECT_DIR", "/work/project"}};
};

} // namespace

TEST_F(HookCommandTest, RecordsAnEventWithItsContextAfterReadingAllOfIt)
{
    const std::string output(5 * 1024 * 1024, 'x');
    const auto r = hook(
        event("UserPromptSubmit", "s1",
              R"(,"prompt":"fix the build","transcript_path":"/t.jsonl","tool_response":")" + output + "\""));
    EXPECT_EQ(r.exitStatus, 0);
    EXPECT_EQ(r.out + r.err, "");
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
    char sleepPath[] = "/bin/sleep", seconds[] = "30", parent[] = "CLAUDE_CODE_SESSION_ID=parent-7";
    char* argv[] = {sleepPath, seconds, nullptr};
    char* envp[] = {parent, nullptr};
    ASSERT_EQ(posix_spawn(&claude, "/bin/sleep", nullptr, nullptr, argv, envp), 0);
    env["CLAUDE_PID"] = std::to_string(claude);

    EXPECT_EQ(hook(event("SessionStart", "child-1")).exitStatus, 0);
    kill(claude, SIGKILL);
    waitpid(claude, nullptr, 0);
    const auto s = session("child-1");
    ASSERT_TRUE(s && s->process);
    EXPECT_EQ(s->process->pid, claude);
    EXPECT_EQ(s->parentId, "parent-7");

    // A CLAUDE_PID that names no live process falls back to the walk.
    EXPECT_EQ(hook(event("SessionStart", "other")).exitStatus, 0);
    EXPECT_EQ(session("other")->process, ProcessInspector::ref(getpid()));
}

TEST_F(HookCommandTest, BadPayloadsAndCorruptFilesFailQuietlyAndChangeNothing)
{
    ASSERT_EQ(hook(event("Stop", "keep")).exitStatus, 0);
    const std::string keep = bytes("keep");
    const std::string corrupt = "{\"id\":\"s1\",\"agent\":";
    test::writeText(sessions / "s1.json", corrupt);
    const auto before = listing();

    for (const std::string payload :
         {"", R"({"hook_event_name":"Stop","session_id":"s2")", R"(["hook_event_name","Stop"])",
          R"({"hook_event_name":"Stop","cwd":"/x"})",
          R"({"hook_event_name":"Stop","session_id":"keep","cwd":false})",
          "{\"hook_event_name\":\"Stop\",\"session_id\":\"s\xff\"}",
          R"({"hook_event_name":"Stop","session_id":"../x"})"})
        EXPECT_TRUE(hook(payload).failedQuietly()) << payload;

    // A session file the hook cannot read stays for the user, and the error names it.
    const auto r = hook(event("UserPromptSubmit", "s1"));
    EXPECT_TRUE(r.failedQuietly());
    EXPECT_NE(r.err.find("s1"), std::string::npos) << r.err;

    EXPECT_EQ(listing(), before);
    EXPECT_EQ(bytes("keep"), keep);
    EXPECT_EQ(bytes("s1"), corrupt);
    EXPECT_FALSE(fs::exists(home / "data/Skeldrin/x.json"));
}

TEST_F(HookCommandTest, TerminalOnStdinPrintsUsageInsteadOfWaiting)
{
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(grantpt(master) | unlockpt(master), 0);
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
    std::vector<Hook> hooks(kShared + kOwn, Hook(env));
    std::vector<pid_t> pids;
    for (auto& h : hooks)
        pids.push_back(h.start());
    for (int i = 0; i < kShared + kOwn; ++i) {
        const auto payload =
            i < kShared
                ? event("PermissionRequest", "shared",
                        R"(,"tool_name":"Bash","tool_input":{"command":"make )" + std::to_string(i) + "\"}")
                : event("UserPromptSubmit", "own-" + std::to_string(i));
        const auto r = hooks[i].finish(pids[i], payload);
        EXPECT_EQ(r.exitStatus, 0);
        EXPECT_EQ(r.err, "");
    }
    const auto shared = session("shared");
    ASSERT_TRUE(shared);
    EXPECT_EQ(shared->pendingApprovals, kShared);
    EXPECT_EQ(shared->openPrompts->size(), static_cast<std::size_t>(kShared));
    for (int i = kShared; i < kShared + kOwn; ++i)
        EXPECT_TRUE(session("own-" + std::to_string(i))) << i;
}

TEST_F(HookCommandTest, DiskAndSystemFailuresExitQuietlyAndLoseNoSession)
{
    const auto e = [](int error) { return ":" + std::to_string(error); };
    const std::string prompt = event("UserPromptSubmit", "s1");
    const std::pair<std::string, std::string> cases[] = {
        {"open" + e(ENOSPC), prompt},        // the lock
        {"flock" + e(ENOLCK), prompt},       //
        {"open" + e(ENOSPC) + ":1", prompt}, // the session file
        {"write" + e(ENOSPC), prompt},
        {"rename" + e(EIO), prompt},
        {"unlink" + e(EIO), event("SessionEnd", "s1")},
    };
    ASSERT_EQ(hook(event("Stop", "s1")).exitStatus, 0);
    const std::string before = bytes("s1");
    const auto names = listing();
    for (const auto& [fail, payload] : cases) {
        SCOPED_TRACE(fail);
        EXPECT_TRUE(failingHook(fail, payload).failedQuietly());
        EXPECT_EQ(listing(), names); // nothing torn, lost or left behind
        EXPECT_EQ(bytes("s1"), before);
    }
    // An interrupted wait for the lock is retried.
    const auto retried = failingHook("flock" + e(EINTR) + ":0:3", prompt);
    EXPECT_EQ(retried.out + retried.err, "");
    EXPECT_EQ(session("s1")->status(), Status::running);

    // A file where the directory should be, and a directory that cannot be created.
    fs::remove_all(sessions);
    test::writeText(sessions, "not a directory");
    EXPECT_TRUE(hook(event("Stop", "s1")).failedQuietly());
    EXPECT_EQ(test::readText(sessions), "not a directory");
    fs::remove(sessions);
    EXPECT_TRUE(failingHook("mkdir" + e(EIO), event("Stop", "s1")).failedQuietly());
    EXPECT_FALSE(fs::exists(sessions));
}
