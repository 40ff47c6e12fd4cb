// The two symbols a host looks up, and the descriptor handed to it.
#include "smb.h"

const uint32_t corvane_api_version = CORVANE_API_VERSION;

const char smb_plugin_help[] =
    "smb parser\n  Parameters\n   port=<0,65535>     parse only packets on chosen port, default "
    "= 445 (zero means Don't filter, parse all ports)   treetable-size=<unsigned int>   "
    "filetable-size=<unsigned int>   messagetable-size=<unsigned int>   "
    "messagetable2-size=<unsigned int>   datatable-size=<unsigned int>";

const corvane_plugin_desc plugin = {
    2,
    "smb",
    smb_plugin_help,
    CORVANE_API_VERSION,
    2,
    process_smb_init,
    process_smb_init_queue,
    process_smb_shutdown_queue,
    process_smb_shutdown,
    {},
};

int corvane_module_init(void *a1, void *a2, void *a3, void *a4) {
    return corvane_plugin_add(const_cast<corvane_plugin_desc *>(&plugin), a1, a2, a3, a4);
}
