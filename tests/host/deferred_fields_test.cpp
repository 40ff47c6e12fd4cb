// Fields left to the text output (Exporter::defer): the output asks each one as it writes its
// column. The columns must be those the exporter's own values give, in the CSV line and in the
// row the JSON and table writers take, and every field's callbacks must be asked once per
// record whoever asks them: the output, the exporter after it, or both in part.
#include <gtest/gtest.h>

#include "fake_host.h"
#include "flow_format.h"
#include "row.h"

namespace {

using namespace hosttest;
using corvane_host::ExportedFlow;
using corvane_host::Exporter;
using corvane_host::FillForms;
using smbflow::FlowFormatter;
using smbflow::Row;

// The fake plug-in with its `kinds` fields: after the name (which needs CSV quotes) come a
// field that writes nothing, numbers written from their binary form or by the plug-in's text
// fill, a status in hex and octets without a text fill.
class DeferredFields : public FakeHostTest {
  protected:
    void SetUp() override { start({}, "kinds"); }

    // The same conversation on `count` client ports, each its own flow record; every other
    // one has no record of the plug-in (no payload), so its fields take their defaults.
    void converse(unsigned count) {
        for (unsigned i = 0; i < count; ++i) {
            const auto port = static_cast<uint16_t>(50000 + i);
            const bool record = i % 2 == 0;
            send(true, kT0 + i, record ? "N:rep,ort\"1" : "", port);
            send(false, kT0 + i + 100, record ? "hello!" : "", port);
        }
        queue->flush();
    }

    // What the output writes of the plug-in's columns: the CSV line past the flow's own
    // columns, and the row's values there ("-" for null).
    static std::string extras_of(const FlowFormatter &formatter, const ExportedFlow &flow,
                                 bool csv) {
        std::string out;
        if (csv) {
            corvane_host::TextBuffer line;
            formatter.render_csv(flow, line);
            size_t at = 0;
            for (size_t k = 0; k < smbflow::columns().size(); ++k)
                at = line.view().find(',', at) + 1;
            return std::string(line.view().substr(at));
        }
        Row row;
        formatter.render(flow, row);
        for (size_t k = smbflow::columns().size(); k < row.size(); ++k)
            out += std::string(row.value_or_null(k).value_or("-")) + "|";
        return out;
    }
};

TEST_F(DeferredFields, ColumnsAndCallbacksAsWhenTheExporterAsksThem) {
    const FlowFormatter formatter(host->fields());
    ASSERT_EQ(formatter.extra_positions().size(), 8u);
    std::vector<uint32_t> all = formatter.extra_positions();
    std::vector<uint32_t> some(all.begin() + 1, all.end());  // not the output's columns
    enum class Consumer { Csv, Row, RowTwice, None };
    struct Case {
        const char *name;
        std::vector<uint32_t> deferred;
        Consumer consumer;
    } cases[] = {
        {"CSV line", all, Consumer::Csv},
        {"row", all, Consumer::Row},
        {"row written twice", all, Consumer::RowTwice},
        {"no output", all, Consumer::None},
        {"some of the columns, CSV line", some, Consumer::Csv},
        {"some of the columns, row", some, Consumer::Row},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        converse(4);
        ASSERT_EQ(handed.size(), 4u);
        const bool csv = c.consumer == Consumer::Csv;
        // The exporter's own values first, for the first two records...
        Exporter staged(*host, FillForms::Text);
        std::vector<std::string> want;
        ExportedFlow out;
        for (size_t i = 0; i < 2; ++i) {
            staged.run(handed[i], out);
            want.push_back(extras_of(formatter, out, csv));
        }
        const uint64_t asked = stats().length_calls;
        // ... then the same conversations with their fields left to the output.
        Exporter deferring(*host, FillForms::Text);
        deferring.defer(c.deferred);
        for (size_t i = 2; i < 4; ++i) {
            deferring.run(handed[i], out);
            ASSERT_NE(out.pending, nullptr);
            if (c.consumer != Consumer::None) {
                EXPECT_EQ(extras_of(formatter, out, csv), want[i - 2]);
                if (c.consumer == Consumer::RowTwice) {
                    EXPECT_EQ(extras_of(formatter, out, csv), want[i - 2]) << "from the values";
                }
            }
            deferring.complete(handed[i], out);
            EXPECT_EQ(out.pending, nullptr);
            EXPECT_EQ(extras_of(formatter, out, csv), want[i - 2]) << "the values, once complete";
        }
        EXPECT_EQ(stats().length_calls - asked, asked) << "each valid field asked once";
        handed.clear();
        EXPECT_EQ(stats().records_alive, 0) << "every record freed";
        reset_fake_stats(*host);
    }
}

}  // namespace
