// Fuzzes smbflow's reader of standard input and FIFOs: the stream view of MappedCapture, which
// reads forward into buffers of its own instead of mapping the file. The input is read as a
// stream with small buffers and short reads, so that records straddle buffers and arrive in
// pieces, and must give the same packets and the same ending as the same bytes mapped as a
// file. The last byte picks the buffer and read sizes, so that whole captures serve as seeds.
#include <cstdlib>
#include <cstring>

#include "fuzz_input.h"
#include "mapped_capture.h"

namespace {

bool same(const smbflow::Frame &a, const smbflow::Frame &b) {
    return a.ts_ns == b.ts_ns && a.caplen == b.caplen && a.wire_len == b.wire_len &&
           a.link_type == b.link_type && memcmp(a.data, b.data, a.caplen) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::memory_file file(data, size);
    if (file.path().empty()) return 0;
    const uint8_t last = size ? data[size - 1] : 0;
    smbflow::MappedCapture mapped, stream;
    // Buffers of 16 bytes to 2 KiB, reads of 1 to 156 bytes.
    stream.set_stream_sizes(size_t{16} << (last & 7), 1 + (last >> 3) * 5u);
    const bool opened = mapped.open(file.path(), "");
    if (stream.open(file.path(), "", true) != opened) abort();
    if (!opened) return 0;
    for (;;) {
        smbflow::Frame a, b;
        const smbflow::ReadStatus status = mapped.next(a);
        if (stream.next(b) != status) abort();
        if (status != smbflow::ReadStatus::Packet) break;
        if (!same(a, b)) abort();
    }
    return 0;
}
