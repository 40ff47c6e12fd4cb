// Checks of --params against the parameters that the plug-in declares, before the plug-in
// sees them: the plug-in's own parser warns about an unknown key and goes on, reads "12abc" as
// 12 and "-1" as "not given", and sizes its tables from whatever number it is handed.
//
// The declaration is the plug-in's help text, the one interface through which a plug-in
// describes its parameters: each "key=<lo,hi>" is an integer from lo to hi, each
// "key=<unsigned int>" an unsigned 32-bit integer. A key ending in "-size" sizes a table of
// pointer slots (the nearest power of two, at least 1024), which the check bounds by the
// memory the process may use.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace smbflow {

struct DeclaredParam {
    std::string key;
    uint64_t min = 0, max = UINT32_MAX;
};

// The parameters declared in a help text, in their order.
std::vector<DeclaredParam> declared_params(std::string_view help);

// The help text of the SMB plug-in with the opt-ins that its own text (kept as it is) does not
// list, in the same notation.
std::string smb_parameter_text(std::string_view help);

struct ParamLimits {
    uint64_t memory_bytes = UINT64_MAX;  // what the tables may take in all
    unsigned queues = 1;                 // per-queue tables are made this many times
    std::vector<std::string> per_queue;  // keys of the tables made once per queue
};

// The memory the process may still take: the smaller of the available memory and its
// address-space and data limits.
uint64_t memory_budget();

// `params` as the plug-in reads it: comma-separated key=value items, or the name of a readable
// file of such lines. A message naming the first item that the plug-in would refuse, ignore or
// misread, or that sizes tables beyond the limits.
std::optional<std::string> check_params(const std::string &params,
                                        const std::vector<DeclaredParam> &declared,
                                        const ParamLimits &limits);

}  // namespace smbflow
