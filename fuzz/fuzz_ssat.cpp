// libFuzzer entry of fuzz_ssat; the checks are in fuzz_ssat_one.cpp.
#include <cstdio>
#include <cstdlib>

#include "fuzz/fuzz_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (const char *bad = fuzz_ssat_one(data, size)) {
        fprintf(stderr, "fuzz_ssat: %s\n", bad);
        abort();
    }
    return 0;
}
