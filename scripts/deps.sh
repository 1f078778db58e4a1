#!/usr/bin/env bash
# Checks (and, as root or with password-less sudo, installs) the Debian packages a
# task needs. Prints one line per step; apt's own output goes to build/deps.log.
#
# Usage: scripts/deps.sh [GROUP | PACKAGE]...
#   build    compiler, CMake, Ninja, pkg-config (every task needs these)
#   test     GoogleTest, valgrind (the memcheck test runs the library under it)
#   bench    Google Benchmark
#   clang    clang 14
#   package  Debian packaging tools and lintian
#   abi      libabigail's abidw and abidiff
#   docs     Doxygen
# Any other word is taken as a Debian package name. No arguments: build test bench.
set -euo pipefail
cd "$(dirname "$0")/.."

[ $# -eq 0 ] && set -- build test bench
need=(g++ cmake ninja-build pkg-config)
for word in "$@"; do
  case "$word" in
    build) ;;
    test) need+=(libgtest-dev libgmock-dev valgrind) ;;
    bench) need+=(libbenchmark-dev) ;;
    clang) need+=(clang-14) ;;
    package) need+=(dpkg-dev fakeroot lintian file) ;;
    abi) need+=(abigail-tools) ;;
    docs) need+=(doxygen) ;;
    *) need+=("$word") ;;
  esac
done

missing=()
for p in "${need[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

mkdir -p build
log=build/deps.log
install_cmd="apt-get update && apt-get install -y ${missing[*]}"
if [ "$(id -u)" -eq 0 ]; then
  as_root=()
elif command -v sudo >/dev/null && sudo -n true 2>/dev/null; then
  as_root=(sudo)
else
  echo "zoutils: missing Debian packages: ${missing[*]}" >&2
  echo "zoutils: installing them needs root; run this, then try again:" >&2
  if command -v sudo >/dev/null; then
    echo "  sudo sh -c '$install_cmd'" >&2
  else
    echo "  su -c '$install_cmd'" >&2
  fi
  exit 1
fi
echo "zoutils: apt-get update (output in $log)"
if ! "${as_root[@]}" apt-get update >"$log" 2>&1; then
  echo "zoutils: apt-get update failed; see $log" >&2
  exit 1
fi
echo "zoutils: apt-get install ${missing[*]} (output in $log)"
if ! "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y "${missing[@]}" >>"$log" 2>&1; then
  echo "zoutils: apt-get install failed; the end of $log:" >&2
  tail -n 20 "$log" >&2
  exit 1
fi
