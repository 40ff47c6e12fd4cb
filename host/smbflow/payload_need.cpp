#include "payload_need.h"

#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace smbflow {

namespace {

constexpr uint16_t kSmbDefaultPort = 445;  // the plug-in's own default
constexpr uint32_t kNotGiven = 0xffffffffu;

// The non-empty pieces of text between separators.
std::vector<std::string_view> pieces(std::string_view text, char separator) {
    std::vector<std::string_view> out;
    while (!text.empty()) {
        const size_t cut = text.find(separator);
        if (cut != 0) out.push_back(text.substr(0, cut));
        if (cut == std::string_view::npos) break;
        text.remove_prefix(cut + 1);
    }
    return out;
}

}  // namespace

std::optional<uint16_t> smb_plugin_port(const std::optional<std::string> &params) {
    if (!params) return kSmbDefaultPort;
    // A text naming a readable file is read from that file; not worth mirroring here.
    if (access(params->c_str(), R_OK) == 0) return std::nullopt;
    uint32_t port = kNotGiven;
    for (std::string_view item : pieces(*params, ',')) {
        const auto key_value = pieces(item, '=');
        if (key_value.size() != 2) return std::nullopt;  // the plug-in refuses the text
        if (key_value[0] != "port") continue;
        const std::string value(key_value[1]);
        port = static_cast<uint32_t>(static_cast<int32_t>(strtol(value.c_str(), nullptr, 0)));
    }
    if (port == kNotGiven) return kSmbDefaultPort;
    if (port > 65535) return std::nullopt;  // the plug-in refuses it
    return static_cast<uint16_t>(port);
}

PayloadNeed PayloadNeed::for_run(bool no_plugin, size_t plugins, std::string_view first_plugin_name,
                                 const std::optional<std::string> &params) {
    if (no_plugin) return headers_only();
    if (plugins != 1 || first_plugin_name != "smb") return all();
    const auto port = smb_plugin_port(params);
    return port ? tcp_port(*port) : all();
}

}  // namespace smbflow
