// Fuzzes the zlog back end's configuration reader: the input is a configuration file; every
// format and rule that it yields is then rendered and matched for a few categories and levels.
// Nothing is written to the configured outputs.
#include <string>

#include "fuzz_input.h"
#include "zlog_conf.h"

namespace {

void use(const zl::Config &config) {
    constexpr std::string_view kCategories[] = {"smb", "smb_parser", "", "*", "a_b_c"};
    constexpr int kLevels[] = {10, 20, 40, 60, 80, 100, 120, 7};
    zl::Event event{
        "smb",           "src/plugins/default/process/smb", "process_smb_filter", 42, "WARN",
        "message %s %d", timespec{1700000000, 123456789}};
    std::string line;
    line.reserve(4096);
    config.default_format.render(event, line);
    for (const auto &format : config.formats) {
        line.clear();
        format.pattern.render(event, line);
    }
    for (std::string_view category : kCategories) {
        event.category = category;
        for (const zl::Rule *rule : config.rules_for(category)) {
            for (int level : kLevels) {
                if (!rule->matches_level(level)) continue;
                const zl::Level *known = config.find_level(level);
                event.level_name = known ? std::string_view(known->name) : "UNKNOWN";
                line.clear();
                if (rule->pattern) rule->pattern->render(event, line);
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::memory_file file(data, size);
    if (file.path().empty()) return 0;
    std::string error;
    if (auto config = zl::load_config(file.path().c_str(), error)) use(*config);
    return 0;
}
