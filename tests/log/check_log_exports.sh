#!/usr/bin/env bash
# The logging facility's names are exported; the zlog back end linked into the plug-in is not.
set -eu
defined=$(nm -D --defined-only "$1" | awk '{print $3}')
status=0
for name in g_CvLogCtx g_CvLogPrivateCtx g_zlog_default_category CvLog_Log CvLog_Vlog \
            CvLog_EarlyLog CvLog_GetCat CvLog_Init CvLog_Preinit CvLog_PreinitWithSupress \
            CvLog_Reinit CvLog_AfterDaemonize CvLog_SwitchUserPrepare CvLog_AfterSwitchUser \
            CvLog_Deinit CvLog_SupressMessage CvLog_FlushSupressMessage CvLog_BackTrace \
            CvLog_LogProgramArgs corvaneexp_malloc_noexit corvaneexp_malloc corvaneexp_realloc; do
  grep -qx "$name" <<<"$defined" || { echo "missing export: $name"; status=1; }
done
if grep -E '^v?zlog' <<<"$defined"; then echo "zlog functions exported"; status=1; fi
exit $status
