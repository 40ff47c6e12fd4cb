// smbflow on broken capture files: cut short in a packet record or a pcapng block, a record
// that claims more bytes than any packet may have, headers that claim lengths past the end of
// their frame, random corruption, garbage and empty files. Every run ends with a clear message
// (or none, where the input is merely odd) and the exit status for unreadable input, never a
// crash; the flow records of the packets read before a fault are still written, exactly as for
// a clean file that ends there. In the sanitizer build every run is also checked by ASan/UBSan.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using bytes = std::vector<uint8_t>;

constexpr int kExitOk = 0;
constexpr int kExitInput = 1;

bytes read_file(const fs::path &p) {
    std::ifstream in(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void write_file(const fs::path &p, const bytes &b) {
    std::ofstream(p, std::ios::binary)
        .write(reinterpret_cast<const char *>(b.data()), std::streamsize(b.size()));
}

uint32_t le32(const bytes &b, size_t at) {
    return uint32_t(b[at]) | uint32_t(b[at + 1]) << 8 | uint32_t(b[at + 2]) << 16 |
           uint32_t(b[at + 3]) << 24;
}

void put_le32(bytes &b, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        b[at + i] = uint8_t(v >> (8 * i));
}

struct run_result {
    int status = -1;  // exit status, or 128 + signal
    std::string err;
    std::string out;  // the records written
};

class CaptureInput : public testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/smb-hostile-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        original_ = read_file(fs::path(SMB_CAPTURE_DIR) / "smb2_ops.pcap");
        ASSERT_GT(original_.size(), 24u);
    }
    void TearDown() override { fs::remove_all(dir_); }

    fs::path file(const std::string &name, const bytes &content) {
        const fs::path p = dir_ / name;
        write_file(p, content);
        return p;
    }

    run_result smbflow(const fs::path &input) {
        const fs::path out = dir_ / "records.csv", err = dir_ / "stderr.txt";
        fs::remove(out);
        const std::string cmd = std::string("'") + SMBFLOW + "' -q --no-progress -o '" +
                                out.string() + "' '" + input.string() + "' 2>'" + err.string() +
                                "'";
        const int raw = system(cmd.c_str());
        run_result r;
        r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
        const bytes e = read_file(err), o = read_file(out);
        r.err.assign(e.begin(), e.end());
        r.out.assign(o.begin(), o.end());
        return r;
    }

    // Offsets of the records of a classic pcap file (after the 24-byte file header).
    std::vector<size_t> pcap_records(const bytes &b) {
        std::vector<size_t> at;
        for (size_t p = 24; p + 16 <= b.size(); p += 16 + le32(b, p + 8))
            at.push_back(p);
        return at;
    }

    bytes prefix(const bytes &b, size_t n) { return bytes(b.begin(), b.begin() + n); }

    fs::path dir_;
    bytes original_;
};

TEST_F(CaptureInput, CleanCaptureIsTheReference) {
    const run_result r = smbflow(file("clean.pcap", original_));
    EXPECT_EQ(r.status, kExitOk) << r.err;
    EXPECT_FALSE(r.out.empty());
}

// A file cut inside a record: the records of every whole packet before the cut are written.
TEST_F(CaptureInput, PcapCutInsideARecordKeepsTheRecordsBeforeIt) {
    const auto records = pcap_records(original_);
    ASSERT_GT(records.size(), 40u);
    const size_t at = records[records.size() / 2];
    for (size_t cut : {at + 7, at + 16 + 10}) {  // inside the record header, inside the data
        SCOPED_TRACE(cut);
        const run_result whole = smbflow(file("prefix.pcap", prefix(original_, at)));
        const run_result cut_short = smbflow(file("cut.pcap", prefix(original_, cut)));
        EXPECT_EQ(whole.status, kExitOk) << whole.err;
        EXPECT_EQ(cut_short.status, kExitInput) << cut_short.err;
        EXPECT_NE(cut_short.err.find("smbflow: "), std::string::npos) << cut_short.err;
        EXPECT_FALSE(cut_short.out.empty());
        EXPECT_EQ(cut_short.out, whole.out);
    }
}

