/* libFuzzer target: tilvane::fuzz::ManifestParse (tests/fuzz/FuzzTargets.h). */
#include <cstdio>
#include <cstdlib>
#include <string>

#include "FuzzTargets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string problem = tilvane::fuzz::ManifestParse(data, size);
    if (!problem.empty()) {
        std::fprintf(stderr, "ManifestParse: %s\n", problem.c_str());
        std::abort();
    }
    return 0;
}
