#!/usr/bin/env bash
# Installs the Debian 12 packages that the build, the tests and the traffic tools need; does
# nothing for packages that are already there.
set -euo pipefail
packages=(
  cmake ninja-build g++ pkg-config clang libclang-rt-14-dev clang-format
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  libpcap-dev libcli11-dev libfmt-dev
  libfixbuf-dev libfixbuf-tools nfdump softflowd python3-impacket pmacct
  tshark tcpdump samba smbclient samba-testsuite iproute2 ethtool python3 valgrind binutils
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi
echo "installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo=sudo
export DEBIAN_FRONTEND=noninteractive
echo 'wireshark-common wireshark-common/install-setuid boolean false' | $sudo debconf-set-selections
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
