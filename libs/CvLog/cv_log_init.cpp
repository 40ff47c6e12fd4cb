// Start-up, reconfiguration and shutdown: finding the zlog configuration next to the
// executable, the fail-safe configuration written to /tmp when there is none, and the steps
// around daemonizing and switching user.
#define CV_LOG_SOURCE CVLOG_OWN_SOURCE
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "cv_log_internal.h"
#include "zlog.h"

namespace {

using cvlog::priv;

// The configuration used when none is found: everything to stderr, warnings and errors also
// to syslog.
constexpr char kZlogConfig[] =
    "[global]\n"
    "strict init = true\n"
    "reload conf period = 0\n"
    "\n"
    "buffer min = 1024\n"
    "buffer max = 2MB\n"
    "\n"
    "rotate lock file = self\n"
    "default format = \"%d(%F %T).%ms %p (%t) %-5V %c - %U - %m%n\"\n"
    "file perms = 660\n"
    "fsync period = 1K\n"
    "\n"
    "[levels]\n"
    "TRACE = 10 LOG_TRACE\n"
    "\n"
    "[formats]\n"
    "simple = \"%c - %U - %m\"\n"
    "debug = \"%d(%F %T).%ms %p (%t) %-5V %c - %F:%U:%L - %m%n\"\n"
    "\n"
    "[rules]\n";
constexpr char kZlogConfigStderr[] = "*.*\t\t\t>stderr\n";
constexpr char kZlogConfigSyslog[] = "*.WARN\t\t\t>syslog, LOG_DAEMON;simple\n";
static_assert(sizeof kZlogConfig - 1 == 341 && sizeof kZlogConfigStderr - 1 == 14 &&
              sizeof kZlogConfigSyslog - 1 == 36);

#define EARLY(level, ...) \
    CvLog_EarlyLog("early", CV_LOG_SOURCE, __func__, __LINE__, level, __VA_ARGS__)

[[noreturn]] void die() {
    exit(EXIT_FAILURE);
}

// The full path of the running executable.
bool read_exe(char (&exe)[CVLOG_PATH_MAX]) {
    ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n < 0) return false;
    exe[n] = '\0';
    return true;
}

void SetAppName(const char *name) {
    if (name) snprintf(priv().app_name, sizeof priv().app_name, "%s", name);
    char exe[CVLOG_PATH_MAX];
    if (!read_exe(exe)) {
        EARLY(CVLOG_ERROR, "SetAppName() readlink(/proc/self/exe) failed:%m exit(EXIT_FAILURE)");
        die();
    }
    const char *slash = strrchr(exe, '/');
    snprintf(priv().app_name, sizeof priv().app_name, "%s", slash ? slash + 1 : exe);
}

// <dir of exe>/<name><suffix>.log.conf, or <exe><suffix>.log.conf without a name.
void SetConfigPath(const char *name, const char *suffix, char (&path)[CVLOG_PATH_MAX]) {
    char exe[CVLOG_PATH_MAX];
    if (!read_exe(exe)) {
        EARLY(CVLOG_ERROR, "CvLog_Init() readlink(/proc/self/exe) failed:%m exit(EXIT_FAILURE)");
        die();
    }
    int n;
    if (name) {
        char *slash = strrchr(exe, '/');
        if (slash) *slash = '\0';
        n = snprintf(path, sizeof path, "%s/%s%s.%s", exe, name, suffix, "log.conf");
    } else {
        n = snprintf(path, sizeof path, "%s%s.%s", exe, suffix, "log.conf");
    }
    if (n < 0 || size_t(n) >= sizeof path) path[0] = '\0';  // too long to exist: no file
}

// True for a regular file the process may read and write.
bool CheckConfigFile(const char *path, const char *caller) {
    struct stat st;
    if (stat(path, &st) != 0 || !S_ISREG(st.st_mode)) return false;
    if (access(path, R_OK | W_OK) != 0) {
        EARLY(CVLOG_WARN, "%s() configuration file \"%s\" check permissions", caller, path);
        return false;
    }
    return true;
}

