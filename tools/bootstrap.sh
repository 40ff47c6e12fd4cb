#!/usr/bin/env bash
# Fresh machine to running program: installs what is missing, builds, and runs the main job:
# smbflow reads the SMB2 sample capture through the plug-in and prints its flow records.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh
tools/build.sh release
build/tools/plugin_probe build/plugin-process-smb.so > /dev/null
build/smbflow --format text tests/data/sample-smb2.pcap
