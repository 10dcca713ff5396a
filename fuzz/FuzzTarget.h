#pragma once
// One fuzz target per input the project reads. Each file defines its target with SKELDRIN_FUZZ_TARGET;
// in the fuzz build that becomes libFuzzer's entry point, in the test build a plain function that the
// regression test runs over the kept inputs. A broken property aborts, which both report.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#define SKELDRIN_FUZZ_CHECK(condition)                                                                       \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            std::fprintf(stderr, "%s:%d: property broken: %s\n", __FILE__, __LINE__, #condition);            \
            std::abort();                                                                                    \
        }                                                                                                    \
    } while (false)

#ifdef SKELDRIN_FUZZ_ENTRY
#define SKELDRIN_FUZZ_TARGET(name)                                                                           \
    static void fuzz_##name(std::string_view);                                                               \
    extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)                        \
    {                                                                                                        \
        fuzz_##name(std::string_view(reinterpret_cast<const char*>(data), size));                            \
        return 0;                                                                                            \
    }                                                                                                        \
    static void fuzz_##name(std::string_view data)
#else
#define SKELDRIN_FUZZ_TARGET(name) void fuzz_##name(std::string_view data)
#endif
