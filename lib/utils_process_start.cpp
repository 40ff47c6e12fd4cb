// Process start-up: going to the background, dropping root rights, pinning to CPUs.
#define CV_LOG_SOURCE "lib/utils"
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cv_log.h"
#include "utils_process.h"

void corvaneexp_daemonize(int flag) {
    if (!flag) return;
    CvLog_FlushSupressMessage();

    int devnull = open("/dev/null", O_WRONLY);
    signal(SIGTTOU, SIG_IGN);
    signal(SIGTTIN, SIG_IGN);
    signal(SIGTSTP, SIG_IGN);

    pid_t pid = fork();
    if (pid < 0) {
        perror("fork");
        exit(-1);
    }
    if (pid > 0) exit(0);

    CV_LOG(CVLOG_NOTICE, "Backgrounding: %i", int(getpid()));
    setpgid(0, 0);
    if (devnull >= 0) {
        dup2(devnull, STDIN_FILENO);
        dup2(devnull, STDOUT_FILENO);
        dup2(devnull, STDERR_FILENO);
        if (devnull > STDERR_FILENO) close(devnull);
    }
    if (chdir("/") != 0) CV_LOG(CVLOG_WARN, "Unable to chdir to /");
    umask(0);
    CV_LOG(CVLOG_INFO, "Daemonized OK");
}

void corvaneexp_switch_user(const char *user) {
    if (!user) return;
    CvLog_SwitchUserPrepare(user);

    const passwd *pw = getpwnam(user);
    if (pw && geteuid() == 0) {
        // Copied out: the group lookups below may reuse the lookup's static storage.
        const uid_t uid = pw->pw_uid;
        const gid_t gid = pw->pw_gid;
        // Groups first: once the user id is dropped the process may no longer change them.
        if (initgroups(user, gid) != 0) {
            CV_LOG(CVLOG_ERROR, "Can't init groups");
            exit(-1);
        }
        if (setgid(gid) != 0) {
            CV_LOG(CVLOG_ERROR, "Unable to setgid");
            exit(-1);
        }
        if (setegid(gid) != 0) {
            CV_LOG(CVLOG_ERROR, "Unable to setegid");
            exit(-1);
        }
        if (setuid(uid) != 0) {
            CV_LOG(CVLOG_ERROR, "Unable to setuid");
            exit(-1);
        }
        if (seteuid(uid) != 0) {
            CV_LOG(CVLOG_ERROR, "Unable to seteuid");
            exit(-1);
        }
    } else {
        CV_LOG(CVLOG_WARN, "You want to switch to root or you are not root");
    }
    CvLog_AfterSwitchUser("corvane_main", "corvane_main_stderr");
}

cpu_set_t cv::process::cpu_set_of(uint32_t mask) {
    cpu_set_t set;
    CPU_ZERO(&set);
    for (int cpu = 0; cpu < 32; ++cpu)
        if (mask & (uint32_t(1) << cpu)) CPU_SET(cpu, &set);
    return set;
}

void corvaneexp_set_affinity(int64_t mask) {
    constexpr int64_t kLeaveAlone = 0xffffffff;
    if (mask == kLeaveAlone) return;
    if (mask < 1 || mask > kLeaveAlone - 1) {
        CV_LOG(CVLOG_ERROR, "Allowed CPU mask is from 1 to %u", uint32_t(kLeaveAlone));
        exit(-1);
    }
    cpu_set_t set = cv::process::cpu_set_of(uint32_t(mask));
    if (sched_setaffinity(0, sizeof set, &set) != 0) {
        CV_LOG(CVLOG_ERROR, "Unable to set CPU mask");
        exit(-1);
    }
    CV_LOG(CVLOG_INFO, "CPU mask set OK");
}
