#include "ipfix_url.h"

#include <cstdlib>

namespace smbflow {

namespace {

std::string bad(const std::string &url, const std::string &why) {
    return "--ipfix " + url + ": " + why +
           " (expected udp://HOST[:PORT], tcp://HOST[:PORT] or file:PATH)";
}

}  // namespace

std::variant<IpfixUrl, std::string> parse_ipfix_url(const std::string &url) {
    IpfixUrl out;
    out.text = url;
    if (url.rfind("file:", 0) == 0) {
        out.transport = IpfixUrl::Transport::File;
        out.path = url.substr(5);
        // file:///tmp/x names /tmp/x, as in RFC 8089.
        if (out.path.rfind("//", 0) == 0) out.path = out.path.substr(2);
        if (out.path.empty()) return bad(url, "no file name");
        return out;
    }
    std::string rest;
    if (url.rfind("udp://", 0) == 0) {
        out.transport = IpfixUrl::Transport::Udp;
        rest = url.substr(6);
    } else if (url.rfind("tcp://", 0) == 0) {
        out.transport = IpfixUrl::Transport::Tcp;
        rest = url.substr(6);
    } else {
        return bad(url, "unknown scheme");
    }
    if (!rest.empty() && rest.back() == '/') rest.pop_back();
    std::string port;
    if (rest.rfind('[', 0) == 0) {
        const size_t close = rest.find(']');
        if (close == std::string::npos) return bad(url, "no ']' after the IPv6 address");
        out.host = rest.substr(1, close - 1);
        const std::string after = rest.substr(close + 1);
        if (!after.empty()) {
            if (after[0] != ':') return bad(url, "text after the IPv6 address");
            port = after.substr(1);
            if (port.empty()) return bad(url, "empty port");
        }
    } else {
        const size_t colon = rest.find(':');
        if (colon != std::string::npos && rest.find(':', colon + 1) != std::string::npos)
            return bad(url, "an IPv6 address goes in brackets, as in udp://[::1]:4739");
        out.host = rest.substr(0, colon);
        if (colon != std::string::npos) {
            port = rest.substr(colon + 1);
            if (port.empty()) return bad(url, "empty port");
        }
    }
    if (out.host.empty()) return bad(url, "no host");
    if (out.host.find_first_of("/?#@ ") != std::string::npos) return bad(url, "bad host name");
    if (port.empty()) port = kIpfixPort;
    if (port.find_first_not_of("0123456789") != std::string::npos || port.size() > 5 ||
        std::atoi(port.c_str()) < 1 || std::atoi(port.c_str()) > 65535)
        return bad(url, "the port must be a number from 1 to 65535");
    out.port = port;
    return out;
}

}  // namespace smbflow
