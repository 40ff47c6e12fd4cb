// Packet mixes taken from the real captures, ready to hand to the plug-in's hooks: each packet
// keeps its frame and a host packet descriptor as the host would fill it.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "mini_host.h"
#include "smb.h"

namespace bench {

struct packet {
    std::vector<uint8_t> frame;
    host_packet descriptor{};  // data points into frame; copied fresh for every use
};

struct mix {
    std::string name;
    std::vector<packet> packets;
};

// The mixes, from the captures in capture_dir:
//   read_write    large_io.pcap: READ and WRITE messages spanning many segments
//   create_close  the SMB2 CREATE and CLOSE messages of the *_ops and names captures
//   compound      compound.pcap and compound_segmented.pcap
//   encrypted     smb3_encrypted.pcap
//   smb1          smb1_ops.pcap
//   all           every capture
// Each holds the TCP packets on port 445 in capture order (create_close only those messages).
// Exits with a message when a capture can't be read.
std::vector<mix> load_mixes(const std::string &capture_dir);

using mini_host::plugin;

// One packet through the filter hook, freeing the record it leaves.
void run_filter(smb_queue_ctx *q, const packet &p);
// One packet through the payload entry into a record on the stack.
int32_t run_parse(smb_queue_ctx *q, const packet &p);

}  // namespace bench