bool WriteFailSafeConfig(FILE *file, const char *path) {
    struct Part {
        const char *text;
        size_t size;
        const char *failure;
    };
    const Part parts[] = {
        {kZlogConfig, sizeof kZlogConfig - 1,
         "GenerateFailSafeConfig - fwrite zlog_config filename:%s failed %m"},
        {kZlogConfigStderr, sizeof kZlogConfigStderr - 1,
         "GenerateFailSafeConfig - fwrite zlog_config_stderr filename:%s failed %m"},
        {kZlogConfigSyslog, sizeof kZlogConfigSyslog - 1,
         "GenerateFailSafeConfig - fwrite zlog_config_syslog filename:%s failed %m"},
    };
    for (const Part &part : parts) {
        if (fwrite(part.text, 1, part.size, file) != part.size) {
            CvLog_EarlyLog("early", CV_LOG_SOURCE, "WriteFailSafeConfig", __LINE__, CVLOG_ERROR,
                           part.failure, path);
            return false;
        }
    }
    return true;
}

bool PrepareFailSafeConfig(const char *name, const char *suffix, char (&path)[CVLOG_PATH_MAX],
                           uint8_t &is_temp) {
    snprintf(path, sizeof path, "/tmp/cvlog-%s-%d-%sXXXXXX", name ? name : "(null)", int(getpid()),
             suffix);
    int fd = mkstemp(path);
    if (fd < 0) {
        EARLY(CVLOG_ERROR, "PrepareFailSafeConfig - mkstemps:%s failed:%m", path);
        return false;
    }
    FILE *file = fdopen(fd, "w");
    if (!file) {
        EARLY(CVLOG_ERROR, "PrepareFailSafeConfig - fdopen:%s failed:%m", path);
        close(fd);
        remove(path);
        return false;
    }
    bool written = WriteFailSafeConfig(file, path);
    if (fclose(file) != 0) {
        EARLY(CVLOG_ERROR, "PrepareFailSafeConfig - fclose filename:%s failed %m", path);
        remove(path);
        return false;
    }
    if (!written) {
        remove(path);
        return false;
    }
    is_temp = 1;
    return true;
}

// The main configuration next to the executable, else a fail-safe one.
void choose_main_config(const char *name, const char *caller) {
    SetConfigPath(name, "", priv().config_path);
    if (CheckConfigFile(priv().config_path, caller)) return;
    if (!PrepareFailSafeConfig(name, "", priv().config_path, priv().config_is_temp)) {
        EARLY(CVLOG_ERROR, "PrepareFailSafeConfig() failed exit(EXIT_FAILURE)");
        die();
    }
}

void open_syslog() {
    if (priv().syslog_open) return;
    openlog(priv().app_name, LOG_PID | LOG_NDELAY | LOG_NOWAIT, LOG_USER);
    priv().syslog_open = 1;
}

void close_syslog() {
    if (!priv().syslog_open) return;
    closelog();
    priv().syslog_open = 0;
}

void remove_temp(const char *path, uint8_t &is_temp) {
    if (!is_temp) return;
    remove(path);
    is_temp = 0;
}

// The common end of every initialisation: syslog, category, suppression thread.
void finish_init(const char *category) {
    open_syslog();
    g_CvLogCtx.category = CvLog_GetCat(category);
    if (priv().suppress) cvlog::start_suppression();
    priv().initialized = 1;
}

}  // namespace

void CvLog_Init(const char *app_name, const char *category) {
    SetAppName(app_name);
    choose_main_config(app_name, "CvLog_Init");
    if (zlog_init(priv().config_path) != 0) {
        EARLY(CVLOG_WARN, "%s() zlog_init confpath:%s failed", "CvLog_Init", priv().config_path);
        EARLY(CVLOG_ERROR, "CvLog_Init() failed exit(EXIT_FAILURE");
        die();
    }
    finish_init(category);
}

