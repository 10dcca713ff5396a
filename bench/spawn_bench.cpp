// Whole-process wall time of commands started directly (no shell), each with a file on standard input.
// Usage: spawn_bench RUNS INPUT COMMAND [COMMAND...]   prints the median and quartiles of each, and
// each command's median relative to the first. Runs alternate between the commands, so that machine
// noise falls on all of them alike.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

double runOnce(const char* command, const char* input)
{
    const int in = ::open(input, O_RDONLY | O_CLOEXEC);
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (in < 0 || null < 0) {
        std::perror(input);
        std::exit(1);
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in, 0);
    posix_spawn_file_actions_adddup2(&actions, null, 1);
    char* argv[] = {const_cast<char*>(command), nullptr};
    const auto start = std::chrono::steady_clock::now();
    pid_t pid;
    if (posix_spawn(&pid, command, &actions, nullptr, argv, environ) != 0) {
        std::perror(command);
        std::exit(1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    const auto end = std::chrono::steady_clock::now();
    posix_spawn_file_actions_destroy(&actions);
    ::close(in);
    ::close(null);
    return std::chrono::duration<double, std::milli>(end - start).count();
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4) {
        std::fprintf(stderr, "usage: spawn_bench RUNS INPUT COMMAND [COMMAND...]\n");
        return 2;
    }
    const int runs = std::atoi(argv[1]);
    const char* input = argv[2];
    const int commands = argc - 3;
    std::vector<std::vector<double>> times(static_cast<std::size_t>(commands));
    for (int c = 0; c < commands; ++c) runOnce(argv[3 + c], input); // warm caches
    for (int r = 0; r < runs; ++r)
        for (int c = 0; c < commands; ++c) times[static_cast<std::size_t>(c)].push_back(runOnce(argv[3 + c], input));
    double base = 0;
    for (int c = 0; c < commands; ++c) {
        auto& t = times[static_cast<std::size_t>(c)];
        std::sort(t.begin(), t.end());
        const double median = t[t.size() / 2];
        if (c == 0) base = median;
        std::printf("%-40s median %.3f ms (quartiles %.3f .. %.3f ms), %.2f x the first\n", argv[3 + c], median,
                    t[t.size() / 4], t[t.size() * 3 / 4], median / base);
    }
    return 0;
}