// Files that are not captures at all, or end before their first record.
TEST_F(CaptureInput, UnreadableFilesFailWithAMessage) {
    std::mt19937 rng(7);
    bytes garbage(4096);
    for (auto &b : garbage)
        b = uint8_t(rng());
    const std::vector<std::pair<std::string, bytes>> inputs = {
        {"empty.pcap", {}},
        {"short_header.pcap", prefix(original_, 10)},
        {"garbage.pcap", garbage},
    };
    for (const auto &[name, content] : inputs) {
        SCOPED_TRACE(name);
        const run_result r = smbflow(file(name, content));
        EXPECT_EQ(r.status, kExitInput) << r.err;
        EXPECT_NE(r.err.find("smbflow: "), std::string::npos) << r.err;
    }
    const run_result missing = smbflow(dir_ / "no-such-file.pcap");
    EXPECT_EQ(missing.status, kExitInput) << missing.err;
}

// A record that claims more captured bytes than any packet may have, or than the file holds.
TEST_F(CaptureInput, RecordClaimingTooManyBytesEndsTheInput) {
    const auto records = pcap_records(original_);
    const size_t at = records[records.size() / 3];
    for (uint32_t claimed : {0x7fffffffu, 0x40000u + 1, 0xffffffffu}) {
        SCOPED_TRACE(claimed);
        bytes b = original_;
        put_le32(b, at + 8, claimed);
        const run_result r = smbflow(file("claims.pcap", b));
        const run_result whole = smbflow(file("prefix.pcap", prefix(original_, at)));
        EXPECT_EQ(r.status, kExitInput) << r.err;
        EXPECT_NE(r.err.find("smbflow: "), std::string::npos) << r.err;
        EXPECT_EQ(r.out, whole.out);
    }
}

// Frames whose IP, TCP and session headers claim more than the frame holds: odd traffic, not a
// broken file. Every frame keeps its length; only the claims grow.
TEST_F(CaptureInput, HeadersClaimingLengthsPastTheFrameAreHarmless) {
    bytes b = original_;
    for (size_t at : pcap_records(b)) {
        const size_t frame = at + 16, caplen = le32(b, at + 8);
        if (caplen < 14 + 20 + 20 + 8) continue;
        uint8_t *ip = &b[frame + 14];
        if (b[frame + 12] != 0x08 || b[frame + 13] != 0x00) continue;  // IPv4 only
        ip[2] = 0xff;                                                  // total length 65535
        ip[3] = 0xff;
        uint8_t *tcp = ip + (ip[0] & 0x0f) * 4;
        if (caplen >= 14 + 20 + 20 + 8 + 4 && tcp[12] == 0x50) {
            uint8_t *payload = tcp + 20;
            payload[1] = 0xff;  // session length far past the frame
            payload[2] = 0xff;
            payload[3] = 0xff;
        } else {
            tcp[12] = 0xf0;  // data offset 60 bytes
        }
    }
    const run_result r = smbflow(file("claims.pcap", b));
    EXPECT_EQ(r.status, kExitOk) << r.err;
}

// The same for pcapng: a file cut inside a block, and a block whose length runs past the end.
TEST_F(CaptureInput, PcapngCutOrOverlongBlock) {
    const fs::path ng = dir_ / "clean.pcapng";
    const std::string convert =
        "editcap -F pcapng '" + (dir_ / "c.pcap").string() + "' '" + ng.string() + "'";
    write_file(dir_ / "c.pcap", original_);
    if (system(convert.c_str()) != 0) GTEST_SKIP() << "editcap is not installed";
    const bytes b = read_file(ng);
    std::vector<size_t> blocks;  // offsets of blocks; the first ones describe the file
    for (size_t p = 0; p + 12 <= b.size() && le32(b, p + 4) >= 12; p += le32(b, p + 4))
        blocks.push_back(p);
    ASSERT_GT(blocks.size(), 40u);
    const size_t at = blocks[blocks.size() / 2];

    const run_result whole = smbflow(file("prefix.pcapng", prefix(b, at)));
    EXPECT_EQ(whole.status, kExitOk) << whole.err;
    const run_result cut = smbflow(file("cut.pcapng", prefix(b, at + 20)));
    EXPECT_EQ(cut.status, kExitInput) << cut.err;
    EXPECT_NE(cut.err.find("smbflow: "), std::string::npos) << cut.err;
    EXPECT_EQ(cut.out, whole.out);

    bytes overlong = b;
    put_le32(overlong, at + 4, 0x7ffffff0u);
    const run_result r = smbflow(file("overlong.pcapng", overlong));
    EXPECT_EQ(r.status, kExitInput) << r.err;
    EXPECT_EQ(r.out, whole.out);
}

}  // namespace
