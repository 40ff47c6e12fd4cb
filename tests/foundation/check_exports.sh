#!/usr/bin/env bash
# The plug-in's dynamic symbol table must hold the entry symbols and C names only.
set -eu
lib=$1
defined=$(nm -D --defined-only "$lib" | awk '{print $3}')
status=0
for required in corvane_api_version corvane_module_init corvaneexp_crc32c corvaneexp_crc64 \
                corvaneexp_crc64_table corvaneexp_malloc g_CvLogCtx CvLog_Log; do
  if ! grep -qx "$required" <<<"$defined"; then
    echo "missing export: $required"; status=1
  fi
done
mangled=$(grep -E '^_Z' <<<"$defined" || true)
if [ -n "$mangled" ]; then
  echo "C++ names exported:"; echo "$mangled"; status=1
fi
# The host functions are resolved against the loading program, never defined here.
for host_fn in corvane_plugin_add corvane_getter_add record_universal_get_num; do
  if grep -qx "$host_fn" <<<"$defined"; then echo "host function defined in plug-in: $host_fn"; status=1; fi
done
exit $status
