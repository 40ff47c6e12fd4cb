// Start and end of the plug-in: every kind of parameter string, the exits on bad ones, what
// init registers with the host and in which order, and the shared tables it makes.
#include <gtest/gtest.h>

#include "mini_host.h"
#include "smb_fields.h"
#include "smb_data_table.h"
#include "smb_file_table.h"
#include "smb_tree_table.h"
#include "support/log_capture.h"

namespace {

using Lines = std::vector<std::string>;

Lines without_blank_lines(Lines lines) {
    std::erase(lines, std::string());
    return lines;
}

struct sizes {
    uint32_t tree = 2048, file = 1048576, message = 1024, message2 = 65536, data = 1024;
};

struct param_case {
    const char *label;
    const char *params;
    uint32_t threshold;
    uint16_t port;
    sizes expected;
    Lines messages;
    uint32_t short_create = 0;
};
void PrintTo(const param_case &c, std::ostream *os) {
    *os << c.label;
}

class Parameters : public ::testing::TestWithParam<param_case> {
  protected:
    void SetUp() override { mini_host::reset(); }
};

TEST_P(Parameters, SetTheContext) {
    const param_case &c = GetParam();
    LogCapture log(c.threshold);
    int host = 0;
    auto *ctx = static_cast<smb_plugin_ctx *>(process_smb_init(1, c.params, &host, 0));
    EXPECT_EQ(without_blank_lines(log.Stop()), c.messages);
    EXPECT_EQ(ctx->queue_id, 0u);
    EXPECT_EQ(ctx->port, c.port);
    EXPECT_EQ(ctx->treetable_size, c.expected.tree);
    EXPECT_EQ(ctx->filetable_size, c.expected.file);
    EXPECT_EQ(ctx->messagetable_size, c.expected.message);
    EXPECT_EQ(ctx->messagetable2_size, c.expected.message2);
    EXPECT_EQ(ctx->datatable_size, c.expected.data);
    EXPECT_EQ(ctx->short_create, c.short_create);
    process_smb_shutdown(ctx);
}

const sizes kDefaults{};
const sizes kSmall{1024, 4096, 2048, 1000, 3000};

// clang-format off
INSTANTIATE_TEST_SUITE_P(Strings, Parameters, ::testing::Values(
    param_case{"none", nullptr, CVLOG_INFO, 445, kDefaults, {}},
    param_case{"port zero", "port=0", CVLOG_INFO, 0, kDefaults,
               {"INFO SMB plugin: Port filtering disabled."}},
    param_case{"port zero under the default threshold", "port=0", CVLOG_NOTICE, 0, kDefaults, {}},
    param_case{"highest port", "port=65535", CVLOG_INFO, 65535, kDefaults, {}},
    param_case{"minus one is not given", "port=-1", CVLOG_INFO, 445, kDefaults, {}},
    param_case{"unknown key", "foo=1,port=139", CVLOG_INFO, 139, kDefaults,
               {"WARN Invalid config variable: foo with parameter: 1"}},
    param_case{"sizes", "treetable-size=1024,filetable-size=4096,messagetable-size=2048,"
               "messagetable2-size=1000,datatable-size=3000", CVLOG_INFO, 445, kSmall, {}},
    param_case{"size below the minimum is kept", "treetable-size=100", CVLOG_INFO, 445,
               {100, 1048576, 1024, 65536, 1024}, {}},
    param_case{"short-create on", "short-create=1", CVLOG_INFO, 445, kDefaults, {}, 1},
    param_case{"short-create off", "short-create=0,port=139", CVLOG_INFO, 139, kDefaults, {}, 0}));
// clang-format on

struct fatal_case {
    const char *label;
    const char *params;
    const char *messages;  // what standard error must show, in order
};
void PrintTo(const fatal_case &c, std::ostream *os) {
    *os << c.label;
}

class BadParameters : public ::testing::TestWithParam<fatal_case> {};

TEST_P(BadParameters, EndTheProcessAfterTheirMessages) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const fatal_case &c = GetParam();
    int host = 0;
    EXPECT_EXIT(process_smb_init(1, c.params, &host, 0), ::testing::ExitedWithCode(255),
                c.messages);
}

