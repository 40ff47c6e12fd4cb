#!/usr/bin/env bash
# Configures and builds one variant: tools/build.sh [release|asan|tsan] (default release).
set -euo pipefail
cd "$(dirname "$0")/.."
variant=${1:-release}
case "$variant" in
  release) dir=build; flags=() ;;
  asan) dir=build-asan; flags=(-DSMB_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug) ;;
  tsan) dir=build-tsan; flags=(-DSMB_TSAN=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
  *) echo "unknown variant: $variant" >&2; exit 2 ;;
esac
cmake -S . -B "$dir" -G Ninja "${flags[@]}" > /dev/null
ninja -C "$dir"
