// Well-known DCE/RPC interfaces of Windows and Samba services, by interface UUID, for the
// display column that names the service behind SMB_RPC_INTERFACE.
#pragma once

#include <string_view>

namespace smbflow {

// The service name of an interface UUID in lower-case text form
// ("367abb81-9844-35f1-ad32-98f038001003" -> "svcctl"); empty when it is not a known one.
std::string_view rpc_service_name(std::string_view uuid_text);

}  // namespace smbflow
