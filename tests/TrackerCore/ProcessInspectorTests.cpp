#include "TrackerCore/ProcessInspector.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
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
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

using namespace skeldrin;
using namespace skeldrin::ProcessInspector;

namespace {

const char* const kProbe = SKELDRIN_PROCESS_PROBE;

// Reads fd up to and including the first newline, or to its end.
std::string readLine(int fd)
{
    std::string line;
    for (char byte; line.empty() || line.back() != '\n';) {
        const auto count = ::read(fd, &byte, 1);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        line += byte;
    }
    return line;
}

// The probe in "wait" mode as a child of the test, alive until finish(): optionally in a session of
// its own, with a controlling terminal, or with an environment of the test's choosing.
struct ChildOptions {
    bool newSession = false;
    std::string terminal; // slave side to make the controlling terminal; implies newSession
    std::optional<std::vector<std::string>> environment;
};

class Child {
public:
    explicit Child(const ChildOptions& options = {})
    {
        int input[2], output[2];
        if (::pipe2(input, O_CLOEXEC) != 0 || ::pipe2(output, O_CLOEXEC) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
        // Opened by a session leader without a terminal, the slave becomes its controlling terminal.
        if (!options.terminal.empty())
            posix_spawn_file_actions_addopen(&actions, 3, options.terminal.c_str(), O_RDWR, 0);
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        if (options.newSession || !options.terminal.empty())
            posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
        std::vector<char*> envp;
        if (options.environment)
            for (const auto& entry : *options.environment) envp.push_back(const_cast<char*>(entry.c_str()));
        envp.push_back(nullptr);
        char* argv[] = {const_cast<char*>(kProbe), const_cast<char*>("wait"), nullptr};
        if (::posix_spawn(&pid_, kProbe, &actions, &attributes, argv,
                          options.environment ? envp.data() : environ) != 0)
            pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
        ::close(input[0]);
        ::close(output[1]);
        input_ = input[1];
        if (pid_ > 0) started_ = readLine(output[0]) == "ready\n";
        ::close(output[0]);
    }
    ~Child() { finish(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return pid_; }
    // The probe runs (past exec and any terminal set-up) and waits.
    bool started() const { return started_; }

    // Lets the probe exit and reaps it, so that its pid no longer names a process.
    void finish()
    {
        if (input_ >= 0) ::close(input_);
        input_ = -1;
        while (pid_ > 0 && ::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
    int input_ = -1;
    bool started_ = false;
};

// A made-up process table for the ancestor walk.
struct Table {
    std::map<Pid, Record> records;
    int lookups = 0;

    void add(Pid pid, Pid parentPid, std::string name)
    {
        records[pid] = Record{pid, parentPid, 1000.0 + pid, std::nullopt, std::move(name)};
    }
    Lookup lookup()
    {
        return [this](Pid pid) -> std::optional<Record> {
            ++lookups;
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

TEST(ProcessInspectorLive, RefIdentifiesOneRunOfAProcess)
{
    const auto self = ref(::getpid());
    ASSERT_TRUE(self);
    EXPECT_EQ(self->pid, ::getpid());
    EXPECT_EQ(ref(::getpid()), self) << "the start time must come out the same on every reading";
    EXPECT_TRUE(isAlive(*self));
    // Same pid, another start time: a reused pid, not our process.
    EXPECT_FALSE(isAlive(ProcessRef{self->pid, self->startTime + 1}));
    EXPECT_FALSE(isAlive(ProcessRef{self->pid, std::nextafter(self->startTime, 0.0)}));

    Child child;
    ASSERT_TRUE(child.started());
    const pid_t pid = child.pid();
    const auto started = ref(pid);
    ASSERT_TRUE(started);
    EXPECT_EQ(started->pid, pid);
    EXPECT_GE(started->startTime, self->startTime);
    EXPECT_TRUE(isAlive(*started));

    child.finish();
    EXPECT_FALSE(isAlive(*started));
    EXPECT_FALSE(ref(pid));
    EXPECT_FALSE(controllingTTY(pid));
    EXPECT_FALSE(executablePath(pid));
    EXPECT_FALSE(startingEnvironment(pid));
    EXPECT_FALSE(claude(pid));
}

TEST(ProcessInspectorLive, ControllingTerminal)
{
    Child detached({.newSession = true, .terminal = {}, .environment = {}});
    ASSERT_TRUE(detached.started());
    EXPECT_EQ(controllingTTY(detached.pid()), std::nullopt);

    const int master = ::posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0) << std::strerror(errno);
    ASSERT_EQ(::grantpt(master), 0);
    ASSERT_EQ(::unlockpt(master), 0);
    const char* slave = ::ptsname(master);
    ASSERT_NE(slave, nullptr);
    const std::string slavePath = slave;
    {
        Child attached({.newSession = true, .terminal = slavePath, .environment = {}});
        ASSERT_TRUE(attached.started()) << "could not make " << slavePath << " the controlling terminal";
        EXPECT_EQ(controllingTTY(attached.pid()), slavePath);
    }
    ::close(master);
}

TEST(ProcessInspectorLive, ExecutableAndStartingEnvironment)
{
    Child child({.newSession = false,
                 .terminal = {},
                 .environment = std::vector<std::string>{"SKELDRIN_PROBE=one", "DUP=first", "EQ=b=c", "NOEQUALS",
                                                         "DUP=second", "EMPTY="}});
    ASSERT_TRUE(child.started());
    EXPECT_EQ(executablePath(child.pid()), std::filesystem::canonical(kProbe).string());
    const Environment expected{{"SKELDRIN_PROBE", "one"}, {"DUP", "second"}, {"EQ", "b=c"}, {"EMPTY", ""}};
    EXPECT_EQ(startingEnvironment(child.pid()), expected);
}

// The hook is run by Claude Code through shells that do not exec their last command.
TEST(ProcessInspectorLive, ClaudeIsTheFirstAncestorThatIsNotAShell)
{
    const auto self = ref(::getpid());
    ASSERT_TRUE(self);
    FILE* shell = ::popen((std::string("bash -c '\"") + kProbe + "\" claude; true'; true").c_str(), "r");
    ASSERT_NE(shell, nullptr);
    const std::string output = readLine(::fileno(shell));
    ::pclose(shell);

    int pid = 0;
    double startTime = 0;
    ASSERT_EQ(std::sscanf(output.c_str(), "%d %la", &pid, &startTime), 2) << output;
    EXPECT_EQ((ProcessRef{pid, startTime}), *self) << output;
}

TEST(ProcessInspectorWalk, LooksThroughShellsToTheSessionProcess)
{
    Table table;
    table.add(500, 400, "claude");
    table.add(501, 500, "zsh");
    table.add(502, 501, "sh");
    table.add(503, 502, "skeldrin-hook");
    EXPECT_EQ(claude(503, table.lookup()), (ProcessRef{500, 1500}));

    // Every shell wrapper is looked through, whatever the order.
    table.add(600, 1, "node");
    Pid parent = 600;
    for (const char* shell : {"env", "fish", "dash", "bash", "zsh", "sh"}) {
        table.add(parent + 1, parent, shell);
        ++parent;
    }
    table.add(700, parent, "hook");
    EXPECT_EQ(claude(700, table.lookup()), (ProcessRef{600, 1600}));

    // The hook's own name plays no part, nor does "claude": the parent is taken when it is no shell.
    table.add(800, 600, "sh");
    EXPECT_EQ(claude(800, table.lookup()), (ProcessRef{600, 1600}));
    table.add(801, 2, "bash"); // a shell-named hook directly under a non-shell parent
    table.add(2, 1, "kthreadd");
    EXPECT_EQ(claude(801, table.lookup()), (ProcessRef{2, 1002}));
    table.add(802, 2, "sh"); // a shell under process 2 is looked through to it
    table.add(803, 802, "hook");
    EXPECT_EQ(claude(803, table.lookup()), (ProcessRef{2, 1002}));

    // Names close to a shell's are not shells.
    table.add(900, 1, "bash5");
    table.add(901, 900, "hook");
    EXPECT_EQ(claude(901, table.lookup()), (ProcessRef{900, 1900}));
}

TEST(ProcessInspectorWalk, GivesNothingWhenTheChainEndsWithoutASessionProcess)
{
    Table table;
    table.add(1, 0, "launchd");

    table.add(10, 1, "hook"); // parent is process 1
    EXPECT_EQ(claude(10, table.lookup()), std::nullopt);
    table.add(11, 0, "hook");
    EXPECT_EQ(claude(11, table.lookup()), std::nullopt);
    EXPECT_EQ(claude(12, table.lookup()), std::nullopt) << "no such hook";

    // Shells all the way up to process 1, which is never taken for the session.
    table.add(20, 1, "zsh");
    table.add(21, 20, "sh");
    table.add(22, 21, "hook");
    EXPECT_EQ(claude(22, table.lookup()), std::nullopt);

    // A candidate that has exited in the meantime.
    table.add(31, 30, "bash");
    table.add(32, 31, "hook");
    EXPECT_EQ(claude(32, table.lookup()), std::nullopt);
    table.add(42, 41, "hook");
    EXPECT_EQ(claude(42, table.lookup()), std::nullopt);

    // Records read one at a time can contradict each other (pids reused mid-walk); no endless loop.
    table.add(50, 52, "sh");
    table.add(51, 50, "bash");
    table.add(52, 51, "sh");
    table.add(53, 52, "hook");
    table.lookups = 0;
    EXPECT_EQ(claude(53, table.lookup()), std::nullopt);
    EXPECT_LE(table.lookups, 5);

    EXPECT_EQ(claude(53, Lookup{}), std::nullopt);
}

TEST(ProcessInspectorParse, ArgumentArea)
{
    const auto typical = procArgs(2, "/usr/local/bin/claude", 5,
                                  {"claude", "X=argument", "PATH=/bin", "HOME=/Users/me", "PATH=/usr/bin:/bin",
                                   "A=b=c", "NOEQUALS", "", "AFTER=end"});
    EXPECT_EQ(parseEnvironment(typical),
              (Environment{{"PATH", "/usr/bin:/bin"}, {"HOME", "/Users/me"}, {"A", "b=c"}}));

    // No padding and no terminating empty string: the environment runs to the end of the data.
    EXPECT_EQ(parseEnvironment(procArgs(1, "/bin/x", 0, {"x", "K=v"})), (Environment{{"K", "v"}}));
    std::string unterminated = procArgs(0, "/bin/x", 0, {"K=v"}) + "LAST=1";
    EXPECT_EQ(parseEnvironment(unterminated), (Environment{{"K", "v"}, {"LAST", "1"}}));

    EXPECT_EQ(parseEnvironment(""), std::nullopt);
    EXPECT_EQ(parseEnvironment(std::string_view("\x01\0\0", 3)), std::nullopt);
    EXPECT_EQ(parseEnvironment(std::string(4, '\0')), Environment{});
    EXPECT_EQ(parseEnvironment(procArgs(1, "", 0, {}).substr(0, 4) + "/bin/no-nul"), Environment{});
    EXPECT_EQ(parseEnvironment(procArgs(1, "/bin/x", 16, {})), Environment{});
    // More arguments announced than present.
    EXPECT_EQ(parseEnvironment(procArgs(9, "/bin/x", 1, {"x", "K=v"})), Environment{});
}

TEST(ProcessInspectorParse, EnvironBlock)
{
    using namespace std::string_literals;
    EXPECT_EQ(parseEnvironBlock("PATH=/a\0HOME=/h\0PATH=/b\0A=b=c\0NOEQUALS\0EMPTY=\0"s),
              (Environment{{"PATH", "/b"}, {"HOME", "/h"}, {"A", "b=c"}, {"EMPTY", ""}}));
    EXPECT_EQ(parseEnvironBlock("A=1\0\0B=2"s), (Environment{{"A", "1"}, {"B", "2"}}));
    EXPECT_EQ(parseEnvironBlock(""), Environment{});
}
