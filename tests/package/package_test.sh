#!/bin/sh
# Uses the installed package as somebody else's program does.
#
#   package_test.sh CHECK PREFIX SOURCE_FOLDER BUILD_FOLDER
#
# CHECK is install, which installs the package in PREFIX, or one of those that look
# at it there: headers, cmake, pkgconfig, readme, libraries.
set -eu
check=$1
prefix=$2
source=$3
build=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
pc=$(find "$prefix" -name vrxutil.pc 2>/dev/null) || true
libraries=$(dirname "$(dirname "$pc")")
includes=$prefix/include

subject=package
# shellcheck source=tests/package/support.sh
. "$source/tests/package/support.sh"

# Moved after the installation: what points to where it was breaks.
check_install() {
  rm -rf "$prefix" "$prefix.before"
  cmake --install "$build" --prefix "$prefix.before"
  mv "$prefix.before" "$prefix"
}

headers() { (cd "$includes" && find . -type f | cut -c3- | sort); }

check_headers() {
  for header in $(headers); do
    for compiler in g++ clang++; do
      # `linux` is a macro in the second mode.
      for mode in c++17 gnu++17; do
        printf '#include <%s>\n' "$header" >"$work/alone.cpp"
        "$compiler" -std=$mode -Wall -Wextra -Wpedantic -Werror -fsyntax-only \
          -I"$includes" "$work/alone.cpp" || fail "$header does not compile with $compiler -std=$mode"
      done
    done
    grep -qF "($header)" "$work/table" || fail "README.md does not name $header"
  done
  [ "$(headers | wc -l)" -eq "$(wc -l <"$work/table")" ] || fail 'README.md names a header that is not installed'
  ! grep -rnE '#include <(boost|expat|fmt|spdlog|sodium)' "$includes" ||
    fail 'a header shows a library that stands behind it'
  ! grep -rn '#include <vrxutil/' "$includes/vrxcomn" "$includes/zulral" || fail 'a service depends on the utilities'
}

# The headers that README.md names, each as "(FOLDER/NAME.h)".
headers_of_readme() {
  grep -oE '\]\([a-z/]*include/(vrx|zul)[a-z]*/[a-z_]*\.h\)' "$source/README.md" | sed 's/.*include\//(/' | sort -u
}

runs_as_expected() {
  result=$(LD_LIBRARY_PATH=$libraries "$1")
  [ "$result" = "$consumer_prints" ] || fail "the consumer printed '$result'"
}

check_cmake() {
  for compiler in g++ clang++; do
    folder=$work/$compiler
    {
      cmake -G Ninja -S "$source/tests/package/consumer" -B "$folder" -DCMAKE_PREFIX_PATH="$prefix" \
        -DCMAKE_CXX_COMPILER=$compiler && cmake --build "$folder"
    } >"$work/log" 2>&1 || {
      cat "$work/log"
      fail "no build with $compiler"
    }
    runs_as_expected "$folder/consumer"
  done
}

# compile COMPILER PROGRAM SOURCE...: with what pkg-config says.
compile() {
  compiler=$1
  program=$2
  shift 2
  # shellcheck disable=SC2046 # the flags are words
  "$compiler" -std=c++17 -Wall -Wextra -Wpedantic -Werror "$@" -o "$program" \
    $(PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --cflags --libs vrxutil)
}

check_pkgconfig() {
  for compiler in g++ clang++; do
    compile "$compiler" "$work/consumer" "$source"/tests/package/consumer/*.cpp
    runs_as_expected "$work/consumer"
  done
}

check_readme() {
  readme_program
  compile g++ "$work/sample" "$work/sample.cpp"
  LD_LIBRARY_PATH=$libraries "$work/sample" >"$work/output" 2>"$work/records" || true
  printed_as_shown "$work/output" "$work/records"
}

# Strong symbols whose last name occurs in no header.
undocumented_symbols() {
  grep -rohE '[A-Za-z_][A-Za-z_0-9]*' "$includes" | sort -u >"$work/words"
  nm -DC --defined-only "$1" | grep -vE '^[0-9a-f]* [VWuv] ' | cut -d ' ' -f 3- |
    sed -E 's/^(vtable|typeinfo|typeinfo name) for //; s/\(.*//; s/\[abi:[a-z0-9]*\]//; s/operator.*/operator/; s/.*[:~ ]//' |
    sort -u | comm -23 - "$work/words"
}

check_libraries() {
  for name in vrxutil vrxcomn zulral; do
    library=$libraries/lib$name.so
    readelf -dW "$library" >"$work/dynamic"
    grep -q "SONAME.*\[lib$name\.so\.1\]" "$work/dynamic" || fail "$name: wrong SONAME"
    grep -q "FLAGS_1.*NODELETE" "$work/dynamic" || fail "$name: can be unloaded"
    { [ -L "$library" ] && [ -L "$library.1" ]; } || fail "$name: the usual links are missing"
    ! grep -E 'R(UN)?PATH' "$work/dynamic" || fail "$name looks for libraries where it was built"
    strangers=$(nm -DC --defined-only "$library" |
      grep -E 'boost::|spdlog::|fmt::|XML_|sodium_|crypto_|vrxutil::|platform::' || true)
    [ -z "$strangers" ] || fail "$name exports what it should hide: $strangers"
    unknown=$(undocumented_symbols "$library")
    [ -z "$unknown" ] || fail "$name exports what no header declares: $unknown"
    needed=$(grep -F NEEDED "$work/dynamic" | grep -F libvrxutil || true)
    [ -z "$needed" ] || fail "$name, a service, depends on the utilities"
  done
}

headers_of_readme >"$work/table"
"check_$check"
