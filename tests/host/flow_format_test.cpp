// Readable forms of the SMB fields and the quoting of CSV and JSON output.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <ctime>

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

// Timestamps against the C library's calendar and printf's digits, with six and nine
// fractional digits, across second boundaries and in rounds (the formatter keeps seconds).
TEST(FlowFormat, TimesAsTheCLibraryWritesThem) {
    const uint64_t base = 1709632800'000'000'000ull;
    const uint64_t offsets[] = {0,
                                1,
                                999,
                                1000,
                                999'999,
                                1'000'000,
                                123'456'789,
                                999'999'999,
                                1'000'000'000,
                                86'399'999'999'999ull,
                                5'000'000'007ull};
    for (int round = 0; round < 2; ++round)
        for (uint64_t off : offsets)
            for (bool nano : {false, true}) {
                const uint64_t ns = base + off;
                const time_t secs = static_cast<time_t>(ns / 1'000'000'000ull);
                struct tm tm;
                gmtime_r(&secs, &tm);
                char date[32], want[48];
                strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &tm);
                const auto frac = static_cast<unsigned>(ns % 1'000'000'000ull);
                if (nano)
                    snprintf(want, sizeof want, "%s.%09uZ", date, frac);
                else
                    snprintf(want, sizeof want, "%s.%06uZ", date, frac / 1000);
                TextBuffer got;
                append_time(got, ns, nano);
                EXPECT_EQ(got.view(), want) << ns;
            }
}

// Decimal numbers at every change of their digit count, as the standard library writes them.
TEST(FlowFormat, NumbersAsTheStandardLibraryWritesThem) {
    std::vector<uint64_t> values = {0, UINT64_MAX};
    for (uint64_t p = 10; p != 0 && p <= UINT64_MAX / 10; p *= 10)
        for (uint64_t v : {p - 1, p, p + 1, 3 * p + 7})
            values.push_back(v);
    TextBuffer all;
    std::string want;
    for (uint64_t v : values) {
        append_uint(all, v);
        all += ' ';
        want += std::to_string(v) + ' ';
    }
    EXPECT_EQ(all.view(), want);
}

// The CSV line made straight from a record is the line the CSV writer makes from its row,
// for records with and without SMB values, names that need quoting, UDP and plug-in fields.
TEST(FlowFormat, CsvLineIsTheRowWrittenAsCsv) {
    using corvane_host::ExportedFlow;
    using corvane_host::FieldDef;
    using corvane_host::FieldValue;
    std::vector<FieldDef> defs(9);
    const char *names[] = {"SMB_CMD_REQUEST", "SMB_CMD_RESPONSE", "SMB_TREE",
                           "SMB_FILE_TYPE",   "SMB_FILE_NAME",    "SMB_OP",
                           "SMB_BYTES_READ",  "SMB_RENAME_TO",    "SMB_LAST_ERROR"};
    const uint32_t types[] = {CORVANE_FIELD_NUMBER, CORVANE_FIELD_NUMBER, CORVANE_FIELD_STRING,
                              CORVANE_FIELD_NUMBER, CORVANE_FIELD_STRING, CORVANE_FIELD_NUMBER,
                              CORVANE_FIELD_NUMBER, CORVANE_FIELD_STRING, CORVANE_FIELD_NUMBER};
    std::vector<const FieldDef *> fields;
    for (size_t i = 0; i < defs.size(); ++i) {
        defs[i].name = names[i];
        defs[i].type = types[i];
        defs[i].fill_txt = [](void *, host_flow_record *, host_slot *, void *, uint32_t, uint32_t) {
        };
        fields.push_back(&defs[i]);
    }
    auto number = [](uint64_t v, size_t size) {
        FieldValue f;
        f.kind = FieldValue::Kind::Value;
        for (size_t i = 0; i < size; ++i)
            f.binary.push_back(static_cast<uint8_t>(v >> (8 * i)));
        return f;
    };
    auto text = [](const char *t) {
        FieldValue f;
        f.kind = FieldValue::Kind::Value;
        f.text = t;
        return f;
    };
    std::vector<ExportedFlow> flows(4);
    for (size_t i = 0; i < flows.size(); ++i) {
        ExportedFlow &f = flows[i];
        f.rec.ip_version = 4;
        f.rec.protocol = i == 3 ? 17 : 6;
        f.rec.first_ns = 1709632800'000'000'000ull + i * 1'500'000'000ull;
        f.rec.last_ns = f.rec.first_ns + 999'999;
        f.rec.src_port = static_cast<uint16_t>(40000 + i);
        f.rec.dst_port = 445;
        f.rec.dir_counters[0] = {3 + i, 1000 * i};
        f.rec.tcp_flags[0] = 0x1b;
        f.plugin_records = i < 3 ? 1 : 0;
        f.fields.resize(defs.size());
    }
    flows[0].fields = {number(0x000060ff, 4), number(0x000060ff, 4),      text(R"(\\srv\a,b)"),
                       number(2, 1),          text("say \"hi\"\r\n.txt"), number(0x41, 1),
                       text("4294967296"),    text("new,\"name\""),       text("0xc0000022")};
    flows[1].fields = {number(0x000003ff, 4),
                       number(0x000000ff, 4),
                       text(R"(\\srv\ipc$)"),
                       number(0xff, 1),
                       text(""),
                       number(0x3f, 1),
                       FieldValue{},
                       FieldValue{},
                       FieldValue{}};
    flows[2].fields[6].kind = FieldValue::Kind::Default;  // shown: the plug-in had a record
    flows[2].fields[6].text = "0";
    flows[3].fields[6].kind = FieldValue::Kind::Default;  // not shown: no record of the flow
    flows[3].fields[6].text = "0";

    const FlowFormatter formatter(fields);
    const std::vector<Column> cols = output_columns(fields);
    auto csv_of = [&](bool straight) {
        char *out_text = nullptr;
        size_t size = 0;
        FILE *out = open_memstream(&out_text, &size);
        auto writer = make_writer(Format::Csv, out, false, {}, cols);
        Row scratch;
        for (const ExportedFlow &f : flows) {
            if (straight)
                writer->write(formatter, f, scratch);
            else
                writer->write(formatter.render(f));
        }
        writer->finish();
        fclose(out);
        std::string csv(out_text, size);
        free(out_text);
        return csv;
    };
    const std::string straight = csv_of(true);
    EXPECT_EQ(straight, csv_of(false));
    EXPECT_NE(straight.find(R"("\\srv\a,b","say ""hi"")"), std::string::npos) << straight;
    EXPECT_NE(straight.find(R"("opened,delete",0x41,4294967296,"new,""name""",0xc0000022)"),
              std::string::npos)
        << straight;
    EXPECT_EQ(std::count(straight.begin(), straight.end(), '\n'), 5 + 1) << "a quoted line break";
}

// Plug-in columns: a number field without a text fill is written from its binary form (the
// text the buffer held before is not used); a text is quoted wherever its
// separator falls, past the first sixteen bytes too; a default is quoted when its text needs
// it.
TEST(FlowFormat, PluginColumnsFromBinaryAndQuotedAnywhere) {
    using corvane_host::ExportedFlow;
    using corvane_host::FieldDef;
    using corvane_host::FieldValue;
    const corvane_fill_fn fill = [](void *, host_flow_record *, host_slot *, void *, uint32_t,
                                    uint32_t) {};
    std::vector<FieldDef> defs(4);
    const char *names_of[] = {"SMB_READS", "SMB_RENAME_TO", "X_NOTE", "X_COUNT"};
    const uint32_t types[] = {CORVANE_FIELD_NUMBER, CORVANE_FIELD_STRING, CORVANE_FIELD_STRING,
                              CORVANE_FIELD_NUMBER};
    const uint32_t sizes[] = {4, 128, 4, 1};
    for (size_t i = 0; i < defs.size(); ++i) {
        defs[i].name = names_of[i];
        defs[i].type = types[i];
        defs[i].size = sizes[i];
        defs[i].fill = defs[i].fill_txt = fill;
    }
    defs[0].fill_txt = nullptr;  // a counter with no text form of its own: written from binary
    defs[2].has_default = defs[3].has_default = true;
    defs[2].default_value = {'a', 0, ',', 0};
    defs[3].default_value = {7};
    std::vector<const FieldDef *> fields;
    for (const FieldDef &d : defs)
        fields.push_back(&d);

    ExportedFlow flow;
    flow.rec.ip_version = 4;
    flow.rec.protocol = 17;
    flow.plugin_records = 1;
    flow.fields.resize(defs.size());
    flow.fields[0].kind = FieldValue::Kind::Value;
    flow.fields[0].binary.append(std::array<uint8_t, 4>{0xd2, 0x04, 0x01, 0x00}.data(), 4);
    flow.fields[0].text = "stale";
    const std::string names[] = {"0123456789abcdef0123456789abcdef,x",
                                 "0123456789abcdef\"",
                                 "0123456789abcde\n",
                                 "0123456789abcdef0123456789abcdef",
                                 ",",
                                 "x\"y",
                                 "",
                                 "short",
                                 "\r23456789abcdef"};
    const std::string quoted[] = {"\"0123456789abcdef0123456789abcdef,x\"",
                                  "\"0123456789abcdef\"\"\"",
                                  "\"0123456789abcde\n\"",
                                  "0123456789abcdef0123456789abcdef",
                                  "\",\"",
                                  "\"x\"\"y\"",
                                  "",
                                  "short",
                                  "\"\r23456789abcdef\""};
    for (size_t i = 0; i < std::size(names); ++i) {
        flow.fields[1].kind = FieldValue::Kind::Value;
        flow.fields[1].text = names[i];
        for (size_t k : {2, 3})
            flow.fields[k].kind = FieldValue::Kind::Default;
        flow.fields[2].text = "a,";
        flow.fields[3].text = "7";
        const FlowFormatter formatter(fields);
        TextBuffer line;
        formatter.render_csv(flow, line);
        const std::string want = ",66770," + quoted[i] + ",\"a,\",7";
        EXPECT_EQ(line.view().substr(line.size() - want.size()), want);
        Row row;
        formatter.render(flow, row);
        EXPECT_EQ(row.value(columns().size()), "66770");
        EXPECT_EQ(row.value(columns().size() + 1), names[i]);
        EXPECT_EQ(row.value(columns().size() + 2), "a,");
        EXPECT_EQ(row.value(columns().size() + 3), "7");
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
// JSON lines: a name too long for the prepared keys, texts on both sides of the 16-byte
// blocks with and without something to escape (the escape is found in any block), numbers
// and null.
TEST(FlowFormat, JsonColumnsOfEveryKindAndLength) {
    const std::vector<Column> cols = {
        {"a_column_name_longer_than_the_thirty_two_bytes_kept", false, false},
        {"n", true, true},
        {"v", false, true},
        {"t", false, false},
        {"x", false, false, true},
    };
    const std::string long_text = "0123456789abcdef0123456789abcdef0";
    struct Case {
        std::string text;     // of column t and x
        std::string written;  // as JSON
    } cases[] = {
        {"", R"("")"},
        {"short", R"("short")"},
        {long_text, "\"" + long_text + "\""},
        {long_text + "\"", "\"" + long_text + "\\\"\""},
        {"0123456789abcde\n", R"("0123456789abcde\n")"},
        {"\\" + long_text, "\"\\\\" + long_text + "\""},
    };
    for (const Case &c : cases) {
        Row row(cols.size());
        row.set(0, "x");
        row.set(1, "42");
        row.set(2, long_text);
        row.set(3, c.text);
        row.set(4, c.text);
        char *text = nullptr;
        size_t size = 0;
        FILE *out = open_memstream(&text, &size);
        make_writer(Format::Json, out, false, {}, cols)->write(row);
        Row nulls(cols.size());
        make_writer(Format::Json, out, false, {}, cols)->write(nulls);
        fclose(out);
        const std::string lines(text, size);
        free(text);
        EXPECT_EQ(lines, "{\"" + cols[0].name + "\":\"x\",\"n\":42,\"v\":\"" + long_text +
                             "\",\"t\":" + c.written + ",\"x\":" + c.written + "}\n{\"" +
                             cols[0].name +
                             "\":null,\"n\":null,\"v\":null,\"t\":null,\"x\":null}\n");
    }
}

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

// Lines from a capture file are written in blocks: every line arrives, in order, across many
// blocks, once the writer finishes; a live capture's line is in the stream as soon as it is
// written.
TEST(FlowFormat, LineWritersDeliverEveryLineInOrder) {
    for (Format format : {Format::Csv, Format::Json}) {
        for (bool live : {false, true}) {
            char *text = nullptr;
            size_t size = 0;
            FILE *out = open_memstream(&text, &size);
            auto writer = make_writer(format, out, live);
            Row row(columns().size());
            const size_t tree = 17;  // smb_tree
            ASSERT_EQ(columns()[tree].name, "smb_tree");
            constexpr int kRows = 3000;  // about four blocks
            for (int i = 0; i < kRows; ++i) {
                row.reset(columns().size());
                row.set(tree, "share" + std::to_string(i) + std::string(40, 'x'));
                writer->write(row);
                if (live) {
                    fflush(out);
                    ASSERT_NE(std::string(text, size).find("share" + std::to_string(i) + "x"),
                              std::string::npos)
                        << i;
                }
            }
            writer->finish();
            fflush(out);
            const std::string all(text, size);
            size_t at = 0;
            for (int i = 0; i < kRows; ++i) {
                at = all.find("share" + std::to_string(i) + "x", at);
                ASSERT_NE(at, std::string::npos) << i << (live ? " live" : "");
            }
            EXPECT_EQ(std::count(all.begin(), all.end(), '\n'),
                      kRows + (format == Format::Csv ? 1 : 0));
            writer.reset();
            fclose(out);
            free(text);
        }
    }
}

}  // namespace
