// Replays the saved fuzz inputs through the same checks the fuzz targets run.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/fuzz_checks.h"

namespace {

namespace fs = std::filesystem;

struct fuzz_target_t {
    const char *name;
    const char *(*one)(const uint8_t *data, size_t size);
};

const fuzz_target_t kTargets[] = {
    {"fuzz_parse", fuzz_parse_one},
    {"fuzz_keytext", fuzz_keytext_one},
    {"fuzz_ssat", fuzz_ssat_one},
    {"fuzz_format", fuzz_format_one},
};

std::vector<fs::path> inputs_of(const fs::path &dir) {
    std::vector<fs::path> files;
    if (!fs::is_directory(dir)) return files;
    for (const fs::directory_entry &e : fs::directory_iterator(dir))
        if (e.is_regular_file()) files.push_back(e.path());
    std::sort(files.begin(), files.end());
    return files;
}

std::string read_file(const fs::path &p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Runs every input of a directory; returns how many there were.
size_t replay(const fuzz_target_t &t, const fs::path &dir) {
    std::vector<fs::path> files = inputs_of(dir);
    for (const fs::path &f : files) {
        std::string bytes = read_file(f);
        const char *bad = t.one(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
        EXPECT_EQ(bad, nullptr) << f << ": " << (bad ? bad : "");
    }
    return files.size();
}

class FuzzRegress : public testing::TestWithParam<fuzz_target_t> {
protected:
    static void SetUpTestSuite() { fuzz_parse_init(); }
};

// The inputs that once broke something, then the seeds.
TEST_P(FuzzRegress, SavedInputsPass) {
    fs::path root(L3VPN_FUZZ_DIR);
    size_t n = replay(GetParam(), root / "regress" / GetParam().name);
    n += replay(GetParam(), root / "corpus" / GetParam().name);
    EXPECT_GE(n, 5u) << "inputs of " << GetParam().name << " are missing";
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzRegress, testing::ValuesIn(kTargets),
                         [](const testing::TestParamInfo<fuzz_target_t> &i) {
                             return std::string(i.param.name);
                         });

}  // namespace
