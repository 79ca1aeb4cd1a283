#!/bin/sh
# What script/abi says when the libraries are not as the record says.
#
#   abi_test.sh CHANGE SOURCE_FOLDER BUILD_FOLDER
#
# CHANGE is symbols or types. The status is 77 where these cannot be compared here.
set -eu
change=$1
source=$2
build=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM

fail() {
  echo "abi: $*:" >&2
  cat "$work/said" >&2
  exit 1
}

# A tree of its own, whose record may be spoilt.
mkdir "$work/script" "$work/cmake"
cp "$source/script/abi" "$work/script"
cp -r "$source/cmake/abi" "$work/cmake"
ln -s "$source/include" "$source/platform" "$work"
record=$work/cmake/abi

# abi STATUS ARGUMENT...
abi() {
  expected=$1
  shift
  status=0
  "$work/script/abi" "$@" "$build" >"$work/said" 2>&1 || status=$?
  if [ "$status" -eq 77 ]; then
    cat "$work/said"
    exit 77
  fi
  [ "$status" -eq "$expected" ] || fail "status $status, not $expected, with $*"
}

says() { grep -qF -e "$1" "$work/said" || fail "does not say '$1'"; }

spoil_symbols() {
  new=$(head -n 1 "$record/vrxutil.symbols")
  sed -i '1s/.*/isGone(long)/' "$record/vrxutil.symbols"
}

report_symbols() {
  says 'libvrxutil exports other symbols'
  says "  + $new"
  says '  - isGone(long)'
}

# As if an object of the class had been smaller.
spoil_types() {
  unxz "$record/vrxutil.abi.xz"
  sed -i "s/\(<class-decl name='AString' .*size-in-bits='\)[0-9]*/\164/" "$record/vrxutil.abi"
  xz "$record/vrxutil.abi"
}

report_types() {
  says 'libvrxutil has other types'
  says 'type size changed from 64 to'
}

"spoil_$change"
if diff -r "$source/cmake/abi" "$record" >"$work/said"; then fail 'nothing is spoilt'; fi
abi 1 "--$change"
"report_$change"
says 'script/abi --update'

# Made anew, the record is what the libraries export. That takes both.
[ "$change" = types ] || exit 0
abi 0 --update
abi 0
[ ! -s "$work/said" ] || fail 'says something all the same'
