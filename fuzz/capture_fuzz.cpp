// Fuzzes smbflow's input path on whole capture files: the input is a pcap or pcapng file that
// smbflow maps and reads in place (packets reach the queues without a copy), the host decodes
// each frame and runs it through the processing queues with the plug-in (linked in, small
// tables), and every flow record is exported and formatted as
// smbflow writes it. Two queues when the file's last byte is odd, so that the shared tables are
// used from two threads.
#include <string>

#include "capture.h"
#include "cv_log.h"
#include "flow_format.h"
#include "fuzz_input.h"
#include "host.h"
#include "pipeline.h"
#include "smb.h"

namespace {

constexpr const char *kSizes =
    "treetable-size=1024,filetable-size=1024,messagetable-size=1024,messagetable2-size=1024,"
    "datatable-size=1024";
constexpr uint64_t kMaxFrames = 20000;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    g_CvLogCtx.level = 0xffffffffu;
    fuzz::memory_file file(data, size);
    if (file.path().empty()) return 0;
    smbflow::Capture capture = smbflow::Capture::files({file.path()}, "");
    if (!capture.open()) return 0;

    corvane_host::Host host;
    if (host.add_module(corvane_module_init, "linked-in")) return 0;
    host.init_plugin(0, kSizes);
    {
        const unsigned queues = size && (data[size - 1] & 1) ? 2 : 1;
        smbflow::FlowFormatter formatter(host.fields());
        size_t rendered = 0;
        smbflow::Pipeline pipeline(host, queues, corvane_host::QueueConfig{},
                                   [&](const corvane_host::ExportedFlow &flow) {
                                       rendered += formatter.render(flow).size();
                                   });
        smbflow::submit_capture(capture, pipeline, kMaxFrames);
        pipeline.finish();
    }
    host.shutdown();
    return 0;
}
