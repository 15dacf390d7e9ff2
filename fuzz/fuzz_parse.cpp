// libFuzzer entry of fuzz_parse; the checks are in fuzz_parse_one.cpp.
#include <cstdio>
#include <cstdlib>

#include "fuzz/fuzz_checks.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_parse_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (const char *bad = fuzz_parse_one(data, size)) {
        fprintf(stderr, "fuzz_parse: %s\n", bad);
        abort();
    }
    return 0;
}