INSTANTIATE_TEST_SUITE_P(
    Strings, BadParameters,
    ::testing::Values(
        fatal_case{"port above range", "port=65536",
                   "WARN  - Parameter error: port number is not valid\n.*"
                   "ERROR  - Parsing smb parameters failed\\."},
        fatal_case{"negative port", "port=-2", "port number is not valid.*Parsing smb"},
        fatal_case{"bare key", "port",
                   "WARN  - Cfgline problem: port\n.*WARN  - Unable to decode parameters\n.*"
                   "ERROR  - Parsing smb parameters failed\\."}),
    [](const auto &info) { return std::to_string(info.index); });

TEST(Init, RegistersFieldsThenFlowHooksWithTheNewContext) {
    mini_host::reset();
    int host = 0;
    void *ctx = process_smb_init(9, "filetable-size=1024", &host, 77);
    const mini_host::state &h = mini_host::host();
    EXPECT_EQ(h.calls.back(), "corvane_hook_callback");  // the flow hooks come last
    const struct {
        const char *name;
        uint32_t type, size;
        std::vector<uint8_t> default_value;  // empty: none
    } expected[] = {
        {"SMB_CMD_REQUEST", 1, 4, {0xff, 0, 0, 0}},
        {"SMB_CMD_RESPONSE", 1, 4, {0xff, 0, 0, 0}},
        {"SMB_TREE", 8, 128, {}},
        {"SMB_FILE_TYPE", 1, 1, {0xff}},
        {"SMB_FILE_NAME", 8, 128, {}},
        {"SMB_OP", 1, 1, {0x3f}},
    };
    ASSERT_EQ(h.fields.size(), 6u);
    for (size_t i = 0; i < 6; ++i) {
        const mini_host::field &f = h.fields[i];
        SCOPED_TRACE(f.name);
        EXPECT_EQ(f.name, expected[i].name);
        EXPECT_EQ(f.host, &host);
        EXPECT_EQ(f.plugin_id, 9u);
        EXPECT_EQ(f.all_ones, 0xffffffffu);
        EXPECT_EQ(f.ctx, ctx);
        EXPECT_EQ(f.type, expected[i].type);
        EXPECT_EQ(f.size, expected[i].size);
        EXPECT_EQ(f.default_value, expected[i].default_value);
    }
    // Which callbacks each field got is fields_test.cpp's, through the registered pointers.
    ASSERT_EQ(h.hooks.size(), 2u);
    EXPECT_EQ(h.hooks[0].fn, reinterpret_cast<void *>(&process_smb_postprocess));
    EXPECT_EQ(h.hooks[1].fn, reinterpret_cast<void *>(&process_smb_callback));
    for (const mini_host::hook &hook : h.hooks) {
        EXPECT_EQ(hook.ctx, ctx);
        EXPECT_EQ(hook.plugin_id, 9u);
    }
    process_smb_shutdown(ctx);
}

TEST(Init, MakesTheSharedTablesOnlyAndShutdownSaysSo) {
    mini_host::reset();
    int host = 0;
    auto *ctx = static_cast<smb_plugin_ctx *>(
        process_smb_init(1, "treetable-size=3000,datatable-size=1449", &host, 0));
    ASSERT_NE(ctx->treetable, nullptr);
    ASSERT_NE(ctx->filetable, nullptr);
    ASSERT_NE(ctx->datatable, nullptr);
    EXPECT_EQ(ctx->treetable->size, 4096);
    EXPECT_EQ(ctx->filetable->size, 1048576);
    EXPECT_EQ(ctx->datatable->size, 2048);
    EXPECT_EQ(ctx->messagetable, nullptr);
    EXPECT_EQ(ctx->messagetable2, nullptr);

    LogCapture log(CVLOG_INFO);
    process_smb_shutdown(ctx);
    EXPECT_EQ(log.Stop(), Lines{"INFO smb process plugin shutdown"});
}

}  // namespace
