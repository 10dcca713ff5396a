// The session store: sequential locked updates, loading a directory of sessions with and without the
// load cache, and many processes writing at once.
#include "TrackerCore/SessionStore.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>

using namespace skeldrin;
namespace fs = std::filesystem;

namespace {

Date now() { return std::chrono::time_point_cast<std::chrono::microseconds>(std::chrono::system_clock::now()); }

struct TempDir {
    fs::path path;
    TempDir()
    {
        char pattern[] = "/tmp/skeldrin-bench-XXXXXX";
        path = mkdtemp(pattern);
    }
    ~TempDir() { fs::remove_all(path); }
};

Session sample(const std::string& id)
{
    Origin origin;
    origin.termProgram = "iTerm.app";
    origin.tty = "/dev/ttys004";
    origin.projectDir = "/Users/dev/src/project";
    Session s(id, "claude", "/Users/dev/src/project", origin, ProcessRef{4242, 1773480000.25}, now());
    s.lastPrompt = "refactor the parser so that it streams the input instead of reading it whole";
    s.transcriptPath = "/Users/dev/.claude/projects/-Users-dev-src-project/" + id + ".jsonl";
    s.title = "Streaming parser";
    return s;
}

void BM_SequentialUpdate(benchmark::State& state)
{
    TempDir dir;
    const SessionStore store(dir.path);
    std::int64_t n = 0;
    for (auto _ : state) {
        store.update("s1", [&](const std::optional<Session>& current) {
            Session next = current ? *current : sample("s1");
            next.approvalsThisTurn = ++n; // a real change, so every update writes
            return std::optional(next);
        });
    }
}
BENCHMARK(BM_SequentialUpdate)->Iterations(1000)->Unit(benchmark::kMicrosecond);

void BM_LoadAll(benchmark::State& state)
{
    TempDir dir;
    const SessionStore store(dir.path);
    for (int i = 0; i < state.range(0); ++i) {
        const auto id = "session-" + std::to_string(i);
        store.update(id, [&](const auto&) { return std::optional(sample(id)); });
    }
    const bool cached = state.range(1) != 0;
    SessionStore::LoadCache cache;
    const Date later = now() + std::chrono::hours(1); // every file counts as settled
    for (auto _ : state) {
        auto result = cached ? store.loadAll(cache, later) : store.loadAll();
        benchmark::DoNotOptimize(result);
    }
    state.SetLabel(cached ? "cached, nothing changed" : "uncached");
}
BENCHMARK(BM_LoadAll)->Args({200, 0})->Args({200, 1})->Unit(benchmark::kMicrosecond);

// Processes at once, each updating one shared session and one of its own.
void concurrentProcesses(int processes, int updatesEach)
{
    TempDir dir;
    const SessionStore store(dir.path);
    const auto start = std::chrono::steady_clock::now();
    for (int p = 0; p < processes; ++p) {
        if (fork() == 0) {
            for (int i = 0; i < updatesEach; ++i)
                for (const std::string& id : {std::string("shared"), "own-" + std::to_string(p)})
                    store.update(id, [&](const std::optional<Session>& current) {
                        Session next = current ? *current : sample(id);
                        next.approvalsThisTurn += 1;
                        return std::optional(next);
                    });
            _exit(0);
        }
    }
    for (int p = 0; p < processes; ++p) wait(nullptr);
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    const auto shared = store.loadAll();
    std::int64_t count = 0;
    for (const auto& s : shared.sessions)
        if (s.id == "shared") count = s.approvalsThisTurn;
    std::printf("%d processes x %d updates of a shared and an own session: %.1f ms in all, %.1f us per update, "
                "shared count %lld of %d\n",
                processes, updatesEach, ms, ms * 1000 / (processes * updatesEach * 2), static_cast<long long>(count),
                processes * updatesEach);
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    concurrentProcesses(50, 20);
    return 0;
}
