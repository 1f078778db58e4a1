#!/usr/bin/env bash
# Builds the HTML API reference of the public headers into build/docs/html with
# Doxygen, and fails when Doxygen warns (the warnings are printed).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh build docs
export ZOUTILS_SOURCE_DIR=$PWD
export ZOUTILS_DOCS_OUT=$PWD/build/docs
export ZOUTILS_VERSION=$(sed -n 's/^project(zoutils VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
rm -rf "$ZOUTILS_DOCS_OUT"
mkdir -p "$ZOUTILS_DOCS_OUT"
echo "zoutils: doxygen docs/Doxyfile (output in build/docs/html)"
doxygen docs/Doxyfile >"$ZOUTILS_DOCS_OUT/doxygen.log" 2>&1 || {
  echo "zoutils: doxygen failed; see $ZOUTILS_DOCS_OUT/doxygen.log" >&2
  exit 1
}
if [ -s "$ZOUTILS_DOCS_OUT/warnings.txt" ]; then
  echo "zoutils: doxygen warnings ($(wc -l <"$ZOUTILS_DOCS_OUT/warnings.txt") lines):" >&2
  sed "s|$ZOUTILS_SOURCE_DIR/||" "$ZOUTILS_DOCS_OUT/warnings.txt" >&2
  exit 1
fi
echo "zoutils: API reference in build/docs/html/index.html, no warnings"
