/* libFuzzer target: tilvane::fuzz::RowDecode (tests/fuzz/FuzzTargets.h). */
#include <cstdio>
#include <cstdlib>
#include <string>

#include "FuzzTargets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string problem = tilvane::fuzz::RowDecode(data, size);
    if (!problem.empty()) {
        std::fprintf(stderr, "RowDecode: %s\n", problem.c_str());
        std::abort();
    }
    return 0;
}
