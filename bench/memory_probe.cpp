// Memory of the plug-in's state for open files: opens FILES distinct files (CREATE request and
// successful response, never closed) over CONNECTIONS connections through the filter hook, then
// reports how many the file table holds, the heap the plug-in holds and the bytes per file.
//
//   smb_memory_probe FILES [CONNECTIONS] [PARAMS]
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "mini_host.h"
#include "smb.h"
#include "smb_file_table.h"
#include "smb_synth.h"
#include "packet_decoder.h"

namespace {

size_t heap_in_use() {
    return mallinfo2().uordblks + mallinfo2().hblkhd;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s FILES [CONNECTIONS] [PARAMS]\n", argv[0]);
        return 2;
    }
    const uint64_t files = strtoull(argv[1], nullptr, 10);
    const uint32_t connections = argc > 2 ? uint32_t(strtoul(argv[2], nullptr, 10)) : 1000;
    const char *params = argc > 3 ? argv[3] : nullptr;

    const size_t at_start = heap_in_use();
    mini_host::plugin plugin(params);
    smb_queue_ctx *q = plugin.queue;
    const size_t empty = heap_in_use();

    synth::open_files(
        [q](std::span<const uint8_t> frame) {
            corvane_host::DecodedPacket d;
            if (corvane_host::decode_frame(corvane_host::kLinkEthernet, frame.data(), frame.size(),
                                           d) != corvane_host::DecodeStatus::Ok)
                return;
            host_slot slot = nullptr;
            process_smb_filter(q, &d.pkt, nullptr, &slot);
            process_smb_callback(nullptr, &slot);
        },
        files, connections, true);

    const size_t full = heap_in_use();
    int64_t held = 0;
    for (int32_t i = 0; i < q->filetable->size; ++i)
        held += q->filetable->slots[i] != nullptr;
    printf("files opened         %llu\n", static_cast<unsigned long long>(files));
    printf("file table slots     %d\n", q->filetable->size);
    printf("files held           %lld\n", static_cast<long long>(held));
    printf("heap, empty tables   %zu bytes\n", empty - at_start);
    printf("heap, files held     %zu bytes\n", full - at_start);
    printf("bytes per held file  %.1f (records and names; slot arrays not counted)\n",
           held ? double(full - empty) / double(held) : 0.0);
    printf("bytes per held file  %.1f (with the file table's slot array)\n",
           held ? double(full - empty) / double(held) +
                      double(q->filetable->size) * sizeof(void *) / double(held)
                : 0.0);
    return 0;
}
