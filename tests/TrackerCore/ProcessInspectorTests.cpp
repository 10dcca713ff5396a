#include "TrackerCore/ProcessInspector.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace skeldrin;
using namespace skeldrin::ProcessInspector;

namespace {

const char* const kProbe = SKELDRIN_PROCESS_PROBE;

// cat in a session of its own, with a controlling terminal (a pty's slave side) and an environment of the
// test's choosing; it runs until finish() closes its input.
struct Child {
    static constexpr const char* executable = "/bin/cat";
    pid_t pid = -1;
    int input = -1;
    bool started = false;

    Child(const std::string& terminal, char* const* environment)
    {
        int in[2], out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) return;
        pid = ::fork();
        if (pid == 0) {
            ::dup2(in[0], STDIN_FILENO);
            ::dup2(out[1], STDOUT_FILENO);
            ::setsid();
            // Opened by a session leader without a terminal, the slave becomes its controlling terminal.
            if (::open(terminal.c_str(), O_RDWR) < 0) ::_exit(1);
            char* argv[] = {const_cast<char*>(executable), nullptr};
            ::execve(executable, argv, environment);
            ::_exit(127);
        }
        ::close(in[0]);
        ::close(out[1]);
        input = in[1];
        // Echoed once cat runs, past exec and the terminal set-up.
        char echoed[6] = {};
        started = pid > 0 && ::write(input, "ready\n", 6) == 6 && ::read(out[0], echoed, 6) == 6;
        ::close(out[0]);
    }
    ~Child() { finish(); }

    // Lets cat exit and reaps it, so that its pid no longer names a process.
    void finish()
    {
        if (input >= 0) ::close(input);
        input = -1;
        while (pid > 0 && ::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        pid = -1;
    }
};

// A made-up process table for the ancestor walk.
struct Table {
    std::map<Pid, Record> records;

    void add(Pid pid, Pid parentPid, std::string name)
    {
        records[pid] = Record{pid, parentPid, 1000.0 + pid, std::nullopt, std::move(name)};
    }
    Lookup lookup()
    {
        return [this](Pid pid) -> std::optional<Record> {
            const auto found = records.find(pid);
            if (found == records.end()) return std::nullopt;
            return found->second;
        };
    }
};

std::string procArgs(std::int32_t argc, std::string_view execPath, std::size_t padding,
                     const std::vector<std::string>& strings)
{
    std::string bytes(sizeof argc, '\0');
    std::memcpy(bytes.data(), &argc, sizeof argc);
    bytes += execPath;
    bytes.append(1 + padding, '\0');
    for (const auto& s : strings) {
        bytes += s;
        bytes += '\0';
    }
    return bytes;
}

} // namespace

TEST(ProcessInspectorLive, AChildIsKnownByItsStartWhileItRunsAndForgottenOnceGone)
{
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0) << std::strerror(errno);
    ASSERT_EQ(::grantpt(master), 0);
    ASSERT_EQ(::unlockpt(master), 0);
    const std::string slave = ::ptsname(master);
    char* environment[] = {const_cast<char*>("SKELDRIN_PROBE=one"), const_cast<char*>("EMPTY="), nullptr};
    Child child(slave, environment);
    ASSERT_TRUE(child.started) << "could not make " << slave << " the controlling terminal";

    const pid_t pid = child.pid;
    const auto started = ref(pid);
    ASSERT_TRUE(started);
    EXPECT_EQ(ref(pid), started) << "the start time must come out the same on every reading";
    EXPECT_TRUE(isAlive(*started));
    EXPECT_FALSE(isAlive(ProcessRef{pid, started->startTime + 1})) << "a reused pid is another process";
    EXPECT_EQ(controllingTTY(pid), slave);
    EXPECT_EQ(executablePath(pid), std::filesystem::canonical(Child::executable).string());
    EXPECT_EQ(startingEnvironment(pid), (Environment{{"SKELDRIN_PROBE", "one"}, {"EMPTY", ""}}));

    child.finish();
    ::close(master);
    EXPECT_FALSE(isAlive(*started));
    EXPECT_FALSE(ref(pid));
    EXPECT_FALSE(executablePath(pid));
    EXPECT_FALSE(startingEnvironment(pid));
}

