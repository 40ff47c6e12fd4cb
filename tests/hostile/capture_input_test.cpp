// smbflow on broken capture files: cut short in a packet record or a pcapng block, a record
// that claims more bytes than any packet may have, headers that claim lengths past the end of
// their frame, files that end before their first record. Every run ends with a clear message
// (or none, where the input is merely odd) and the exit status for unreadable input, never a
// crash; the flow records of the packets read before a fault are still written, exactly as for
// a clean file that ends there. In the sanitizer build every run is also checked by ASan/UBSan.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "run_command.h"

namespace {

using namespace hosttest;

constexpr int kExitOk = 0;
constexpr int kExitInput = 1;

uint32_t le32(const std::string &b, size_t at) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i)
        v = v << 8 | uint8_t(b[at + i]);
    return v;
}

void put_le32(std::string &b, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        b[at + i] = char(v >> (8 * i));
}

class CaptureInput : public testing::Test {
  protected:
    // smbflow's records (CSV on standard output), messages and exit status for a file holding
    // `content`.
    CommandResult smbflow(const std::string &content) {
        write_file(tmp_.path("in"), content);
        return run_command({SMBFLOW, "-q", "--no-progress", tmp_.path("in")});
    }
    // Offsets of the records of a classic pcap file (after the 24-byte file header).
    std::vector<size_t> pcap_records(const std::string &b) {
        std::vector<size_t> at;
        for (size_t p = 24; p + 16 <= b.size(); p += 16 + le32(b, p + 8))
            at.push_back(p);
        return at;
    }

    TempDir tmp_;
    const std::string original_ = read_file(SMB_CAPTURE_DIR "/smb2_ops.pcap");
};

// A file cut inside a record: the records of every whole packet before the cut are written.
TEST_F(CaptureInput, PcapCutInsideARecordKeepsTheRecordsBeforeIt) {
    const auto records = pcap_records(original_);
    ASSERT_GT(records.size(), 40u);
    const size_t at = records[records.size() / 2];
    const CommandResult whole = smbflow(original_.substr(0, at));
    EXPECT_EQ(whole.status, kExitOk) << whole.err;
    EXPECT_FALSE(whole.out.empty());
    for (size_t cut : {at + 7, at + 16 + 10}) {  // inside the record header, inside the data
        const CommandResult r = smbflow(original_.substr(0, cut));
        EXPECT_EQ(r.status, kExitInput) << r.err;
        EXPECT_NE(r.err.find("smbflow: "), std::string::npos) << r.err;
        EXPECT_EQ(r.out, whole.out) << cut;
    }
}

// Files that end before their first record (missing files and garbage are smbflow_test's).
TEST_F(CaptureInput, FilesWithoutARecordFailWithAMessage) {
    for (const std::string &content : {std::string(), original_.substr(0, 10)}) {
        const CommandResult r = smbflow(content);
        EXPECT_EQ(r.status, kExitInput) << r.err;
        EXPECT_NE(r.err.find("smbflow: "), std::string::npos) << r.err;
    }
}

// A record that claims more captured bytes than any packet may have, or than the file holds.
TEST_F(CaptureInput, RecordClaimingTooManyBytesEndsTheInput) {
    const auto records = pcap_records(original_);
    const size_t at = records[records.size() / 3];
    const CommandResult whole = smbflow(original_.substr(0, at));
    for (uint32_t claimed : {0x7fffffffu, 0x40000u + 1, 0xffffffffu}) {
        std::string b = original_;
        put_le32(b, at + 8, claimed);
        const CommandResult r = smbflow(b);
        EXPECT_EQ(r.status, kExitInput) << r.err;
        EXPECT_NE(r.err.find("smbflow: "), std::string::npos) << r.err;
        EXPECT_EQ(r.out, whole.out) << claimed;
    }
}

// Frames whose IP, TCP and session headers claim more than the frame holds: odd traffic, not a
// broken file. Every frame keeps its length; only the claims grow.
TEST_F(CaptureInput, HeadersClaimingLengthsPastTheFrameAreHarmless) {
    std::string b = original_;
    for (size_t at : pcap_records(b)) {
        const size_t frame = at + 16, caplen = le32(b, at + 8);
        if (caplen < 14 + 20 + 20 + 8) continue;
        char *ip = &b[frame + 14];
        if (b[frame + 12] != 0x08 || b[frame + 13] != 0x00) continue;  // IPv4 only
        ip[2] = ip[3] = char(0xff);                                    // total length 65535
        char *tcp = ip + (ip[0] & 0x0f) * 4;
        if (caplen >= 14 + 20 + 20 + 8 + 4 && tcp[12] == 0x50)
            tcp[21] = tcp[22] = tcp[23] = char(0xff);  // session length far past the frame
        else
            tcp[12] = char(0xf0);  // data offset 60 bytes
    }
    const CommandResult r = smbflow(b);
    EXPECT_EQ(r.status, kExitOk) << r.err;
}

// The same for pcapng: a file cut inside a block, and a block whose length runs past the end.
TEST_F(CaptureInput, PcapngCutOrOverlongBlock) {
    write_file(tmp_.path("c.pcap"), original_);
    if (run_command({"/usr/bin/editcap", "-F", "pcapng", tmp_.path("c.pcap"), tmp_.path("c.ng")})
            .status != 0)
        GTEST_SKIP() << "editcap is not installed";
    const std::string b = read_file(tmp_.path("c.ng"));
    std::vector<size_t> blocks;  // offsets of blocks; the first ones describe the file
    for (size_t p = 0; p + 12 <= b.size() && le32(b, p + 4) >= 12; p += le32(b, p + 4))
        blocks.push_back(p);
    ASSERT_GT(blocks.size(), 40u);
    const size_t at = blocks[blocks.size() / 2];

    const CommandResult whole = smbflow(b.substr(0, at));
    EXPECT_EQ(whole.status, kExitOk) << whole.err;
    const CommandResult cut = smbflow(b.substr(0, at + 20));
    EXPECT_EQ(cut.status, kExitInput) << cut.err;
    EXPECT_NE(cut.err.find("smbflow: "), std::string::npos) << cut.err;
    EXPECT_EQ(cut.out, whole.out);

    std::string overlong = b;
    put_le32(overlong, at + 4, 0x7ffffff0u);
    const CommandResult r = smbflow(overlong);
    EXPECT_EQ(r.status, kExitInput) << r.err;
    EXPECT_EQ(r.out, whole.out);
}

}  // namespace
