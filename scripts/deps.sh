#!/usr/bin/env bash
# Checks (and, as root or with sudo, installs) the Debian packages the build needs.
# Usage: scripts/deps.sh [extra-package ...]
set -euo pipefail
need=(g++ cmake ninja-build pkg-config libgtest-dev libgmock-dev libbenchmark-dev valgrind "$@")
missing=()
for p in "${need[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "zoutils: missing Debian packages: ${missing[*]}" >&2
if [ "$(id -u)" -eq 0 ]; then
  apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}"
elif command -v sudo >/dev/null && sudo -n true 2>/dev/null; then
  sudo apt-get update -qq && sudo DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}"
else
  echo "zoutils: run this, then try again:" >&2
  echo "  sudo apt-get install -y ${missing[*]}" >&2
  exit 1
fi
