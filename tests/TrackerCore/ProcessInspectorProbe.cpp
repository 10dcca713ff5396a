// A small process for ProcessInspectorTests to run inside real process trees.
//   claude  prints what ProcessInspector::claude finds for this process: "<pid> <start time in %a>" or "none"
//   wait    prints "ready" and stays until its standard input is closed
#include "TrackerCore/ProcessInspector.h"

#include <cstdio>
#include <string_view>

#include <unistd.h>

int main(int argc, char** argv)
{
    const std::string_view mode = argc > 1 ? argv[1] : "";
    if (mode == "claude") {
        const auto found = skeldrin::ProcessInspector::claude(::getpid());
        if (found)
            std::printf("%d %a\n", found->pid, found->startTime);
        else
            std::printf("none\n");
        return 0;
    }
    if (mode == "wait") {
        std::printf("ready\n");
        std::fflush(stdout);
        char byte;
        while (::read(STDIN_FILENO, &byte, 1) > 0) {
        }
        return 0;
    }
    std::fprintf(stderr, "usage: %s claude|wait\n", argv[0]);
    return 2;
}
