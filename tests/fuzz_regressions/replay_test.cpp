// Runs a fuzz harness's entry over stored inputs: the crashes that fuzzing found (one folder per
// harness here) and the harness's seed inputs. Under the sanitizer build a regression shows up
// as a sanitizer report; in every build it must not crash.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

namespace fs = std::filesystem;

// Every regular file below the folders listed (':'-separated) in FUZZ_REPLAY_DIRS, sorted.
std::vector<fs::path> replay_inputs() {
    std::vector<fs::path> files;
    std::stringstream dirs(FUZZ_REPLAY_DIRS);
    for (std::string dir; std::getline(dirs, dir, ':');) {
        std::error_code ec;
        if (!fs::is_directory(dir, ec)) continue;
        for (const auto &entry : fs::recursive_directory_iterator(dir))
            if (entry.is_regular_file() && entry.path().filename() != "README.md")
                files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

class FuzzReplay : public testing::TestWithParam<fs::path> {};

TEST_P(FuzzReplay, RunsCleanly) {
    std::ifstream in(GetParam(), std::ios::binary);
    ASSERT_TRUE(in) << GetParam();
    const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), {}};
    EXPECT_EQ(LLVMFuzzerTestOneInput(bytes.data(), bytes.size()), 0);
}

TEST(FuzzReplayEdge, EmptyAndOneByteInputs) {
    const uint8_t bytes[1] = {0xff};
    EXPECT_EQ(LLVMFuzzerTestOneInput(bytes, 0), 0);
    EXPECT_EQ(LLVMFuzzerTestOneInput(bytes, 1), 0);
}

std::string test_name(const testing::TestParamInfo<fs::path> &info) {
    std::string name =
        info.param.parent_path().filename().string() + "_" + info.param.filename().string();
    for (char &c : name)
        if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
    return name + "_" + std::to_string(info.index);
}

INSTANTIATE_TEST_SUITE_P(Stored, FuzzReplay, testing::ValuesIn(replay_inputs()), test_name);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(FuzzReplay);

}  // namespace
