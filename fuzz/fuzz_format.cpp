// libFuzzer entry of fuzz_format; the checks are in fuzz_format_one.cpp.
#include <cstdio>
#include <cstdlib>

#include "fuzz/fuzz_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (const char *bad = fuzz_format_one(data, size)) {
        fprintf(stderr, "fuzz_format: %s\n", bad);
        abort();
    }
    return 0;
}
