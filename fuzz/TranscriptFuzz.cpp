// A transcript tail through the tail reader and the background-task scan, whole and cut at any byte.
#include "fuzz/FuzzTarget.h"

#include "TrackerCore/TranscriptTail.h"

#include <vector>

using namespace skeldrin;

SKELDRIN_FUZZ_TARGET(transcript)
{
    const TranscriptTail tail = TranscriptTail::parse(data);
    for (const auto& task : tail.runningBackgroundTasks)
        SKELDRIN_FUZZ_CHECK(!task.title.empty());

    std::vector<std::string_view> lines;
    for (std::size_t start = 0; start < data.size();) {
        const auto end = std::min(data.find('\n', start), data.size());
        if (end > start) lines.push_back(data.substr(start, end - start));
        start = end + 1;
    }
    SKELDRIN_FUZZ_CHECK(TranscriptTail::runningBackgroundTasksIn(lines) == tail.runningBackgroundTasks);
    // A tail may start anywhere, also inside a line or a character.
    if (!data.empty()) TranscriptTail::parse(data.substr(data.size() / 2));
}
