// Interface UUIDs as the protocol documents give them (MS-SCMR, MS-TSCH, MS-SAMR, MS-LSAD,
// MS-NRPC, MS-DRSR, MS-RRP, MS-SRVS, MS-WKST, MS-RPRN, C706 endpoint mapper, MS-EFSR, MS-EVEN,
// MS-DSSP).
#include "rpc_services.h"

#include <array>
#include <utility>

namespace smbflow {

namespace {

constexpr std::array<std::pair<std::string_view, std::string_view>, 16> kServices = {{
    {"367abb81-9844-35f1-ad32-98f038001003", "svcctl"},
    {"1ff70682-0a51-30e8-076d-740be8cee98b", "atsvc"},
    {"86d35949-83c9-4044-b424-db363231fd0c", "ITaskSchedulerService"},
    {"12345778-1234-abcd-ef00-0123456789ac", "samr"},
    {"12345778-1234-abcd-ef00-0123456789ab", "lsarpc"},
    {"12345678-1234-abcd-ef00-01234567cffb", "netlogon"},
    {"e3514235-4b06-11d1-ab04-00c04fc2dcd2", "drsuapi"},
    {"338cd001-2244-31f1-aaaa-900038001003", "winreg"},
    {"4b324fc8-1670-01d3-1278-5a47bf6ee188", "srvsvc"},
    {"6bffd098-a112-3610-9833-46c3f87e345a", "wkssvc"},
    {"12345678-1234-abcd-ef00-0123456789ab", "spoolss"},
    {"e1af8308-5d1f-11c9-91a4-08002b14a0fa", "epmapper"},
    {"c681d488-d850-11d0-8c52-00c04fd90f7e", "efsrpc"},
    {"df1941c5-fe89-4e79-bf10-463657acf44d", "efsrpc"},
    {"82273fdc-e32a-18c3-3f78-827929dc23ea", "eventlog"},
    {"3919286a-b10c-11d0-9ba8-00c04fd92ef5", "dssetup"},
}};

}  // namespace

std::string_view rpc_service_name(std::string_view uuid_text) {
    for (const auto &[uuid, name] : kServices)
        if (uuid == uuid_text) return name;
    return {};
}

}  // namespace smbflow
