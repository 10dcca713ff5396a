// The live model's two-second cycle with 200 sessions whose transcripts are 50 MB each (sparse files:
// only their last megabyte holds real lines). Prints the first cycle, idle cycles, a cycle after one
// transcript changed, and the bytes each read, as /proc/self/io counts them.
#include "Skeldrin/model/SessionsModel.h"
#include "TrackerCore/ProcessInspector.h"

#include <QCoreApplication>
#include <QLoggingCategory>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <unistd.h>

using namespace skeldrin;
namespace fs = std::filesystem;

namespace {

constexpr int kSessions = 200;
constexpr off_t kTranscriptSize = 50LL * 1024 * 1024;

long long bytesRead()
{
    std::ifstream io("/proc/self/io");
    std::string key;
    long long value = 0;
    while (io >> key >> value)
        if (key == "rchar:") return value;
    return 0;
}

std::string stamp(int secondsAgo)
{
    return formatIso8601(std::chrono::time_point_cast<std::chrono::microseconds>(std::chrono::system_clock::now()) -
                         std::chrono::seconds(secondsAgo));
}

// About a megabyte of the lines a busy session writes: prompts, tool calls, tool results of 10-200 KB.
std::string transcriptTail(int session)
{
    std::string out;
    const std::string big(150 * 1024, 'x');
    for (int turn = 0; out.size() < 1024 * 1024; ++turn) {
        out += R"({"type":"user","timestamp":")" + stamp(3000 - turn) +
               R"(","message":{"role":"user","content":"Make the parser stream its input, part )" +
               std::to_string(turn) + R"("}})" "\n";
        out += R"({"type":"assistant","timestamp":")" + stamp(2990 - turn) +
               R"(","message":{"role":"assistant","content":[{"type":"tool_use","id":"toolu_)" + std::to_string(turn) +
               R"(","name":"Bash","input":{"command":"cat build.log"}}]}})" "\n";
        out += R"({"type":"user","timestamp":")" + stamp(2980 - turn) +
               R"(","message":{"role":"user","content":[{"type":"tool_result","tool_use_id":"toolu_)" +
               std::to_string(turn) + R"(","content":")" + big.substr(0, static_cast<std::size_t>(10240 + turn * 9000 % 190000)) +
               R"("}]}})" "\n";
    }
    out += R"({"type":"assistant","timestamp":")" + stamp(60) +
           R"(","message":{"content":[{"type":"tool_use","id":"toolu_bg","name":"Bash","input":{"command":"npm run dev","run_in_background":true}}]}})" "\n";
    out += R"({"type":"user","timestamp":")" + stamp(59) +
           R"(","message":{"content":[{"type":"tool_result","tool_use_id":"toolu_bg","content":"Command running in background with ID: bg)" +
           std::to_string(session) + R"("}]}})" "\n";
    out += R"({"type":"custom-title","customTitle":"Streaming parser )" + std::to_string(session) + "\"}\n";
    return out;
}

void writeSparseTranscript(const fs::path& path, const std::string& tail)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ::ftruncate(fd, kTranscriptSize - static_cast<off_t>(tail.size())) != 0 ||
        ::pwrite(fd, tail.data(), tail.size(), kTranscriptSize - static_cast<off_t>(tail.size())) < 0) {
        std::perror(path.c_str());
        std::exit(1);
    }
    ::close(fd);
}

template <class F> double timed(F&& f)
{
    const auto start = std::chrono::steady_clock::now();
    f();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    char pattern[] = "/tmp/skeldrin-model-bench-XXXXXX";
    const fs::path root = mkdtemp(pattern);
    // Laid out as a home directory, so that `skeldrin status` can be pointed at it.
    const SessionStore store(root / "data/Skeldrin/sessions");
    const auto self = ProcessInspector::ref(static_cast<ProcessInspector::Pid>(getpid()));

    for (int i = 0; i < kSessions; ++i) {
        const std::string id = "session-" + std::to_string(i);
        const fs::path transcript = root / (id + ".jsonl");
        writeSparseTranscript(transcript, transcriptTail(i));
        store.update(id, [&](const auto&) {
            Session s(id, "claude", "/src/project-" + std::to_string(i), {}, self,
                      std::chrono::time_point_cast<std::chrono::microseconds>(std::chrono::system_clock::now()) -
                          std::chrono::hours(2));
            s.transcriptPath = transcript.string();
            s.lastPrompt = "Make the parser stream its input";
            return std::optional(s);
        });
    }
    // Idle sessions' files were written long ago: let them pass the model's settle margin (a second).
    ::sleep(2);

    AppSettings settings(QString::fromStdString((root / "settings.ini").string()));
    SessionsModel::Dependencies deps;
    deps.settings = &settings;
    deps.claudeSettings = root / "claude-settings.json";
    SessionsModel model(store, deps);

    long long before = bytesRead();
    const double first = timed([&] {
        model.reload();
        model.refreshCycle();
    });
    std::printf("first cycle (reads every transcript's tail): %.1f ms, %.1f MB read, %zu rows listed\n", first,
                static_cast<double>(bytesRead() - before) / 1e6, model.list().size());

    std::vector<double> idle;
    before = bytesRead();
    for (int i = 0; i < 50; ++i) idle.push_back(timed([&] { model.refreshCycle(); }));
    std::sort(idle.begin(), idle.end());
    std::printf("idle cycle, nothing changed: median %.3f ms, worst %.3f ms, %lld bytes read per cycle\n",
                idle[idle.size() / 2], idle.back(), (bytesRead() - before) / 50);

    const fs::path changed = root / "session-7.jsonl";
    {
        std::ofstream(changed, std::ios::app) << R"({"type":"ai-title","aiTitle":"Changed"})" "\n";
    }
    before = bytesRead();
    const double one = timed([&] { model.refreshCycle(); });
    std::printf("cycle after one transcript changed: %.3f ms, %.1f KB read\n", one,
                static_cast<double>(bytesRead() - before) / 1e3);

    // The command line on the same store: a process that starts, runs one cycle and prints.
    std::vector<double> status;
    const std::string command = "HOME='" + root.string() + "' XDG_DATA_HOME='" + root.string() +
                                "/data' XDG_CONFIG_HOME='" + root.string() + "/config' '" SKELDRIN_BIN_DIR
                                "/skeldrin' status >/dev/null";
    for (int i = 0; i < 7; ++i)
        status.push_back(timed([&] {
            if (std::system(command.c_str()) != 0) std::perror("skeldrin status");
        }));
    std::sort(status.begin(), status.end());
    std::printf("skeldrin status on this store: median %.1f ms wall (through sh), best %.1f ms\n",
                status[status.size() / 2], status.front());

    fs::remove_all(root);
    return 0;
}
