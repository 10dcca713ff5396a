#include "TrackerCore/ProcessInspector.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <sstream>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace skeldrin;
using namespace skeldrin::ProcessInspector;

namespace {

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
    ASSERT_TRUE(master >= 0 && ::grantpt(master) == 0 && ::unlockpt(master) == 0) << std::strerror(errno);
    const std::string slave = ::ptsname(master);
    // cat in a session of its own, reading the slave side, which it opens after setsid and so gets as its
    // controlling terminal. What it echoes to the pipe shows it runs, past exec.
    int out[2];
    ASSERT_EQ(::pipe2(out, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, slave.c_str(), O_RDWR, 0);
    ::posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    ::posix_spawnattr_init(&attributes);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
    char* argv[] = {const_cast<char*>("/bin/cat"), nullptr};
    char* environment[] = {const_cast<char*>("SKELDRIN_PROBE=one"), const_cast<char*>("EMPTY="), nullptr};
    pid_t pid = 0;
    const int spawned = ::posix_spawn(&pid, argv[0], &actions, &attributes, argv, environment);
    ::posix_spawn_file_actions_destroy(&actions);
    ::posix_spawnattr_destroy(&attributes);
    ASSERT_EQ(spawned, 0) << std::strerror(spawned);
    ::close(out[1]);
    char echoed[6] = {};
    ASSERT_TRUE(::write(master, "ready\n", 6) == 6 && ::read(out[0], echoed, 6) == 6);

    const auto started = ref(pid);
    ASSERT_TRUE(started);
    EXPECT_EQ(ref(pid), started) << "the start time must come out the same on every reading";
    EXPECT_TRUE(isAlive(*started));
    EXPECT_FALSE(isAlive(ProcessRef{pid, started->startTime + 1})) << "a reused pid is another process";
    EXPECT_EQ(controllingTTY(pid), slave);
    EXPECT_EQ(executablePath(pid), std::filesystem::canonical(argv[0]).string());
    EXPECT_EQ(startingEnvironment(pid), (Environment{{"SKELDRIN_PROBE", "one"}, {"EMPTY", ""}}));

    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    ::close(master);
    ::close(out[0]);
    EXPECT_FALSE(isAlive(*started));
    EXPECT_FALSE(executablePath(pid));
    EXPECT_FALSE(startingEnvironment(pid));
}

// The hook is run by Claude Code through shells that do not exec their last command.
TEST(ProcessInspectorLive, ClaudeIsTheFirstAncestorThatIsNotAShell)
{
    FILE* shell = ::popen("bash -c '\"" SKELDRIN_PROCESS_PROBE "\"; true'; true", "r");
    ASSERT_NE(shell, nullptr);
    int pid = 0;
    double startTime = 0;
    const int found = std::fscanf(shell, "%d %la", &pid, &startTime);
    ::pclose(shell);
    ASSERT_EQ(found, 2);
    EXPECT_EQ((ProcessRef{pid, startTime}), ref(::getpid()));
}

TEST(ProcessInspectorWalk, TheSessionProcessIsTheFirstAncestorThatIsNoShell)
{
    // pid, parent, name: shells between hooks and their session process; a shell-named hook (505); a shell
    // under process 2; a parent that has exited (30); a cycle, as records read one by one show on pid reuse.
    std::istringstream table(
        "1 0 launchd  2 1 kthreadd  500 2 claude  501 500 env  502 501 zsh  503 502 sh "
        "504 503 skeldrin-hook  505 500 bash  600 2 sh  601 600 hook  20 1 zsh "
        "21 20 hook  31 30 bash  32 31 hook  50 52 sh  51 50 bash  52 51 sh  53 52 hook");
    std::map<Pid, Record> records;
    for (Record record; table >> record.pid >> record.parentPid >> record.shortName;
         records[record.pid] = record)
        record.startTime = 1000.0 + record.pid;
    const Lookup lookup = [&](Pid asked) {
        return records.contains(asked) ? std::optional(records.at(asked)) : std::nullopt;
    };
    // Process 1 is never the session's process; process 2 may be.
    const std::pair<Pid, std::optional<ProcessRef>> walks[] = {
        {504, ProcessRef{500, 1500}}, {505, ProcessRef{500, 1500}}, {601, ProcessRef{2, 1002}},
        {12, std::nullopt},           {21, std::nullopt},           {32, std::nullopt},
        {53, std::nullopt},
    };
    for (const auto& [hook, expected] : walks)
        EXPECT_EQ(claude(hook, lookup), expected) << hook;
    EXPECT_EQ(claude(504, Lookup{}), std::nullopt);
}

TEST(ProcessInspectorParse, ArgumentAreaAndEnvironBlock)
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

    using namespace std::string_literals;
    EXPECT_EQ(parseEnvironBlock("A=1\0\0NOEQUALS\0B=2"s), (Environment{{"A", "1"}, {"B", "2"}}));
}
