// Parameter parsing: inline lists and files, value conversion, malformed items, unknown and
// missing options, with the messages the parser logs.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "log_capture.h"
#include "utils_config.h"

namespace {

using Lines = std::vector<std::string>;

// The plug-in's way of telling a given value from a missing one: cells preset to all ones.
constexpr int32_t kUnset = -1;

struct Params {
    int32_t port = kUnset;
    int32_t size = kUnset;
    char *name = nullptr;
    ~Params() { free(name); }
};

struct InlineCase {
    const char *label;
    const char *text;
    int result;
    int32_t port;
    int32_t size;
    const char *name;
    Lines messages;  // at the WARN threshold
};
void PrintTo(const InlineCase &c, std::ostream *os) {
    *os << c.label;
}

class ConfigInline : public testing::TestWithParam<InlineCase> {};

TEST_P(ConfigInline, StoresValuesAndLogs) {
    const InlineCase &c = GetParam();
    Params p;
    config_value_desc table[] = {{"port", &p.port, CV_CONFIG_INT, 0},
                                 {"size", &p.size, CV_CONFIG_INT, 0},
                                 {"name", &p.name, CV_CONFIG_STRING, 0},
                                 {nullptr, nullptr, 0, 0}};
    LogCapture log(CVLOG_WARN);
    EXPECT_EQ(corvaneexp_config_set_values(c.text, table, "smb plugin"), c.result);
    EXPECT_EQ(log.Stop(), c.messages);
    EXPECT_EQ(p.port, c.port);
    EXPECT_EQ(p.size, c.size);
    if (c.name)
        EXPECT_STREQ(p.name, c.name);
    else
        EXPECT_EQ(p.name, nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Items, ConfigInline,
    testing::Values(
        InlineCase{"null_text", nullptr, 0, kUnset, kUnset, nullptr, {}},
        InlineCase{"empty_text", "", 0, kUnset, kUnset, nullptr, {}},
        InlineCase{"decimal", "port=139", 0, 139, kUnset, nullptr, {}},
        InlineCase{"hex_lower", "port=0x10", 0, 16, kUnset, nullptr, {}},
        InlineCase{"hex_upper", "port=0X1bd", 0, 445, kUnset, nullptr, {}},
        InlineCase{"octal", "port=010", 0, 8, kUnset, nullptr, {}},
        InlineCase{"stops_at_junk", "port=12abc", 0, 12, kUnset, nullptr, {}},
        InlineCase{"minus_one", "port=-1", 0, -1, kUnset, nullptr, {}},
        InlineCase{"all_ones", "port=4294967295", 0, -1, kUnset, nullptr, {}},
        InlineCase{"wraps_to_32_bits", "size=4294967296", 0, kUnset, 0, nullptr, {}},
        InlineCase{"string", "name=share,port=1", 0, 1, kUnset, "share", {}},
        InlineCase{"empty_items", ",port=1,,size=2,", 0, 1, 2, nullptr, {}},
        InlineCase{"double_equals", "port==1", 0, 1, kUnset, nullptr, {}},
        InlineCase{"later_wins", "port=1,port=2", 0, 2, kUnset, nullptr, {}},
        InlineCase{"three_pieces",
                   "port=1=2",
                   -1,
                   kUnset,
                   kUnset,
                   nullptr,
                   {"WARN Cfgline problem: port=1=2"}},
        InlineCase{"no_value", "port", -1, kUnset, kUnset, nullptr, {"WARN Cfgline problem: port"}},
        InlineCase{"no_key", "=5", -1, kUnset, kUnset, nullptr, {"WARN Cfgline problem: =5"}},
        InlineCase{"malformed_stops_at_once",
                   "port=1,size,size=5,bogus=1",
                   -1,
                   1,
                   kUnset,
                   nullptr,
                   {"WARN Cfgline problem: size"}},
        InlineCase{"blank_is_part_of_key",
                   "port =1",
                   0,
                   kUnset,
                   kUnset,
                   nullptr,
                   {"WARN Invalid config variable: port  with parameter: 1"}},
        InlineCase{"case_sensitive",
                   "Port=1",
                   0,
                   kUnset,
                   kUnset,
                   nullptr,
                   {"WARN Invalid config variable: Port with parameter: 1"}},
        InlineCase{"prefix_is_not_a_match",
                   "portx=1,por=2",
                   0,
                   kUnset,
                   kUnset,
                   nullptr,
                   {"WARN Invalid config variable: portx with parameter: 1",
                    "WARN Invalid config variable: por with parameter: 2"}},
        InlineCase{"unknown_then_known",
                   "foo=1,port=139",
                   0,
                   139,
                   kUnset,
                   nullptr,
                   {"WARN Invalid config variable: foo with parameter: 1"}}),
    [](const auto &info) { return std::string(info.param.label); });

TEST(Config, DebugTraceOfEachItem) {
    int32_t port = kUnset;
    config_value_desc table[] = {{"port", &port, CV_CONFIG_INT, 0}, {nullptr, nullptr, 0, 0}};
    LogCapture log(CVLOG_DEBUG);
    EXPECT_EQ(corvaneexp_config_set_values("port=7,x=1", table, "t"), 0);
    EXPECT_EQ(log.Stop(), (Lines{"DEBUG Cfg processing: port=7", "DEBUG Cfg found match: port 7",
                                 "DEBUG Cfg processing: x=1",
                                 "WARN Invalid config variable: x with parameter: 1"}));
}

struct MandatoryCase {
    const char *text;
    int result;
    uint32_t flags_a, flags_b, flags_c;
    Lines messages;
};
void PrintTo(const MandatoryCase &c, std::ostream *os) {
    *os << (c.text ? c.text : "null");
}

class ConfigMandatory : public testing::TestWithParam<MandatoryCase> {};

TEST_P(ConfigMandatory, EveryMissingOptionIsReported) {
    const MandatoryCase &c = GetParam();
    int32_t a = 0, b = 0, opt = 0;
    config_value_desc table[] = {{"a", &a, CV_CONFIG_INT, CV_CONFIG_MANDATORY},
                                 {"b", &b, CV_CONFIG_INT, CV_CONFIG_MANDATORY},
                                 {"c", &opt, CV_CONFIG_INT, 0},
                                 {nullptr, nullptr, 0, 0}};
    LogCapture log(CVLOG_WARN);
    EXPECT_EQ(corvaneexp_config_set_values(c.text, table, "owner x"), c.result);
    EXPECT_EQ(log.Stop(), c.messages);
    EXPECT_EQ(table[0].flags, c.flags_a);
    EXPECT_EQ(table[1].flags, c.flags_b);
    EXPECT_EQ(table[2].flags, c.flags_c);
}

INSTANTIATE_TEST_SUITE_P(
    Options, ConfigMandatory,
    testing::Values(
        MandatoryCase{nullptr,
                      -1,
                      1,
                      1,
                      0,
                      {"WARN Mandatory option: a is missing, for: owner x",
                       "WARN Mandatory option: b is missing, for: owner x"}},
        MandatoryCase{"c=1",
                      -1,
                      1,
                      1,
                      0,
                      {"WARN Mandatory option: a is missing, for: owner x",
                       "WARN Mandatory option: b is missing, for: owner x"}},
        MandatoryCase{
            "b=1,c=1", -1, 1, 3, 0, {"WARN Mandatory option: a is missing, for: owner x"}},
        MandatoryCase{"a=1,b=2", 0, 3, 3, 0, {}},
        // A malformed item ends the parse before the mandatory options are checked.
        MandatoryCase{"a=1,oops", -1, 3, 1, 0, {"WARN Cfgline problem: oops"}}));

TEST(Config, UnknownValueTypeStopsAtOnce) {
    int32_t first = 0, last = 0;
    config_value_desc table[] = {{"first", &first, CV_CONFIG_INT, 0},
                                 {"odd", &first, 7, CV_CONFIG_MANDATORY},
                                 {"last", &last, CV_CONFIG_INT, CV_CONFIG_MANDATORY},
                                 {nullptr, nullptr, 0, 0}};
    LogCapture log(CVLOG_WARN);
    EXPECT_EQ(corvaneexp_config_set_values("first=1,odd=2,last=3", table, "t"), -1);
    EXPECT_EQ(log.Stop(), Lines{"WARN INVALID config value type (programming error)"});
    EXPECT_EQ(first, 1);
    EXPECT_EQ(last, 0);
}

// Parameter files in a private directory.
class ConfigFile : public testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/cfgtestXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    std::string Write(const std::string &name, const std::string &content) {
        std::string path = dir_ + "/" + name;
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }

    static Lines Read(const std::string &path) {
        cv::config::StrList list(corvaneexp_read_config(path.c_str()));
        EXPECT_NE(list, nullptr);
        Lines out;
        for (char **l = list.get(); l && *l; ++l)
            out.push_back(*l);
        return out;
    }

    std::string dir_;
};

struct FileCase {
    const char *label;
    std::string content;
    Lines lines;
};
void PrintTo(const FileCase &c, std::ostream *os) {
    *os << c.label;
}

class ConfigFileLines : public ConfigFile, public testing::WithParamInterface<FileCase> {};

TEST_P(ConfigFileLines, KeepsOnlyUsableLines) {
    EXPECT_EQ(Read(Write("params", GetParam().content)), GetParam().lines);
}

const std::string kLong(20000, 'a');

INSTANTIATE_TEST_SUITE_P(
    Files, ConfigFileLines,
    testing::Values(
        FileCase{"empty", "", {}},
        FileCase{"line_endings", "a=1\nb=2\r\nc=3\r\nd=4", {"a=1", "b=2", "c=3", "d=4"}},
        FileCase{"hash_drops_whole_line", "x=1 # note\n#y=2\nz=3#\nw=4\n", {"w=4"}},
        FileCase{"short_lines", "ab\n\n\r\nabc\nx\r\n", {"abc"}},
        // A lone CR does not end a line for the reader; only the last one is cut.
        FileCase{"cr_inside", "a=1\rb=2\r", {"a=1\rb=2"}},
        // Lines past 16382 characters come back in pieces, each a line of its own.
        FileCase{"long_line",
                 "k=" + kLong + "\n",
                 {("k=" + kLong).substr(0, 16382), std::string(20002 - 16382, 'a')}},
        FileCase{"exactly_one_piece",
                 std::string(16382, 'b') + "\nabc\n",
                 {std::string(16382, 'b'), "abc"}},
        FileCase{"short_tail_piece", std::string(16383, 'b') + "\r\n", {std::string(16382, 'b')}},
        FileCase{"cr_lf_split_by_limit",
                 std::string(16381, 'c') + "\r\nxyz\n",
                 {std::string(16381, 'c'), "xyz"}}),
    [](const auto &info) { return std::string(info.param.label); });

TEST_F(ConfigFile, MissingFileIsNull) {
    EXPECT_EQ(corvaneexp_read_config((dir_ + "/none").c_str()), nullptr);
    EXPECT_EQ(corvaneexp_read_config(nullptr), nullptr);
}

TEST_F(ConfigFile, ParametersFromFile) {
    std::string path = Write("params",
                             "port=0x1bd\r\n# comment\nsize=010 # old\nname=files\n"
                             "zz\nsize=12\r\n");
    Params p;
    config_value_desc table[] = {{"port", &p.port, CV_CONFIG_INT, CV_CONFIG_MANDATORY},
                                 {"size", &p.size, CV_CONFIG_INT, 0},
                                 {"name", &p.name, CV_CONFIG_STRING, 0},
                                 {nullptr, nullptr, 0, 0}};
    LogCapture log(CVLOG_WARN);
    EXPECT_EQ(corvaneexp_config_set_values(path.c_str(), table, "t"), 0);
    EXPECT_EQ(log.Stop(), Lines{});
    EXPECT_EQ(p.port, 445);
    EXPECT_EQ(p.size, 12);
    EXPECT_STREQ(p.name, "files");
}

TEST_F(ConfigFile, LongLinePieceIsMalformed) {
    std::string path = Write("params", "port=1\nname=" + kLong + "\nsize=2\n");
    Params p;
    config_value_desc table[] = {{"port", &p.port, CV_CONFIG_INT, 0},
                                 {"size", &p.size, CV_CONFIG_INT, 0},
                                 {"name", &p.name, CV_CONFIG_STRING, 0},
                                 {nullptr, nullptr, 0, 0}};
    LogCapture log(CVLOG_WARN);
    EXPECT_EQ(corvaneexp_config_set_values(path.c_str(), table, "t"), -1);
    EXPECT_EQ(log.Stop(), Lines{"WARN Cfgline problem: " + std::string(20005 - 16382, 'a')});
    EXPECT_EQ(p.port, 1);
    ASSERT_NE(p.name, nullptr);
    EXPECT_EQ(strlen(p.name), 16382u - 5);
    EXPECT_EQ(p.size, kUnset);
}

TEST_F(ConfigFile, TextNamingAFileIsReadAsTheFile) {
    // The name looks like a parameter list; it is still read as a file.
    std::string path = Write("port=9,size=3", "port=1\n");
    Params p;
    config_value_desc table[] = {{"port", &p.port, CV_CONFIG_INT, 0},
                                 {"size", &p.size, CV_CONFIG_INT, 0},
                                 {nullptr, nullptr, 0, 0}};
    EXPECT_EQ(corvaneexp_config_set_values(path.c_str(), table, "t"), 0);
    EXPECT_EQ(p.port, 1);
    EXPECT_EQ(p.size, kUnset);
}

}  // namespace
