#!/bin/sh
# The install tree: `cmake --install` into a temporary prefix puts every file in its place, and
# the installed smbflow finds the installed plug-in by itself and writes the records that the
# build tree's smbflow writes.
# Usage: install_tree.sh BUILD_DIR SOURCE_DIR
set -eu
build=$1
src=$2
prefix=$(mktemp -d "${TMPDIR:-/tmp}/smbflow-install.XXXXXX")
trap 'rm -rf "$prefix"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >/dev/null
for f in bin/smbflow share/man/man1/smbflow.1 share/smbflow/smb-elements.xml \
    share/smbflow/pmacct/smb-primitives.lst share/smbflow/pmacct/nfacctd.conf \
    share/smbflow/smbflow.conf lib/systemd/system/smbflow@.service; do
    [ -s "$prefix/$f" ] || fail "$f not installed"
done
plugin=$(find "$prefix" -name plugin-process-smb.so)
[ -n "$plugin" ] || fail "plug-in not installed"
case $plugin in "$prefix"/lib*/smbflow/plugin-process-smb.so) ;; *) fail "plug-in at $plugin" ;; esac

# The plug-in that --version names is the installed one.
"$prefix/bin/smbflow" --version >"$prefix/version"
grep -q "^smbflow [0-9]" "$prefix/version" || fail "no version: $(cat "$prefix/version")"
grep -q "^plug-in: smb ($plugin), API version [0-9]" "$prefix/version" ||
    fail "installed plug-in not found: $(cat "$prefix/version")"
grep -q "^libpcap version" "$prefix/version" || fail "no libpcap version"

capture=$src/tests/data/captures/smb2_ops.pcap
"$prefix/bin/smbflow" -q -F json "$capture" >"$prefix/installed.json"
"$build/smbflow" -q -F json --plugin "$build/plugin-process-smb.so" "$capture" >"$prefix/built.json"
grep -q '"smb_tree":"' "$prefix/installed.json" || fail "installed run has no SMB fields"
cmp -s "$prefix/installed.json" "$prefix/built.json" || fail "installed and built runs differ"

# The unit runs the installed program with a configuration of its instance.
grep -q "^ExecStart=$prefix/bin/smbflow --config /.*/smbflow/%i.conf -i %i\$" \
    "$prefix/lib/systemd/system/smbflow@.service" ||
    grep -q "^ExecStart=/.*/bin/smbflow --config /.*/smbflow/%i.conf -i %i\$" \
        "$prefix/lib/systemd/system/smbflow@.service" || fail "unit ExecStart"
# The configuration example is one that smbflow takes.
"$prefix/bin/smbflow" --config "$prefix/share/smbflow/smbflow.conf" -q -o /dev/null \
    --ipfix "file:$prefix/x.ipfix" "$capture" || fail "example configuration refused"
echo "install tree OK: $plugin"
