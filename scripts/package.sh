#!/usr/bin/env bash
# Builds the Debian packages libzoutils1 and libzoutils-dev into
# build/package/packages, then checks them:
#   - lintian reports no errors (its full report: build/package/lintian.txt);
#   - apt accepts both on this system (a simulated install resolves every Depends);
#   - dpkg installs both into a throw-away root (dpkg --root, under fakeroot when
#     not root), and applications are built against the installed files, with
#     find_package and with pkg-config, and run.
# One line per step; tool output goes to build/package.log.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh build package
dir=build/package
log=build/package.log
mkdir -p build
: >"$log"
as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(fakeroot)

run() {  # run DESCRIPTION COMMAND...: one line, output to the log, its end on failure
  local what=$1
  shift
  echo "zoutils: $what"
  if ! "$@" >>"$log" 2>&1; then
    echo "zoutils: failed: $what; the end of $log:" >&2
    tail -n 30 "$log" >&2
    exit 1
  fi
}

run "configuring a release build for prefix /usr in $dir" \
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
    -DZOUTILS_BUILD_EXAMPLES=OFF -DZOUTILS_BUILD_TESTS=OFF -DZOUTILS_BUILD_BENCH=OFF
run "building the libraries" cmake --build "$dir" -j "$(nproc)"
rm -rf "$dir/packages"
run "making the packages (cpack)" sh -c "cd '$dir' && ${as_root[*]} cpack"
runtime=$(ls "$dir"/packages/libzoutils1_*.deb)
dev=$(ls "$dir"/packages/libzoutils-dev_*.deb)
version=$(dpkg-deb -f "$runtime" Version)
echo "zoutils: made $runtime and $dev"

depends=$(dpkg-deb -f "$dev" Depends)
if [ "$depends" != "libzoutils1 (= $version)" ]; then
  echo "zoutils: libzoutils-dev depends on \"$depends\", not on libzoutils1 (= $version)" >&2
  exit 1
fi
control=$(dpkg-deb --ctrl-tarfile "$runtime" | tar -t)
for member in shlibs triggers; do
  if ! grep -qx "./$member" <<<"$control"; then
    echo "zoutils: libzoutils1 has no $member control file" >&2
    exit 1
  fi
done

echo "zoutils: lintian (report in $dir/lintian.txt)"
lintian "$runtime" "$dev" >"$dir/lintian.txt" 2>&1 || true
grep -E '^[EW]: ' "$dir/lintian.txt" | sed 's/^/  /' || true
if grep -q '^E: ' "$dir/lintian.txt"; then
  echo "zoutils: lintian reports errors" >&2
  exit 1
fi

run "simulated apt install of both packages" apt-get -s install "./$runtime" "./$dev"

root=$(mktemp -d /tmp/zoutils-root.XXXXXX)
trap 'rm -rf "$root"' EXIT
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" "$root/var/lib/dpkg/triggers"
touch "$root/var/lib/dpkg/status"
# The root holds only these two packages, so their dependencies on the C and C++
# runtimes (checked by the simulated install above) are forced.
run "installing both into a throw-away root $root (dpkg --root)" \
  "${as_root[@]}" dpkg --root="$root" --log=/dev/null --force-script-chrootless --force-depends --no-triggers \
    -i "$runtime" "$dev"
run "building and running applications against the installed packages" \
  cmake -DPREFIX="$root/usr" -DAPP_DIR="$PWD/tests/package/app" -DWORK_DIR="$PWD/$dir/consumer" \
    -DCXX=c++ -DGENERATOR=Ninja -DPKG_CONFIG=pkg-config -DREADELF=readelf \
    -P tests/package/check_package.cmake
echo "zoutils: packages ready in $dir/packages"
