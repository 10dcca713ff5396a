#include "TrackerCore/ProcessInspectorLinux.h"
#include "support/TempDir.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <vector>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace skeldrin::ProcessInspector;
using namespace skeldrin::ProcessInspector::procfs;
namespace fs = std::filesystem;
using skeldrin::test::readText;
using skeldrin::test::writeText;

TEST(ProcessInspectorProcfs, StatTerminalAndBootTimeAreReadFromTheKernelsText)
{
    const std::string tail =
        " 34816 1234 4194304 98 0 0 0 0 0 0 0 20 0 1 0 73413 3133440 358 18446744073709551615 0\n";
    // Stat fields follow the last parenthesis.
    EXPECT_EQ(parseStat("1234 (a) b (c) S 77 1234 1234" + tail), (Stat{77, 34816, 73413, "a) b (c"}));
    const std::string truncated = "9 (sh) R 1 9 9" + tail.substr(0, tail.find(" 73413"));
    for (const std::string& bad : {"9 (sh R 1 9 9" + tail, "9 (sh) R x 9 9" + tail, truncated})
        EXPECT_EQ(parseStat(bad), std::nullopt) << bad;

    // tty_nr as the kernel prints it: ptys have majors 136 to 143 (minor 300 of 136, 255 of 143), 4 holds
    // the virtual consoles (minor 63) then the serial lines; the console (5:1) is not named from the number.
    const std::pair<std::int64_t, std::optional<std::string>> ttys[] = {
        {1083436, "/dev/pts/300"}, {36863, "/dev/pts/2047"}, {34560, std::nullopt}, {36864, std::nullopt},
        {1087, "/dev/tty63"},      {1088, "/dev/ttyS0"},     {0, std::nullopt},     {1281, std::nullopt}};
    for (const auto& [ttyNr, path] : ttys)
        EXPECT_EQ(ttyPath(ttyNr), path) << ttyNr;

    EXPECT_EQ(bootTime("cpu  1 2 3\nctxt 9\nbtime 1795391846\nprocesses 40\n"), 1795391846);
    EXPECT_EQ(bootTime("btime 12"), 12);
    for (const char* bad : {"cpu 1\nprocesses 40\n", "xbtime 12\n", "btime twelve\n"})
        EXPECT_EQ(bootTime(bad), std::nullopt) << bad;
}

class BootAnchorTest : public ::testing::Test {
  protected:
    // A btime source that counts how often it was asked.
    std::function<std::optional<std::int64_t>()> btime(std::int64_t value)
    {
        return [this, value] { return ++asked, std::optional(value); };
    }

    skeldrin::test::TempDir directory{"skeldrin-anchor"};
    fs::path file = directory / "skeldrin-boot";
    int asked = 0;
};

TEST_F(BootAnchorTest, FirstBtimeOfABootSurvivesRacingReadersAndClockStepsAndDamageIsReplaced)
{
    // Eight first readers at once, each with a btime of its own, started together.
    int go[2];
    ASSERT_EQ(::pipe(go), 0);
    std::vector<pid_t> readers;
    for (int i = 0; i < 8; ++i) {
        readers.push_back(::fork());
        if (readers.back() == 0) {
            ::close(go[1]);
            char byte;
            while (::read(go[0], &byte, 1) > 0) {
            }
            // Which reader's btime it got.
            ::_exit(static_cast<int>(
                bootAnchor(file, "boot-a", [i] { return std::optional(1000 + i); }).value_or(0) - 1000));
        }
    }
    ::close(go[0]);
    ::close(go[1]);
    std::set<int> seen;
    for (const pid_t pid : readers) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        seen.insert(WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    }
    // They all got the one that was stored; later the clock was stepped: btime moved, the anchor does not,
    // and /proc/stat need not be read.
    EXPECT_EQ(seen, std::set{static_cast<int>(bootAnchor(file, "boot-a", btime(1042)).value_or(0) - 1000)});
    EXPECT_EQ(asked, 0);
    // A new boot starts a new anchor.
    EXPECT_EQ(bootAnchor(file, "boot-b", btime(5000)), 5000);
    EXPECT_EQ(bootAnchor(file, "boot-b", btime(5007)), 5000);
    EXPECT_EQ(std::distance(fs::directory_iterator(directory.path()), {}), 1)
        << "a temporary file was left behind";

    for (const std::string damaged : {"garbage", "boot-a\n", "boot-a 12x\n", "boot-a 1000"}) {
        writeText(file, damaged);
        ::chmod(file.c_str(), 0600);
        EXPECT_EQ(bootAnchor(file, "boot-a", btime(2000)), 2000) << damaged;
        EXPECT_EQ(bootAnchor(file, "boot-a", btime(3000)), 2000) << damaged;
    }
    EXPECT_EQ(bootAnchor(directory / "missing" / "anchor", "boot-a", btime(4000)), 4000);
    EXPECT_EQ(bootAnchor(directory / "absent", "boot-a", [] { return std::optional<std::int64_t>(); }),
              std::nullopt);
}

// The file may sit in /tmp, where anyone can put something at its name first.
TEST_F(BootAnchorTest, UntrustedFilesAreNeitherBelievedNorTouched)
{
    const auto ignored = [&](const char* what) {
        SCOPED_TRACE(what);
        EXPECT_EQ(bootAnchor(file, "boot-a", btime(2000)), 2000);
        EXPECT_EQ(bootAnchor(file, "boot-b", btime(2000)), 2000);
    };
    const fs::path planted = directory / "planted";
    writeText(planted, "boot-a 1000\n");
    ::chmod(planted.c_str(), 0600);
    fs::create_symlink(planted, file);
    ignored("symlink");
    EXPECT_EQ(readText(planted), "boot-a 1000\n");

    fs::remove(file);
    fs::copy_file(planted, file);
    for (const auto mode : {0620, 0602}) {
        ::chmod(file.c_str(), static_cast<mode_t>(mode));
        ignored("writable by others");
    }
    if (::geteuid() == 0) { // only root can make a file that belongs to someone else
        ::chmod(file.c_str(), 0600);
        ASSERT_EQ(::chown(file.c_str(), 65534, 65534), 0);
        ignored("someone else's");
    }
    EXPECT_EQ(readText(file), "boot-a 1000\n");
    fs::remove(file);
    ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
    ignored("fifo");
    EXPECT_TRUE(fs::is_fifo(fs::symlink_status(file)));
}

TEST(ProcessInspectorProcfs, LookupAnchorsStartTimesInTheSharedFile)
{
    ASSERT_TRUE(ref(::getpid()));
    const auto bootId = readText("/proc/sys/kernel/random/boot_id").substr(0, 36);
    EXPECT_EQ(readText(anchorFilePath()).substr(0, 37), bootId + " ") << anchorFilePath();
    EXPECT_EQ(lookup(0), std::nullopt);
}
