#!/bin/sh
# script/demo finds everything as it should be, and README.md shows what it and the tool
# print.
#
#   demo_test.sh SOURCE_FOLDER BUILD_FOLDER
set -eu
source=$1
build=$2

fail() {
  echo "demo_test: $*" >&2
  exit 1
}

status=0
output=$("$source/script/demo" "$build") || status=$?
printf '%s\n' "$output"
[ "$status" -eq 0 ] || exit "$status"

# check_shown COMMAND OUTPUT: the block of README.md below the mark of the command.
check_shown() {
  shown=$(awk -v mark="<!-- printed by $1 -->" '
    seen > 1 && /^```$/ { exit }
    seen > 1
    seen == 1 { seen = 2 }
    $0 == mark { seen = 1 }' "$source/README.md")
  [ -n "$shown" ] || fail "README.md shows nothing of $1"
  case $2 in
    *"$shown"*) ;;
    *) fail "$1 no longer prints what README.md shows; copy the lines anew" ;;
  esac
}

check_shown script/demo "$output"
check_shown 'vrxtool --help' "$("$build/tools/vrxtool/vrxtool" --help)"
