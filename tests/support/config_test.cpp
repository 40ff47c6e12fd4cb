// Parameter parsing over inline lists and files, with the messages it logs.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <tuple>

#include "log_capture.h"
#include "utils_config.h"

namespace {

constexpr int32_t kUnset = -1;  // the plug-in presets its cells to all ones

struct Result {
    int rc;
    int32_t port, size;
    Lines log;
    bool operator==(const Result &) const = default;
    friend void PrintTo(const Result &r, std::ostream *os) {
        *os << r.rc << " port " << r.port << " size " << r.size << " "
            << testing::PrintToString(r.log);
    }
};

constexpr uint32_t kNeeded = CV_CONFIG_MANDATORY;

Result parse(const char *text, uint32_t flags = 0, uint32_t threshold = CVLOG_WARN) {
    Result r{0, kUnset, kUnset, {}};
    config_value_desc table[] = {{"port", &r.port, CV_CONFIG_INT, flags},
                                 {"size", &r.size, CV_CONFIG_INT, flags},
                                 {nullptr, nullptr, 0, 0}};
    r.log = logged(threshold, [&] { r.rc = corvaneexp_config_set_values(text, table, "smb"); });
    return r;
}

TEST(Config, InlineItems) {
    const std::string port_missing = "WARN Mandatory option: port is missing, for: smb";
    // clang-format off
    const std::tuple<const char *, uint32_t, Result> cases[] = {
        {nullptr,                   0, {0, kUnset, kUnset, {}}},
        {"port=0x10,size=0X1bd",    0, {0, 16, 445, {}}},
        {"port=010,size=12abc",     0, {0, 8, 12, {}}},
        {"port=-1,size=4294967296", 0, {0, -1, 0, {}}},
        {",port=1,,port=2,",        0, {0, 2, kUnset, {}}},
        {"port==1",                 0, {0, 1, kUnset, {}}},
        {"port=1=2",                0, {-1, kUnset, kUnset, {"WARN Cfgline problem: port=1=2"}}},
        {"port =1,Port=2,size=3",   0, {0, kUnset, 3, {
            "WARN Invalid config variable: port  with parameter: 1",
            "WARN Invalid config variable: Port with parameter: 2"}}},
        {nullptr,  kNeeded, {-1, kUnset, kUnset, {port_missing,
            "WARN Mandatory option: size is missing, for: smb"}}},
        {"size=1", kNeeded, {-1, kUnset, 1, {port_missing}}},
        // A malformed item ends the parse at once, before the mandatory options are checked.
        {"size=1,port,port=5", kNeeded, {-1, kUnset, 1, {"WARN Cfgline problem: port"}}},
    };
    // clang-format on
    for (const auto &[text, flags, expected] : cases)
        EXPECT_EQ(parse(text, flags), expected) << (text ? text : "null");
    EXPECT_EQ(parse("port=7", 0, CVLOG_DEBUG).log,
              (Lines{"DEBUG Cfg processing: port=7", "DEBUG Cfg found match: port 7"}));
}

class ConfigFile : public testing::Test {
  protected:
    void TearDown() override { std::filesystem::remove_all(dir_); }
    std::string Write(const std::string &content, const std::string &name = "params") {
        std::ofstream(dir_ + "/" + name, std::ios::binary) << content;
        return dir_ + "/" + name;
    }
    char tmpl_[20] = "/tmp/cfgtestXXXXXX";
    std::string dir_ = mkdtemp(tmpl_);
};

TEST_F(ConfigFile, KeepsOnlyUsableLines) {
    const std::string a(16382, 'a'), b(3000, 'b');
    const std::pair<std::string, Lines> cases[] = {
        {"", {}},
        {"a=1\nb=2\r\nc=3\rd=4\r", {"a=1", "b=2", "c=3\rd=4"}},
        {"x=1 # note\n#y\nab\n\n\r\nabc", {"abc"}},
        // Past 16382 characters a line comes back in pieces, each a line of its own.
        {a + b + "\r\n", {a, b}},
        {a + "\nxyz\n", {a, "xyz"}},
        {a + "b\r\n", {a}},
        {a.substr(1) + "\r\nxyz\n", {a.substr(1), "xyz"}}};
    for (const auto &[content, expected] : cases) {
        cv::config::StrList list(corvaneexp_read_config(Write(content).c_str()));
        ASSERT_NE(list, nullptr);
        EXPECT_EQ(Lines(list.get(), list.get() + corvaneexp_config_count_fields(list.get())),
                  expected);
    }
    EXPECT_EQ(corvaneexp_read_config((dir_ + "/none").c_str()), nullptr);
}

TEST_F(ConfigFile, ParametersFromFile) {
    EXPECT_EQ(parse(Write("port=0x1bd\r\n# c\nsize=010 # old\nzz\nsize=12\r\n").c_str()),
              (Result{0, 445, 12, {}}));
    // A text that names a file is read as that file, whatever it looks like.
    EXPECT_EQ(parse(Write("port=1", "port=9,size=3").c_str()), (Result{0, 1, kUnset, {}}));
    EXPECT_EQ(parse(Write("port=3\n" + std::string(16390, 's') + "\n").c_str()),
              (Result{-1, 3, kUnset, {"WARN Cfgline problem: " + std::string(16382, 's')}}));
}

}  // namespace
