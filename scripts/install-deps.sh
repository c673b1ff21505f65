#!/usr/bin/env bash
# Installs what pickora needs to build and test, from Debian's packages. Safe to run again.
# Extra package names given as arguments are installed too (the fuzzers need clang).
set -euo pipefail
packages=(cmake g++ make pkg-config libfftw3-dev libgtest-dev libpng-dev parallel python3 python3-numpy python3-mrcfile "$@")
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi
echo "pickora: installing ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
