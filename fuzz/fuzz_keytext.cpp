// libFuzzer entry of fuzz_keytext; the checks are in fuzz_keytext_one.cpp.
#include <cstdio>
#include <cstdlib>

#include "fuzz/fuzz_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (const char *bad = fuzz_keytext_one(data, size)) {
        fprintf(stderr, "fuzz_keytext: %s\n", bad);
        abort();
    }
    return 0;
}
