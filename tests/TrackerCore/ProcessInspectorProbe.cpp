// Run by ProcessInspectorTests inside a real process tree: prints what ProcessInspector::claude finds for
// this process, "<pid> <start time in %a>", or "none".
#include "TrackerCore/ProcessInspector.h"

#include <cstdio>

#include <unistd.h>

int main()
{
    const auto found = skeldrin::ProcessInspector::claude(::getpid());
    if (found)
        std::printf("%d %a\n", found->pid, found->startTime);
    else
        std::printf("none\n");
}
