// Readable forms of the SMB fields and the quoting of CSV and JSON output.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include "flow_format.h"
#include "writers.h"

namespace {

using namespace smbflow;

TEST(FlowFormat, CommandNames) {
    struct Case {
        uint32_t word;
        const char *names;
    } cases[] = {
        {0x000000ff, ""},
        {0x000003ff, "NEGOTIATE|SESSION_SETUP"},
        {0x000020ff, "CREATE"},
        {0x000060ff, "CREATE|CLOSE"},
        {0x000178ff, "TREE_CONNECT|TREE_DISCONNECT|CREATE|CLOSE|READ"},
        {0x020000ff, "SET_INFO"},
        {0x040000ff, "OPLOCK_BREAK"},
        {0x800000ff, "ENCRYPTED"},
        {0x00000072, "SMB1:0x72"},
    };
    // More words than the formatter keeps, in rounds: remembered names and evicted ones alike.
    for (int round = 0; round < 3; ++round)
        for (const Case &c : cases)
            EXPECT_EQ(command_names(c.word), c.names) << std::hex << c.word << " round " << round;
}

TEST(FlowFormat, OperationWords) {
    struct Case {
        uint8_t op;
        const char *word;
    } cases[] = {
        {0x00, "superseded"},
        {0x01, "opened"},
        {0x02, "created"},
        {0x03, "overwritten"},
        {0x3f, "unknown"},
        {0x41, "opened,delete"},
        {0x7f, "delete"},
        {0x81, "open failed"},
        {0x83, "overwrite failed"},
        {0x84, "open-if failed"},
        {0xc2, "create failed,delete"},
    };
    for (const Case &c : cases)
        EXPECT_EQ(op_word(c.op), c.word) << int(c.op);
}

TEST(FlowFormat, SmallPieces) {
    EXPECT_EQ(file_type_word(1), "directory");
    EXPECT_EQ(file_type_word(2), "file");
    EXPECT_EQ(file_type_word(0xff), "unknown");
    EXPECT_EQ(format_tcp_flags(0x02), "......S.");
    EXPECT_EQ(format_tcp_flags(0x1b), "...AP.SF");
    EXPECT_EQ(format_time(1709632800'123456789ull), "2024-03-05T10:00:00.123456Z");
    EXPECT_EQ(protocol_name(6), "tcp");
    EXPECT_EQ(protocol_name(47), "47");
    // Every byte value in every position, as the C library writes them.
    for (uint32_t v = 0; v < 256; ++v)
        for (int shift : {0, 8, 16, 24}) {
            host_addr a{};
            a.v4 = htonl(0x0a000001u ^ (v << shift));
            char want[INET_ADDRSTRLEN];
            inet_ntop(AF_INET, &a.v4, want, sizeof want);
            EXPECT_EQ(format_addr(a, 4), want);
        }
    host_addr b{};
    b.v6[0] = 0xfd;
    b.v6[15] = 0x10;
    EXPECT_EQ(format_addr(b, 6), "fd00::10");
    // IPv6 as the C library writes it, more addresses than the formatter keeps, in rounds so
    // that remembered and evicted texts are both checked; some differ only in the last byte.
    for (int round = 0; round < 3; ++round)
        for (uint32_t v = 0; v < 20; ++v) {
            host_addr a{};
            a.v6[0] = 0x20;
            a.v6[1] = 0x01;
            a.v6[2 + v % 7] = static_cast<uint8_t>(v * 37);
            a.v6[15] = static_cast<uint8_t>(v / 7);
            char want[INET6_ADDRSTRLEN];
            inet_ntop(AF_INET6, a.v6, want, sizeof want);
            EXPECT_EQ(format_addr(a, 6), want) << "round " << round;
        }
}

TEST(FlowFormat, Quoting) {
    EXPECT_EQ(csv_quote("plain"), "plain");
    EXPECT_EQ(csv_quote("a,b"), "\"a,b\"");
    EXPECT_EQ(csv_quote("say \"hi\""), "\"say \"\"hi\"\"\"");
    EXPECT_EQ(json_string("\\\\srv\\share"), "\"\\\\\\\\srv\\\\share\"");
    EXPECT_EQ(json_string("a\"b\n\x01"), "\"a\\\"b\\n\\u0001\"");
    EXPECT_EQ(json_string("\xc3\xa9"), "\"\xc3\xa9\"");
}

// Columns written without a look at their characters must never hold a separator or quote:
// every value that the formatter can give a column with a comma or quote in it must come out
// quoted.
TEST(FlowFormat, WritersQuoteEveryColumnThatCanHoldSeparators) {
    Row row(columns().size());
    for (size_t k = 0; k < row.size(); ++k) {
        const std::string name = columns()[k].name;
        if (name == "smb_op") row.set(k, op_word(0x41));  // "opened,delete"
        if (name == "smb_tree" || name == "smb_file_name") row.set(k, "a,\"b\"");
    }
    for (Format format : {Format::Csv, Format::Json}) {
        char *text = nullptr;
        size_t size = 0;
        FILE *out = open_memstream(&text, &size);
        make_writer(format, out)->write(row);
        fclose(out);
        const std::string line(text, size);
        free(text);
        const bool csv = format == Format::Csv;
        const std::string body = csv ? line.substr(line.find('\n') + 1) : line;
        EXPECT_NE(body.find("\"opened,delete\""), std::string::npos) << body;
        EXPECT_NE(body.find(csv ? R"("a,""b""")" : R"("a,\"b\"")"), std::string::npos) << body;
    }
}

}  // namespace
