#!/usr/bin/env bash
# The plug-in's dynamic symbol table must hold the entry symbols and C names only: the logging
# facility's names are exported, the zlog back end linked into the plug-in is not, and the host
# functions are resolved against the loading program, never defined here.
set -eu
defined=$(nm -D --defined-only "$1" | awk '{print $3}')
status=0
for name in corvane_api_version corvane_module_init corvaneexp_crc32c corvaneexp_crc64 \
            corvaneexp_crc64_table corvaneexp_malloc_noexit corvaneexp_malloc corvaneexp_realloc \
            g_CvLogCtx g_CvLogPrivateCtx g_zlog_default_category CvLog_Log CvLog_Vlog \
            CvLog_EarlyLog CvLog_GetCat CvLog_Init CvLog_Preinit CvLog_PreinitWithSupress \
            CvLog_Reinit CvLog_AfterDaemonize CvLog_SwitchUserPrepare CvLog_AfterSwitchUser \
            CvLog_Deinit CvLog_SupressMessage CvLog_FlushSupressMessage CvLog_BackTrace \
            CvLog_LogProgramArgs; do
  grep -qx "$name" <<<"$defined" || { echo "missing export: $name"; status=1; }
done
if grep -E '^_Z' <<<"$defined"; then echo "C++ names exported"; status=1; fi
if grep -E '^v?zlog' <<<"$defined"; then echo "zlog functions exported"; status=1; fi
for host_fn in corvane_plugin_add corvane_getter_add record_universal_get_num; do
  if grep -qx "$host_fn" <<<"$defined"; then echo "host function defined in plug-in: $host_fn"; status=1; fi
done
exit $status
