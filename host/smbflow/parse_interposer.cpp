// smbflow's stand-in for the plug-in's parser entry. The executable exports it, so the
// plug-in's own call of smb_parse_packet (made through its symbol table) lands here first;
// the stand-in calls the plug-in's parser, found with dlsym on the plug-in's handle, and
// counts the result for the summary.
#include <cstdint>

#include "host_interface.h"
#include "parse_results.h"

extern "C" __attribute__((visibility("default"))) int smb_parse_packet(host_packet *pkt, void *rec,
                                                                       void *q,
                                                                       const uint8_t *payload) {
    using ParserFn = int (*)(host_packet *, void *, void *, const uint8_t *);
    auto real = reinterpret_cast<ParserFn>(smbflow::parse_results_real_parser());
    if (!real) return 1;  // no parser to run: the plug-in drops the record
    const int rc = real(pkt, rec, q, payload);
    smbflow::parse_results_count(rc);
    return rc;
}