void CvLog_Preinit(const char *app_name, const char *category) {
    SetAppName(app_name);
    choose_main_config(app_name, "CvLog_Preinit");

    char(&init_path)[CVLOG_PATH_MAX] = priv().init_config_path;
    SetConfigPath(app_name, "_init", init_path);
    if (!CheckConfigFile(init_path, "CvLog_Preinit")) {
        SetConfigPath("", "init", init_path);
        if (!CheckConfigFile(init_path, "CvLog_Preinit") &&
            !PrepareFailSafeConfig(app_name, "init-", init_path, priv().init_config_is_temp)) {
            EARLY(CVLOG_ERROR, "PrepareFailSafeConfig() failed exit(EXIT_FAILURE)");
            die();
        }
    }

    if (zlog_init(init_path) != 0) {
        EARLY(CVLOG_WARN, "%s() zlog_init confpath:%s failed", "CvLog_Preinit", init_path);
        if (zlog_init(priv().config_path) != 0) {
            EARLY(CVLOG_WARN, "%s() zlog_init confpath:%s failed", "CvLog_Preinit",
                  priv().config_path);
            EARLY(CVLOG_ERROR, "CvLog_Preinit() failed exit(EXIT_FAILURE)");
            die();
        }
    }
    finish_init(category);
}

void CvLog_PreinitWithSupress(const char *app_name, const char *category, int32_t suppress) {
    priv().suppress = uint8_t(suppress);
    CvLog_Preinit(app_name, category);
}

void CvLog_Reinit(const char *category) {
    if (priv().suppress) CvLog_StopSupressThread();
    remove_temp(priv().init_config_path, priv().init_config_is_temp);
    close_syslog();
    if (!CheckConfigFile(priv().config_path, "CvLog_Reinit")) {
        EARLY(CVLOG_ERROR, "CheckConfigFile() failed exit(EXIT_FAILURE)");
        die();
    }
    if (zlog_reload(priv().config_path) != 0) {
        EARLY(CVLOG_ERROR, "CvLog_Reinit - zlog_reload confpath:%s failed exit(EXIT_FAILURE)",
              priv().config_path);
        die();
    }
    finish_init(category);
}

void CvLog_AfterDaemonize(const char *category) {
    priv().daemonized = 1;
    CvLog_FlushSupressMessage();
    g_CvLogCtx.category = CvLog_GetCat(category);
}

void CvLog_SwitchUserPrepare(const char *user) {
    if (!user) return;
    struct passwd *pw = getpwnam(user);
    if (!pw) {
        EARLY(CVLOG_ERROR,
              "CvLog_SwitchUserPrepare - getpwnam user:%s failed:%m exit(EXIT_FAILURE)", user);
        die();
    }
    // Keep the main configuration readable and writable for the new user, so that
    // CvLog_Reinit accepts it after the switch.
    if (chown(priv().config_path, pw->pw_uid, gid_t(-1)) != 0) {
        EARLY(CVLOG_ERROR,
              "CvLog_SwitchUserPrepare - chown user:%s uid:%d file:%s failed:%m "
              "exit(EXIT_FAILURE)",
              user, int(pw->pw_uid), priv().config_path);
        die();
    }
}

void CvLog_AfterSwitchUser(const char *daemon_category, const char *foreground_category) {
    CvLog_FlushSupressMessage();
    CvLog_Reinit(priv().daemonized ? daemon_category : foreground_category);
}

void CvLog_Deinit(void) {
    if (priv().suppress) CvLog_StopSupressThread();
    zlog_fini();
    remove_temp(priv().init_config_path, priv().init_config_is_temp);
    close_syslog();
    remove_temp(priv().config_path, priv().config_is_temp);
}

namespace cvlog {

void reset() {
    clear_repeats();  // so that stopping writes no summaries
    CvLog_StopSupressThread();
    zlog_fini();
    close_syslog();
    remove_temp(priv().init_config_path, priv().init_config_is_temp);
    remove_temp(priv().config_path, priv().config_is_temp);
    g_CvLogPrivateCtx = CvLogPrivateCtx{{}, 0, {}, 0, "cv_log_app-not-set", 0, 0, 0, 0};
    g_CvLogCtx = CvLogCtx{CVLOG_NOTICE, nullptr, &g_CvLogPrivateCtx};
}

}  // namespace cvlog
