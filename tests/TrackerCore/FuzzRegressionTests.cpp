// Runs every fuzz target over its seed corpus and over the inputs the fuzzers once failed on (kept in
// tests/fixtures/fuzz/<target>), in the normal build: a broken property aborts the test.
#include <gtest/gtest.h>

#include <filesystem>
#include <string_view>

#include "support/TestFiles.h"

void fuzz_hook_payload(std::string_view data);
void fuzz_session_file(std::string_view data);
void fuzz_transcript(std::string_view data);
void fuzz_settings(std::string_view data);
#ifdef SKELDRIN_FUZZ_APP_READERS
void fuzz_color_text(std::string_view data);
void fuzz_placement(std::string_view data);
void fuzz_update_manifest(std::string_view data);
#endif

namespace fs = std::filesystem;

TEST(FuzzRegressions, EveryKeptInputKeepsItsProperties)
{
    const std::pair<const char*, void (*)(std::string_view)> targets[] = {
        {"hook_payload", fuzz_hook_payload},       {"session_file", fuzz_session_file},
        {"transcript", fuzz_transcript},           {"settings", fuzz_settings},
#ifdef SKELDRIN_FUZZ_APP_READERS
        {"color_text", fuzz_color_text},           {"placement", fuzz_placement},
        {"update_manifest", fuzz_update_manifest},
#endif
    };
    for (const auto& [name, target] : targets) {
        int inputs = 0;
        for (const fs::path& root :
             {fs::path(SKELDRIN_SOURCE_DIR) / "fuzz/corpus", fs::path(SKELDRIN_FIXTURES) / "fuzz"}) {
            for (std::error_code none; const auto& entry : fs::directory_iterator(root / name, none)) {
                SCOPED_TRACE(entry.path().string());
                target(skeldrin::test::readText(entry.path()));
                ++inputs;
            }
        }
        EXPECT_GT(inputs, 0) << name << " has no seeds";
    }
}
