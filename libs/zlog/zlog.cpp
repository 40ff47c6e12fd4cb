// The zlog C API over the configuration and pattern modules.
#include "zlog.h"

#include <stdio.h>
#include <string.h>
#include <stdlib.h>
#include <syslog.h>
#include <time.h>

#include <algorithm>
#include <mutex>
#include <shared_mutex>

#include "zlog_conf.h"

struct zlog_category_s {
    std::string name;
    std::vector<const zl::Rule *> rules;  // of the configuration in force
};

namespace {

constexpr size_t kMaxCategoryName = 1024;

struct State {
    // Readers log; init, reload, fini and new categories take it exclusively.
    std::shared_mutex lock;
    std::unique_ptr<zl::Config> config;  // null while not initialised
    std::string config_path;             // empty: the built-in configuration
    // Categories live as long as the process so that a handle never dangles, even after fini.
    std::vector<std::unique_ptr<zlog_category_s>> categories;
};
// Never destroyed: another thread may still log while the process runs its exit handlers.
State &g = *new State;

// zlog reports its own problems only to the file named by $ZLOG_PROFILE_ERROR.
void report_error(const std::string &what) {
    const char *file = getenv("ZLOG_PROFILE_ERROR");
    if (!file) return;
    if (FILE *f = fopen(file, "a")) {
        fprintf(f, "zlog: %s\n", what.c_str());
        fclose(f);
    }
}

std::unique_ptr<zl::Config> load(const char *path) {
    if (!path || !*path) return zl::default_config();
    std::string error;
    auto config = zl::load_config(path, error);
    if (!config) report_error(std::string(path) + ": " + error);
    return config;
}

// Installs a configuration and points every category at its rules. Exclusive lock held.
void install(std::unique_ptr<zl::Config> config) {
    g.config = std::move(config);
    for (auto &category : g.categories) {
        category->rules.clear();
        if (g.config) category->rules = g.config->rules_for(category->name);
    }
}

// Formats the caller's message, growing the buffer once if needed, up to "buffer max".
void format_message(std::string &out, size_t limit, const char *format, va_list args) {
    out.resize(out.capacity() > 1024 ? out.capacity() : 1024);
    va_list copy;
    va_copy(copy, args);
    int n = vsnprintf(out.data(), out.size(), format, copy);
    va_end(copy);
    if (n < 0) n = 0;
    if (size_t(n) >= out.size() && out.size() < limit) {
        out.resize(std::min(size_t(n) + 1, limit));
        va_copy(copy, args);
        vsnprintf(out.data(), out.size(), format, copy);
        va_end(copy);
    }
    out.resize(std::min(size_t(n), out.size() - 1));
}

}  // namespace

extern "C" {

int zlog_init(const char *confpath) {
    std::unique_lock lock(g.lock);
    if (g.config) {
        report_error("already initialised");
        return -1;
    }
    if (!confpath) confpath = getenv("ZLOG_CONF_PATH");
    auto config = load(confpath);
    if (!config) return -1;
    g.config_path = confpath ? confpath : "";
    install(std::move(config));
    return 0;
}

int zlog_reload(const char *confpath) {
    std::unique_lock lock(g.lock);
    if (!g.config) {
        report_error("reload before init");
        return -1;
    }
    std::string path = confpath ? confpath : g.config_path;
    auto config = load(path.c_str());
    if (!config) return -1;  // the old configuration stays in force
    g.config_path = path;
    install(std::move(config));
    return 0;
}

void zlog_fini(void) {
    std::unique_lock lock(g.lock);
    install(nullptr);
}

zlog_category_t *zlog_get_category(const char *cname) {
    if (!cname || strlen(cname) > kMaxCategoryName) return nullptr;
    std::unique_lock lock(g.lock);
    if (!g.config) return nullptr;
    for (auto &category : g.categories)
        if (category->name == cname) return category.get();
    auto category = std::make_unique<zlog_category_s>();
    category->name = cname;
    category->rules = g.config->rules_for(category->name);
    g.categories.push_back(std::move(category));
    return g.categories.back().get();
}

void vzlog(zlog_category_t *category, const char *file, size_t filelen, const char *func,
           size_t funclen, long line, int level, const char *format, va_list args) {
    std::shared_lock lock(g.lock);
    if (!g.config || !category) return;
    bool wanted = false;
    for (const zl::Rule *rule : category->rules)
        wanted |= rule->matches_level(level);
    if (!wanted) return;

    thread_local std::string message, rendered;
    format_message(message, g.config->buffer_max, format, args);
    const zl::Level *known = g.config->find_level(level);
    zl::Event event{category->name,
                    {file ? file : "", file ? filelen : 0},
                    {func ? func : "", func ? funclen : 0},
                    line,
                    known ? std::string_view(known->name) : "UNKNOWN",
                    message,
                    {}};
    clock_gettime(CLOCK_REALTIME, &event.now);
    int priority = known ? known->syslog_priority : LOG_ERR;
    for (const zl::Rule *rule : category->rules) {
        if (!rule->matches_level(level)) continue;
        rendered.clear();
        rule->pattern->render(event, rendered);
        rule->output.write(rendered, priority);
    }
}

void zlog(zlog_category_t *category, const char *file, size_t filelen, const char *func,
          size_t funclen, long line, int level, const char *format, ...) {
    va_list args;
    va_start(args, format);
    vzlog(category, file, filelen, func, funclen, line, level, format, args);
    va_end(args);
}

}  // extern "C"
