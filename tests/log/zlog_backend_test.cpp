// The project's zlog back end: rendered patterns against their format strings, rule
// selection, outputs, configuration errors and the init/reload/fini life cycle.
#include <stdlib.h>
#include <syslog.h>
#include <unistd.h>

#include "log_test_util.h"
#include "zlog.h"
#include "zlog_format.h"

namespace {

using namespace logtest;
using Lines = std::vector<std::string>;

std::string pid_text() {
    return std::to_string(getpid());
}

TEST(ZlogPattern, RendersAsWritten) {
    setenv("TZ", "UTC", 1);
    tzset();
    char thread[64];
    snprintf(thread, sizeof thread, "(%x) ", unsigned(pthread_self()));
    std::string head = "2016-03-01 10:00:00.007 " + pid_text() + " " + thread;
    const std::pair<const char *, std::string> cases[] = {
        {"%d(%F %T).%ms %p (%t) %-5V %c - %U - %m%n", head + "WARN  cat - func - msg\n"},
        {"%c - %U - %m", "cat - func - msg"},
        {"%d(%F %T).%ms %p (%t) %-5V %c - %F:%U:%L - %m%n",
         head + "WARN  cat - libs/x/file:func:42 - msg\n"},
        {"[%5V|%-6v|%.2V|%8.3c]", "[ WARN|warn  |WA|     cat]"},
        {"%d|%d(%H%%)|%us|100%%", "2016-03-01 10:00:00|10%|007654|100%"},
        {"%f:%L %T", "file:42 " + std::to_string((unsigned long)pthread_self())},
    };
    zl::Event event{"cat", "libs/x/file", "func", 42, "WARN", "msg", {1456826400, 7654321}};
    for (const auto &[text, expected] : cases) {
        auto pattern = zl::Pattern::compile(text);
        ASSERT_TRUE(pattern) << text;
        std::string out;
        pattern->render(event, out);
        EXPECT_EQ(out, expected);
    }
    for (const char *bad :
         {"%q", "abc%", "%d(%F", "%u", "%-5", "%-29999999999999999999c", "%1.5000m"})
        EXPECT_FALSE(zl::Pattern::compile(bad)) << bad;
}

class Zlog : public LogTest {
  protected:
    ~Zlog() override { zlog_fini(); }
    std::string conf(const std::string &text) { return write_conf("", text); }
    void emit(const char *category, int level, const char *text) {
        zlog(zlog_get_category(category), "f.c", 3, "fn", 2, 7, level, "%s", text);
    }
};

// Category selectors (*, name, name_, !) and level selectors (*, L, =L, !L) in one file.
TEST_F(Zlog, RulesSelectByCategoryAndLevel) {
    std::string rules = "[formats]\nf = \"%c %V %m%n\"\n[rules]\n";
    for (const char *selector : {"a.*", "b.WARN", "c.=INFO", "d.!INFO", "e_.ERROR", "!.ERROR"})
        rules += std::string(selector) + " \"" + out_ + "\"; f\n";
    ASSERT_EQ(zlog_init(conf(rules).c_str()), 0);
    for (const char *category : {"a", "b", "c", "d", "e", "e_x", "ex", "z"})
        for (int level : {ZLOG_LEVEL_INFO, ZLOG_LEVEL_WARN, ZLOG_LEVEL_ERROR})
            emit(category, level, "m");
    EXPECT_EQ(out_lines(), (Lines{"a INFO m", "a WARN m", "a ERROR m", "b WARN m", "b ERROR m",
                                  "c INFO m", "d WARN m", "d ERROR m", "e ERROR m", "e_x ERROR m",
                                  "ex ERROR m", "z ERROR m"}));
}

TEST_F(Zlog, StandardStreamsSyslogAndDefaultFormat) {
    ASSERT_EQ(zlog_init(conf("[global]\ndefault format = \"<%m>%n\"\n[levels]\nTRACE = 10, "
                             "LOG_INFO\n[formats]\ns = \"%V %m\"\n[rules]\n*.TRACE >stderr\n"
                             "*.=ERROR >syslog, LOG_LOCAL3; s\n*.!TRACE >syslog; s\n")
                            .c_str()),
              0);
    StderrCapture capture;
    emit("k", 10, "t");
    emit("k", 30, "u");  // a level without a name
    emit("k", ZLOG_LEVEL_ERROR, "e");
    EXPECT_EQ(capture.text(), "<t>\n<u>\n<e>\n");
    const auto &records = syslog_log().records;
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].priority, LOG_USER | LOG_ERR);  // zlog's UNKNOWN level
    EXPECT_EQ(records[0].text, "UNKNOWN u");
    EXPECT_EQ(records[1].priority, LOG_LOCAL3 | LOG_ERR);
    EXPECT_EQ(records[2].text, "ERROR e");
}

