// Where smbflow sends IPFIX: udp://HOST[:PORT], tcp://HOST[:PORT] (4739, RFC 7011 section 10,
// when the port is left out; an IPv6 address in brackets) or file:PATH (an IPFIX file, RFC 5655:
// the message stream as it would be written to TCP).
#pragma once

#include <string>
#include <variant>

namespace smbflow {

struct IpfixUrl {
    enum class Transport { Udp, Tcp, File };
    Transport transport = Transport::File;
    std::string host;  // without brackets
    std::string port;  // digits
    std::string path;  // for file:

    // As the user would write it back, for messages and the summary.
    std::string text;
};

inline constexpr const char *kIpfixPort = "4739";

// The destination, or a message that says what is wrong with the URL.
std::variant<IpfixUrl, std::string> parse_ipfix_url(const std::string &url);

}  // namespace smbflow
