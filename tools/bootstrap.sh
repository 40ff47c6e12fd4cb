#!/usr/bin/env bash
# Fresh machine to running program: installs what is missing, builds, runs the main job.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh
tools/build.sh release
build/tools/plugin_probe build/plugin-process-smb.so