TEST_F(Zlog, StrictInitOffSkipsBadRules) {
    ASSERT_EQ(zlog_init(conf("[global]\nstrict init = false\n[formats]\nbad = \"%q\"\n[rules]\n"
                             "*.* >nowhere\n*.NOPE >stderr\n*.* \"" +
                             out_ + "\"; bad\n*.* \"" + out_ + "\"\n")
                            .c_str()),
              0);
    emit("k", ZLOG_LEVEL_WARN, "ok");
    Lines lines = out_lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].ends_with(" WARN [" + pid_text() + ":f.c:7] ok")) << lines[0];
}

TEST_F(Zlog, UnusableConfigurationsFailInit) {
    const char *bad[] = {
        "*.* >stderr\n",                        // outside any section
        "[rules]\n[formats]\n",                 // sections out of order
        "[rulez]\n",                            // unknown section
        "[global]\nno such key = 1\n",          // unknown global key
        "[global]\nbuffer max = lots\n",        // bad size
        "[levels]\nLOUD = 300\n",               // level out of range
        "[levels]\nLOUD = 30, LOG_LOUD\n",      // unknown syslog priority
        "[formats]\nf = %m\n",                  // unquoted pattern
        "[formats]\nf = \"%q\"\n",              // bad specifier
        "[rules]\n*.* >stderr; nosuch\n",       // unknown format
        "[rules]\n*.LOUD >stderr\n",            // unknown level
        "[rules]\n*.*\n",                       // no output
        "[rules]\n*.* >syslog, LOG_NOWHERE\n",  // unknown facility
        "[rules]\n*.* $custom\n",               // user outputs not supported
    };
    for (const char *text : bad)
        EXPECT_EQ(zlog_init(conf(text).c_str()), -1) << text;
    EXPECT_EQ(zlog_init("/nonexistent/zlog.conf"), -1);
    EXPECT_EQ(zlog_init("/tmp"), -1);
}

TEST_F(Zlog, LifeCycle) {
    EXPECT_EQ(zlog_get_category("k"), nullptr);  // not initialised
    EXPECT_EQ(zlog_reload(nullptr), -1);
    std::string second = out_ + ".2";
    cleanup_.push_back(second);
    std::string path = conf("[rules]\n*.* \"" + out_ + "\"\n");
    ASSERT_EQ(zlog_init(path.c_str()), 0);
    EXPECT_EQ(zlog_init(path.c_str()), -1);  // already initialised
    zlog_category_t *k = zlog_get_category("k");
    EXPECT_EQ(zlog_get_category("k"), k);
    EXPECT_EQ(zlog_get_category(std::string(1025, 'k').c_str()), nullptr);

    write_file(path, "[rules]\n*.* \"" + second + "\"\n");
    ASSERT_EQ(zlog_reload(nullptr), 0);  // the same path again, new contents
    emit("k", ZLOG_LEVEL_WARN, "second");
    write_file(path, "[rulez]\n");
    EXPECT_EQ(zlog_reload(path.c_str()), -1);  // the old rules stay in force
    emit("k", ZLOG_LEVEL_WARN, "still second");
    zlog_fini();
    emit("k", ZLOG_LEVEL_WARN, "dropped");  // a handle outlives fini harmlessly
    EXPECT_EQ(read_file(out_), "");
    EXPECT_EQ(lines_of(read_file(second)).size(), 2u);
}

}  // namespace
