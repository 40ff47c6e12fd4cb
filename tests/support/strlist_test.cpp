// String lists: splitting, copying, appending and in-place replacement.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <string>
#include <vector>

#include "utils_config.h"

namespace {

using Lines = std::vector<std::string>;

Lines to_lines(char **list) {
    Lines out;
    for (char **l = list; *l; ++l)
        out.push_back(*l);
    return out;
}

struct SplitCase {
    const char *text;
    char separator;
    Lines pieces;
};

void PrintTo(const SplitCase &c, std::ostream *os) {
    *os << '"' << c.text << "\" at " << c.separator;
}

class Split : public testing::TestWithParam<SplitCase> {};

TEST_P(Split, KeepsNonEmptyPiecesInOrder) {
    const SplitCase &c = GetParam();
    std::string before = c.text;
    cv::config::StrList list(corvaneexp_char_split(c.text, c.separator));
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(to_lines(list.get()), c.pieces);
    EXPECT_EQ(corvaneexp_config_count_fields(list.get()), int(c.pieces.size()));
    EXPECT_EQ(before, c.text);  // the argument is left alone
}

INSTANTIATE_TEST_SUITE_P(
    Texts, Split,
    testing::Values(SplitCase{"", ',', {}}, SplitCase{"a", ',', {"a"}}, SplitCase{",,,", ',', {}},
                    SplitCase{",a,,bc,", ',', {"a", "bc"}}, SplitCase{"k==v", '=', {"k", "v"}},
                    SplitCase{"a=1=2", '=', {"a", "1", "2"}}, SplitCase{"a b", ',', {"a b"}}));

TEST(StrList, CountAndFreeAcceptNull) {
    EXPECT_EQ(corvaneexp_config_count_fields(nullptr), 0);
    corvaneexp_char_free(nullptr);
}

TEST(StrList, CopyOfNothingIsNull) {
    EXPECT_EQ(corvaneexp_char_copy(nullptr), nullptr);
    EXPECT_EQ(corvaneexp_char_copy(""), nullptr);
    const char text[] = "abc";
    char *copy = corvaneexp_char_copy(text);
    EXPECT_STREQ(copy, "abc");
    EXPECT_NE(copy, text);
    free(copy);
}

struct AddCase {
    const char *first;  // copied to the heap unless null
    const char *more;
    const char *expected;
};

void PrintTo(const AddCase &c, std::ostream *os) {
    *os << (c.first ? c.first : "null") << " + " << (c.more ? c.more : "null");
}

class Add : public testing::TestWithParam<AddCase> {};

TEST_P(Add, Appends) {
    const AddCase &c = GetParam();
    char *first = c.first ? strdup(c.first) : nullptr;
    char *result = corvaneexp_char_add(first, c.more);
    if (c.expected)
        EXPECT_STREQ(result, c.expected);
    else
        EXPECT_EQ(result, nullptr);
    if (c.first && !c.more) {
        EXPECT_EQ(result, first);
    }
    free(result);
}

INSTANTIATE_TEST_SUITE_P(Pairs, Add,
                         testing::Values(AddCase{"ab", "cd", "abcd"}, AddCase{"ab", nullptr, "ab"},
                                         AddCase{nullptr, "cd", "cd"},
                                         AddCase{nullptr, nullptr, nullptr}, AddCase{"", "x", "x"},
                                         AddCase{"x", "", "x"}));

struct ReplaceCase {
    const char *text;
    char from, to;
    const char *expected;
};

void PrintTo(const ReplaceCase &c, std::ostream *os) {
    *os << '"' << c.text << "\" " << int(c.from) << " to " << int(c.to);
}

class Replace : public testing::TestWithParam<ReplaceCase> {};

TEST_P(Replace, InPlace) {
    const ReplaceCase &c = GetParam();
    std::string buf = c.text;
    corvaneexp_char_replace(buf.data(), c.from, c.to);
    EXPECT_STREQ(buf.c_str(), c.expected);
}

INSTANTIATE_TEST_SUITE_P(Texts, Replace,
                         testing::Values(ReplaceCase{"a,b,,c", ',', ';', "a;b;;c"},
                                         ReplaceCase{"abc", 'x', 'y', "abc"},
                                         ReplaceCase{"a=b=c", '=', '\0', "a"},
                                         ReplaceCase{"aaa", 'a', 'a', "aaa"},
                                         ReplaceCase{"ab", '\0', 'x', "ab"}));

}  // namespace
