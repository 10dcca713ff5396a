// Reading a transcript's 512 KiB tail, as the session model does for every changed transcript.
// The tails are built like real ones: assistant turns and tool calls between tool results of
// 10-200 KB (source listings and command output, with escapes and non-ASCII text), a few
// background tasks with their results and notifications.
#include "TrackerCore/Json.h"
#include "TrackerCore/TranscriptTail.h"

#include <benchmark/benchmark.h>

#include <random>

using namespace skeldrin;

namespace {

constexpr std::size_t kBudget = 512 * 1024;

struct Shape {
    bool customTitleNearEnd;  // the common case: the walk stops after a few lines
    bool nonAsciiOutput;      // tool output full of multi-byte characters and escapes
    bool markersInResults;    // results whose recorded input repeats "run_in_background":true
    bool smallResults = false; // many short tool results instead of 10-200 KB ones
};

std::string stamp(int second)
{
    char buffer[40];
    std::snprintf(buffer, sizeof buffer, "2026-03-14T%02d:%02d:%02d.%03dZ", 9 + second / 3600, second / 60 % 60,
                  second % 60, second * 37 % 1000);
    return buffer;
}

std::string toolOutput(std::mt19937& random, std::size_t bytes, bool nonAscii)
{
    static const char* const asciiLines[] = {
        "    let total = entries.reduce(0) { $0 + $1.amount }",
        "src/importer.ts:42:7 - error TS2345: Argument of type \"string\" is not assignable",
        "\x1b[32m✓\x1b[0m parses quoted fields (3 ms)",
        "drwxr-xr-x  12 mara staff   384 Mar 14 09:20 Sources",
    };
    static const char* const wideLines[] = {
        "    // Größe der Übersicht prüfen — «Zeilenumbruch» ✓ 日本語のテキスト",
        "\x1b[31m✗\x1b[0m Ошибка: неверный формат даты → «2026-03-14» ⚠️",
    };
    std::string text;
    int number = 1;
    while (text.size() < bytes) {
        text += std::to_string(number++) + "→";
        if (nonAscii && random() % 2) text += wideLines[random() % 2];
        else text += asciiLines[random() % 4];
        text += '\n';
    }
    return text;
}

std::string line(const Json& value) { return value.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n"; }

Json assistant(int second, Json content)
{
    return {{"parentUuid", "0b8f6a1c-aa51-4c1e-b1d2-6e0f3a9c0001"},
            {"isSidechain", false},
            {"userType", "external"},
            {"cwd", "/home/mara/src/ledger"},
            {"sessionId", "7c1e9a52-3b0d-4f6e-9a8c-2d41f0b7e6a3"},
            {"version", "2.0.31"},
            {"type", "assistant"},
            {"timestamp", stamp(second)},
            {"message",
             {{"id", "msg_01XbQ"}, {"role", "assistant"}, {"model", "claude-sonnet-4-5"}, {"content", std::move(content)},
              {"usage", {{"input_tokens", 4}, {"output_tokens", 96}}}}}};
}

Json user(int second, Json content)
{
    return {{"parentUuid", "0b8f6a1c-aa51-4c1e-b1d2-6e0f3a9c0002"},
            {"type", "user"},
            {"timestamp", stamp(second)},
            {"sessionId", "7c1e9a52-3b0d-4f6e-9a8c-2d41f0b7e6a3"},
            {"message", {{"role", "user"}, {"content", std::move(content)}}}};
}

// A transcript of more than the budget, cut to its last kBudget bytes (mid-line, like a real read).
std::string tail(const Shape& shape)
{
    std::mt19937 random(20260314);
    std::string text;
    int second = 0, call = 0;
    text += line(user(second, "Import the March statements and fix whatever breaks"));
    text += line({{"type", "ai-title"}, {"aiTitle", "Import March statements"}});
    while (text.size() < kBudget + 64 * 1024) {
        second += 7;
        const std::string id = "toolu_01Bench" + std::to_string(++call);
        text += line(assistant(second, Json::array({{{"type", "text"}, {"text", "Let me check the importer output."}}})));
        const bool background = call % 3 == 0;
        Json input{{"command", "npm test -- --reporter dot"}, {"description", "Run the importer tests"}};
        if (background) input["run_in_background"] = true;
        text += line(assistant(second, Json::array({{{"type", "tool_use"}, {"id", id}, {"name", "Bash"}, {"input", input}}})));
        const std::size_t size = shape.smallResults ? 200 + random() % 400 : 10 * 1024 + random() % (190 * 1024);
        const std::string output =
            background ? "Command running in background with ID: bg" + std::to_string(call) + " (expires in 30m)"
                       : toolOutput(random, size, shape.nonAsciiOutput);
        Json result = user(second + 3, Json::array({{{"tool_use_id", id}, {"type", "tool_result"}, {"content", output}}}));
        result["toolUseResult"] = {{"stdout", output.substr(0, 2000)}, {"interrupted", false}};
        if (shape.markersInResults) result["toolUseResult"]["input"] = input;
        text += line(result);
        if (background && call % 6 == 0)
            text += line(user(second + 5, "<task-notification>\n<task-id>bg" + std::to_string(call - 3) +
                                               "</task-id>\n<status>completed</status>\n</task-notification>"));
    }
    if (shape.customTitleNearEnd) text += line({{"type", "custom-title"}, {"customTitle", "March import"}});
    text += line(assistant(second + 20, Json::array({{{"type", "text"}, {"text", "All statements imported."}}})));
    return text.substr(text.size() - kBudget);
}

std::vector<std::string_view> lines(std::string_view bytes)
{
    std::vector<std::string_view> out;
    std::size_t start = 0;
    while (start < bytes.size()) {
        std::size_t end = bytes.find('\n', start);
        if (end == std::string_view::npos) end = bytes.size();
        if (end > start) out.push_back(bytes.substr(start, end - start));
        start = end + 1;
    }
    return out;
}

void parseTail(benchmark::State& state, Shape shape)
{
    const std::string bytes = tail(shape);
    std::size_t tasks = 0;
    for (auto _ : state) {
        const TranscriptTail result = TranscriptTail::parse(bytes);
        tasks = result.runningBackgroundTasks.size();
        benchmark::DoNotOptimize(result);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
    state.counters["tasks"] = static_cast<double>(tasks);
    state.counters["lines"] = static_cast<double>(lines(bytes).size());
}

void scanTasks(benchmark::State& state, Shape shape)
{
    const std::string bytes = tail(shape);
    const auto split = lines(bytes);
    for (auto _ : state) benchmark::DoNotOptimize(TranscriptTail::runningBackgroundTasksIn(split));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}

} // namespace

// Custom title near the end and a recent turn: the walk stops after a few lines, so this is mostly
// the background-task scan.
BENCHMARK_CAPTURE(parseTail, common, Shape{true, false, false})->Unit(benchmark::kMillisecond);
// No custom title: the walk validates every line of the tail; multi-byte output takes the slow
// paths of UTF-8 checking; every result repeats a start marker and so is looked at as JSON.
BENCHMARK_CAPTURE(parseTail, worst, Shape{false, true, true})->Unit(benchmark::kMillisecond);
// No custom title, but plain output: what the walk over every line costs, against the common case.
BENCHMARK_CAPTURE(parseTail, untitled, Shape{false, false, false})->Unit(benchmark::kMillisecond);
// Thousands of short lines, none titled: the per-line costs of both passes.
BENCHMARK_CAPTURE(parseTail, shortLines, Shape{false, true, true, true})->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(scanTasks, common, Shape{true, false, false})->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(scanTasks, worst, Shape{false, true, true})->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(scanTasks, shortLines, Shape{false, true, true, true})->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
