#!/bin/sh
# Has script/doxygen make its pages.
#
#   doxygen_test.sh CHECK SOURCE_FOLDER
#
# CHECK is pages, which makes those of the headers as they are, or what is spoilt in a
# copy of them first: member, function, text.
set -eu
check=$1
source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "doxygen: $*" >&2
  exit 1
}

if ! command -v doxygen >/dev/null; then
  ! command -v apt-get >/dev/null || fail 'not installed; script/setup does that'
  echo 'doxygen: skipped, for it is not installed, and script/setup can install nothing on this host'
  exit 77
fi

# A file, a class, a function, and what a header says at its top.
check_pages() {
  "$source/script/doxygen" "$work/pages"
  for text in 'AString Class Reference' 'percentEncodeSpaceInPath' 'One wchar_t is one UTF-32 character'; do
    grep -rqF --include='*.html' "$text" "$work/pages/html" || fail "no page says: $text"
  done
}

# A copy of what script/doxygen reads.
copy_headers() {
  for file in script/doxygen docs/Doxyfile docs/doxygen.sed include \
    platform/vrxcomn/include platform/zulral/include; do
    mkdir -p "$work/$(dirname "$file")"
    cp -R "$source/$file" "$work/$file"
  done
}

# refuses WARNING: script/doxygen fails on the copy, for this reason alone.
refuses() {
  if "$work/script/doxygen" "$work/pages" >"$work/out" 2>&1; then fail "takes $check"; fi
  sort -u "$work/out" | grep -E ': (warning|error): ' >"$work/warnings" || true
  [ "$(wc -l <"$work/warnings")" -eq 1 ] && grep -qE "$1" "$work/warnings" && return
  cat "$work/out" >&2
  fail "does not give this reason alone: $1"
}

check_member() {
  copy_headers
  sed -i 's/^  AVersion() = default;$/&\n  void forgotten();\n/' "$work/include/vrxutil/system.h"
  refuses 'system\.h:[0-9]+: .*forgotten.* not documented'
}

check_function() {
  copy_headers
  echo 'VRXUTIL_EXPORT void forgotten();' >>"$work/include/vrxutil/system.h"
  refuses 'system\.h:[0-9]+: .*forgotten.* not documented'
}

check_text() {
  copy_headers
  printf '/// Says <text> in vain.\nVRXUTIL_EXPORT void unclear();\n' >>"$work/include/vrxutil/system.h"
  refuses 'system\.h:[0-9]+: .*<text>'
}

case $check in
  pages | member | function | text) "check_$check" ;;
  *) fail "unknown check: $check" ;;
esac
