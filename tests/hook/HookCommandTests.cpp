// Drives the real skeldrin-hook executable the way Claude Code does: one process per event, the
// payload on standard input, with a temporary home.
#include "TrackerCore/ProcessInspector.h"
#include "TrackerCore/Session.h"
#include "support/TempDir.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace skeldrin;
namespace fs = std::filesystem;

namespace {

const std::string kHook = std::string(SKELDRIN_BIN_DIR) + "/skeldrin-hook";
const std::string kSharedHook = std::string(SKELDRIN_BIN_DIR) + "/skeldrin-hook-shared";
using Env = std::vector<std::string>; // NAME=value

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

class HookCommandTest : public ::testing::Test {
  protected:
    HookCommandTest() { std::signal(SIGPIPE, SIG_IGN); } // a hook that stops reading must not end the test

    // Runs an executable to its end with only `vars` set, `payload` piped in (or `input` as standard input).
    Outcome run(const Env& vars, const std::string& payload, const std::string& executable = kHook,
                const char* input = nullptr) const
    {
        static std::atomic<int> runs{0};
        const std::string out = (home / ("out" + std::to_string(++runs))).string(), err = out + ".err";
        std::vector<char*> envp(vars.size() + 1); // ends with a null
        std::transform(vars.begin(), vars.end(), envp.begin(),
                       [](auto& v) { return const_cast<char*>(v.c_str()); });
        int in[2];
        if (::pipe2(in, O_CLOEXEC) != 0) throw std::runtime_error("pipe"); // so the hook sees its input end
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        if (input) posix_spawn_file_actions_addopen(&actions, 0, input, O_RDWR | O_NOCTTY, 0);
        posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT, 0600);
        posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT, 0600);
        char* argv[] = {const_cast<char*>(executable.c_str()), nullptr};
        pid_t pid;
        const int spawned = posix_spawn(&pid, executable.c_str(), &actions, nullptr, argv, envp.data());
        posix_spawn_file_actions_destroy(&actions);
        ::close(in[0]);
        if (spawned == 0) (void)!::write(in[1], payload.data(), payload.size()); // all of it, or EPIPE
        ::close(in[1]);
        int status = 0;
        if (spawned != 0 || ::waitpid(pid, &status, 0) != pid)
            throw std::runtime_error("cannot run " + executable);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), test::readText(out),
                test::readText(err)};
    }
    Outcome hook(const std::string& payload) const { return run(env, payload); }
    // The dynamically linked hook with a preloaded shim that fails one kind of system call.
    Outcome failingHook(const std::string& fail, const std::string& payload) const
    {
        Env failing = env; // call:errno[:skip[:times]]; the shim comes first in the sanitizer build
        failing.insert(failing.end(), {"LD_PRELOAD=" SKELDRIN_FAIL_SHIM, "SKELDRIN_FAIL=" + fail,
                                       "ASAN_OPTIONS=verify_asan_link_order=0"});
        return run(failing, payload, kSharedHook);
    }
    Session session(const std::string& id) const { return decodeSession(bytes(id)); }
    std::string bytes(const std::string& id) const { return test::readText(sessions / (id + ".json")); }
    long files() const { return std::distance(fs::directory_iterator(sessions), {}); }
    static std::string event(const std::string& name, const std::string& id, const std::string& extra = "")
    {
        return R"({"hook_event_name":")" + name + R"(","session_id":")" + id + R"(","cwd":"/work/project")" +
               extra + "}";
    }

    test::TempDir home{"skeldrin-hook"};
    fs::path sessions = home / "data/Skeldrin/sessions";
    Env env = {"HOME=" + home.path().string(), "XDG_DATA_HOME=" + (home / "data").string(),
               "PATH=/usr/bin:/bin", "TERM_PROGRAM=iTerm.app", "CLAUDE_PROJECT_DIR=/work/project"};
};

} // namespace

TEST_F(HookCommandTest, RecordsTheEventWithItsProcessTerminalAndParent)
{
    // A stand-in Claude Code process started from inside another session.
    pid_t claude;
    char sleepPath[] = "/bin/sleep", seconds[] = "30", parent[] = "CLAUDE_CODE_SESSION_ID=parent-7";
    char* argv[] = {sleepPath, seconds, nullptr};
    char* envp[] = {parent, nullptr};
    ASSERT_EQ(posix_spawn(&claude, "/bin/sleep", nullptr, nullptr, argv, envp), 0);
    Env withClaude = env;
    withClaude.push_back("CLAUDE_PID=" + std::to_string(claude));
    const auto r =
        run(withClaude, event("UserPromptSubmit", "s1",
                              R"(,"prompt":"fix the build","transcript_path":"/t.jsonl","tool_response":")" +
                                  std::string(5 << 20, 'x') + "\""));
    kill(claude, SIGKILL);
    waitpid(claude, nullptr, 0);
    EXPECT_TRUE(r.exitStatus == 0 && r.out.empty() && r.err.empty()) << r.err;
    const Session s = session("s1");
    EXPECT_EQ(s.lastPrompt, "fix the build");
    EXPECT_EQ(s.origin.termProgram, "iTerm.app");
    EXPECT_EQ(s.transcriptPath, "/t.jsonl");
    EXPECT_EQ(s.process.value_or(ProcessRef{}).pid, claude);
    EXPECT_EQ(s.parentId, "parent-7");
}

