#!/bin/sh
# Uses the installed package as somebody else's program does.
#
#   package_test.sh CHECK PREFIX SOURCE_FOLDER
#
# CHECK is one of: headers, cmake, pkgconfig, libraries. PREFIX is where the
# package has been installed.
set -eu
check=$1
prefix=$2
here=$3/tests/package
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
pc=$(find "$prefix" -name vrxutil.pc)
libraries=$(dirname "$(dirname "$pc")")
expected='<task name="backup"></task> /tmp/a007 1234567b'

fail() {
  echo "package: $*" >&2
  exit 1
}

runs_as_expected() {
  result=$(LD_LIBRARY_PATH=$libraries "$1")
  [ "$result" = "$expected" ] || fail "the consumer printed '$result'"
}

check_headers() {
  for header in $(cd "$prefix/include" && find . -name '*.h' | cut -c3-); do
    for compiler in g++ clang++; do
      printf '#include <%s>\n' "$header" >"$work/alone.cpp"
      "$compiler" -std=c++17 -Wall -Wextra -Wpedantic -Werror -fsyntax-only \
        -I"$prefix/include" "$work/alone.cpp" || fail "$header does not compile with $compiler"
    done
    if grep -nE '#include <(boost|expat|spdlog|sodium)' "$prefix/include/$header"; then
      fail "$header shows a library that stands behind it"
    fi
    count=$((${count:-0} + 1))
  done
  [ "${count:-0}" -ge 11 ] || fail "only ${count:-0} headers are installed"
}

check_cmake() {
  cmake -S "$here/consumer" -B "$work/build" -DCMAKE_PREFIX_PATH="$prefix" >"$work/log" 2>&1 &&
    cmake --build "$work/build" >>"$work/log" 2>&1 || { cat "$work/log"; fail 'no build'; }
  runs_as_expected "$work/build/consumer"
}

check_pkgconfig() {
  PKG_CONFIG_PATH=$(dirname "$pc")
  export PKG_CONFIG_PATH
  # shellcheck disable=SC2046 # the flags are words
  g++ -std=c++17 -Wall -Wextra -Wpedantic -Werror "$here/consumer/main.cpp" -o "$work/consumer" \
    $(pkg-config --cflags --libs vrxutil)
  runs_as_expected "$work/consumer"
}

check_libraries() {
  for name in vrxutil vrxcomn; do
    library=$libraries/lib$name.so
    readelf -d "$library" | grep -q "SONAME.*\[lib$name\.so\.1\]" || fail "$name: wrong SONAME"
    [ -L "$library" ] && [ -L "$library.1" ] || fail "$name: the usual links are missing"
    # Of foreign code only what inline functions and templates of the standard
    # library leave behind as weak symbols.
    strangers=$(nm -DC --defined-only "$library" | grep -vE ' [VWuv] ' |
      grep -E '(boost|spdlog|fmt|XML_|vrxutil::detail|crypto_aead)' || true)
    [ -z "$strangers" ] || fail "$name exports what it should hide: $strangers"
  done
}

"check_$check"