// The hook is run by Claude Code through shells that do not exec their last command.
TEST(ProcessInspectorLive, ClaudeIsTheFirstAncestorThatIsNotAShell)
{
    const auto self = ref(::getpid());
    ASSERT_TRUE(self);
    FILE* shell = ::popen((std::string("bash -c '\"") + kProbe + "\"; true'; true").c_str(), "r");
    ASSERT_NE(shell, nullptr);
    char output[128] = {};
    std::fgets(output, sizeof output, shell);
    ::pclose(shell);

    int pid = 0;
    double startTime = 0;
    ASSERT_EQ(std::sscanf(output, "%d %la", &pid, &startTime), 2) << output;
    EXPECT_EQ((ProcessRef{pid, startTime}), *self) << output;
}

TEST(ProcessInspectorWalk, LooksThroughShellsToTheSessionProcess)
{
    Table table;
    table.add(2, 1, "kthreadd");
    table.add(500, 2, "claude");
    table.add(501, 500, "env");
    table.add(502, 501, "zsh");
    table.add(503, 502, "sh");
    table.add(504, 503, "skeldrin-hook");
    EXPECT_EQ(claude(504, table.lookup()), (ProcessRef{500, 1500}));
    // The hook's own name plays no part: a shell-named hook's non-shell parent is taken.
    table.add(505, 500, "bash");
    EXPECT_EQ(claude(505, table.lookup()), (ProcessRef{500, 1500}));
    // A shell under process 2 is looked through to it.
    table.add(600, 2, "sh");
    table.add(601, 600, "hook");
    EXPECT_EQ(claude(601, table.lookup()), (ProcessRef{2, 1002}));
}

TEST(ProcessInspectorWalk, GivesNothingWhenTheChainEndsWithoutASessionProcess)
{
    Table table;
    table.add(1, 0, "launchd");
    table.add(10, 1, "hook");
    EXPECT_EQ(claude(10, table.lookup()), std::nullopt) << "parent is process 1";
    EXPECT_EQ(claude(12, table.lookup()), std::nullopt) << "no such hook";
    EXPECT_EQ(claude(10, Lookup{}), std::nullopt);

    // Shells all the way up to process 1, which is never taken for the session.
    table.add(20, 1, "zsh");
    table.add(21, 20, "hook");
    EXPECT_EQ(claude(21, table.lookup()), std::nullopt);

    // A candidate that has exited in the meantime.
    table.add(31, 30, "bash");
    table.add(32, 31, "hook");
    EXPECT_EQ(claude(32, table.lookup()), std::nullopt);

    // Records read one at a time can contradict each other (pids reused mid-walk); no endless loop.
    table.add(50, 52, "sh");
    table.add(51, 50, "bash");
    table.add(52, 51, "sh");
    table.add(53, 52, "hook");
    EXPECT_EQ(claude(53, table.lookup()), std::nullopt);
}

TEST(ProcessInspectorParse, ArgumentArea)
{
    const auto typical = procArgs(2, "/usr/local/bin/claude", 5,
                                  {"claude", "X=argument", "PATH=/bin", "HOME=/Users/me",
                                   "PATH=/usr/bin:/bin", "A=b=c", "NOEQUALS", "", "AFTER=end"});
    EXPECT_EQ(parseEnvironment(typical),
              (Environment{{"PATH", "/usr/bin:/bin"}, {"HOME", "/Users/me"}, {"A", "b=c"}}));
    // No terminating empty string: the environment runs to the end of the data.
    EXPECT_EQ(parseEnvironment(procArgs(0, "/bin/x", 0, {"K=v"}) + "LAST=1"),
              (Environment{{"K", "v"}, {"LAST", "1"}}));

    EXPECT_EQ(parseEnvironment(""), std::nullopt);
    EXPECT_EQ(parseEnvironment(procArgs(1, "", 0, {}).substr(0, 4) + "/bin/no-nul"), Environment{});
    EXPECT_EQ(parseEnvironment(procArgs(1, "/bin/x", 16, {})), Environment{});
    // More arguments announced than present.
    EXPECT_EQ(parseEnvironment(procArgs(9, "/bin/x", 1, {"x", "K=v"})), Environment{});
}

TEST(ProcessInspectorParse, EnvironBlockSkipsEmptyEntries)
{
    using namespace std::string_literals;
    EXPECT_EQ(parseEnvironBlock("A=1\0\0NOEQUALS\0B=2"s), (Environment{{"A", "1"}, {"B", "2"}}));
}