TEST_F(HookCommandTest, FiftyHooksAtOnceLoseNoUpdate)
{
    // Half of them on one session, half each on its own.
    std::vector<Outcome> outcomes(50);
    std::vector<std::thread> threads;
    for (int i = 0; i < 50; ++i)
        threads.emplace_back([&, i] {
            const std::string command =
                R"(,"tool_name":"Bash","tool_input":{"command":"make )" + std::to_string(i);
            outcomes[i] = hook(i < 25 ? event("PermissionRequest", "shared", command + "\"}")
                                      : event("UserPromptSubmit", "own-" + std::to_string(i)));
        });
    for (auto& t : threads)
        t.join();
    for (const auto& o : outcomes)
        EXPECT_EQ(o.out + o.err, "");
    const Session shared = session("shared");
    EXPECT_EQ(shared.pendingApprovals, 25);
    EXPECT_EQ(shared.openPrompts.value_or(std::vector<std::string>{}).size(), 25u);
    EXPECT_EQ(files(), 27); // the lock, shared and 25 own: nothing left behind
    // Without CLAUDE_PID, the walk up from the hook: spawned by this test process, which is not a shell.
    EXPECT_EQ(session("own-49").process, ProcessInspector::ref(getpid()));
}

TEST_F(HookCommandTest, BadInputAndDiskFailuresExitQuietlyAndChangeNothing)
{
    const std::string prompt = event("UserPromptSubmit", "s1");
    ASSERT_EQ(hook(event("Stop", "s1")).exitStatus, 0); // ready, so that the prompt is a change
    const std::string before = bytes("s1"), corrupt = "{\"id\":\"s2\",\"agent\":";
    test::writeText(sessions / "s2.json", corrupt);
    const long count = files();
    const auto e = [](int error) { return ":" + std::to_string(error); };
    // The call the shim fails (none: the plain hook), and the payload.
    std::vector<std::pair<std::string, std::string>> cases;
    for (const std::string bad :
         {R"({"hook_event_name":"Stop","session_id":"s3")", R"(["hook_event_name"])",
          R"({"hook_event_name":"Stop","cwd":"/x"})", R"({"session_id":"s4"})",
          R"({"hook_event_name":"Stop","session_id":"s4","tool_input":{"questions":{}}})",
          R"({"hook_event_name":"Stop","session_id":"s1","cwd":false})",
          R"({"hook_event_name":"Stop","session_id":"../x"})"})
        cases.emplace_back("", bad);
    cases.emplace_back("", event("UserPromptSubmit", "s2"));
    for (const std::string& fail : {"open" + e(ENOSPC), "flock" + e(ENOLCK), "open" + e(ENOSPC) + ":1",
                                    "write" + e(ENOSPC), "rename" + e(EIO)})
        cases.emplace_back(fail, prompt);
    cases.emplace_back("unlink" + e(EIO), event("SessionEnd", "s1"));
    for (const auto& [fail, payload] : cases) {
        SCOPED_TRACE(fail + " " + payload);
        EXPECT_TRUE((fail.empty() ? hook(payload) : failingHook(fail, payload)).failedQuietly());
        EXPECT_EQ(files(), count); // nothing torn, lost or left behind
        EXPECT_EQ(bytes("s1"), before);
    }
    EXPECT_EQ(bytes("s2"), corrupt);
    EXPECT_NE(hook(event("Stop", "s2")).err.find("s2"), std::string::npos); // the error names the session
    EXPECT_FALSE(fs::exists(home / "data/Skeldrin/x.json"));
    // Run by hand in a terminal, it prints its usage instead of waiting for input that never comes.
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_TRUE(terminal >= 0 && grantpt(terminal) == 0 && unlockpt(terminal) == 0);
    EXPECT_TRUE(run(env, "", kHook, ptsname(terminal)).failedQuietly());
    close(terminal);
    EXPECT_EQ(files(), count);
    // An interrupted wait for the lock is retried.
    const auto retried = failingHook("flock" + e(EINTR) + ":0:3", prompt);
    EXPECT_EQ(retried.out + retried.err, "");
    EXPECT_EQ(session("s1").status(), Status::running);

    // A file where the directory should be stays.
    fs::remove_all(sessions);
    test::writeText(sessions, "not a directory");
    EXPECT_TRUE(hook(event("Stop", "s1")).failedQuietly());
    EXPECT_EQ(test::readText(sessions), "not a directory");
}
