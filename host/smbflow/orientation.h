// Client-first orientation of written flow records. The flow cache keys a connection by the
// packet that created its record, and a tree or file record of an SMB connection starts with
// the server's response that first carries the tree or file id, so most such records would
// name the server as source. RFC 5103 asks a biflow record to name the initiator as source:
// records are turned around where they are written, with addresses, ports, counters and TCP
// flags swapped together. The plug-in's fields are left as they are: its request and response
// words already say which side sent what.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "exporter.h"

namespace smbflow {

// The SMB server port a run's plug-in parameters select: the last `port` item that the plug-in
// takes (decimal, hex or octal, at most 65535; a negative value counts as not given), else
// 445. Port 0 (no port filter) gives 445 as well: the records to turn are still those of
// connections to the usual port.
uint16_t server_port_of(const std::optional<std::string> &params);

// True when the record names the server (the endpoint on `server_port`) as source and a
// client port as destination.
bool server_first(const host_flow_record &rec, uint16_t server_port);

// Swaps the two directions of the record in place.
void turn_around(host_flow_record &rec);

// Turns each record client first, in place (the export thread's record buffer is reused for
// the next record anyway: a copy of a record with its field values cost as much as writing
// it).
class ClientFirst {
  public:
    explicit ClientFirst(uint16_t server_port) : port_(server_port) {}
    corvane_host::ExportedFlow &operator()(corvane_host::ExportedFlow &flow) const {
        if (server_first(flow.rec, port_)) turn_around(flow.rec);
        return flow;
    }

  private:
    uint16_t port_;
};

}  // namespace smbflow
