#!/bin/sh
# shellcheck disable=SC2016,SC2317 # backquotes are Markdown's; faults name functions
# What script/docs says when a page is not as the sources and programs are.
#
#   docs_test.sh FAULT SOURCE_FOLDER BUILD_FOLDER
#
# FAULT is one of those below.
set -eu
fault=$1
source=$2
build=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM

fail() {
  echo "docs: $*:" >&2
  cat "$work/said" >&2
  exit 1
}

# A tree of its own, which may be spoilt.
for name in CHANGELOG.md CONTRIBUTING.md README.md docs examples script; do
  cp -r "$source/$name" "$work"
done
for entry in "$source"/*; do
  [ -e "$work/${entry##*/}" ] || ln -s "$entry" "$work"
done
page=docs/text.md

# docs STATUS ARGUMENT...
docs() {
  expected=$1
  shift
  status=0
  "$work/script/docs" "$@" >"$work/said" 2>&1 || status=$?
  [ "$status" -eq "$expected" ] || fail "status $status, not $expected, with $*"
}

says() { grep -qF -e "$1" "$work/said" || fail "does not say '$1'"; }

# spoil FILE SCRIPT: by sed; what changes nothing proves nothing.
spoil() {
  cp "$1" "$work/before"
  sed -i "$2" "$1"
  ! cmp -s "$1" "$work/before" || fail "nothing is spoilt in $1"
}

# A block that is mended by writing it anew.
block_is_mended() {
  docs 1 "$build" "$page"
  says "$page shows something else"
  says 'script/docs --update'
  says "$1"
  docs 0 --update "$build" "$page"
  says "$page written anew"
  docs 0 "$build" "$page"
  [ ! -s "$work/said" ] || fail 'says something all the same'
}

fault_program() {
  spoil "$work/$page" 's/takes a line of settings apart/takes a line apart/'
  block_is_mended '+// Lays out a report, takes a line of settings apart'
  cmp -s "$work/$page" "$source/$page" || fail 'is not written as it was'
}

fault_output() {
  spoil "$work/$page" 's/^agent.log      70112 bytes$/agent.log      70113 bytes/'
  block_is_mended '+agent.log      70112 bytes'
}

fault_log() {
  spoil "$work/$page" 's/^error \(\[String\] internal error\)/info \1/'
  block_is_mended '+error [String] internal error'
}

fault_commands() {
  page=docs/tool.md
  spoil "$work/$page" 's/^net.ini$/bad.ini/'
  block_is_mended '+net.ini'
}

# Whoever changes an example must look at its page.
fault_source() {
  spoil "$work/examples/guide/text.cpp" '1s/report/table/'
  block_is_mended '+// Lays out a table'
}

fault_start() {
  spoil "$work/examples/shared_counter/main.cpp" 's/^bool writeUpdates(/bool write(/'
  docs 2 "$build" docs/lock.md
  says "has nothing that begins with 'bool writeUpdates('"
}

fault_end() {
  spoil "$work/$page" '/^## What fails how/,$d'
  printf '<!-- output: examples/guide/text.cpp -->\n```\nwithout end\n' >>"$work/$page"
  docs 2 "$build" docs/text.md
  says 'the block has no end'
}

fault_link() {
  spoil "$work/$page" 's,include/vrxutil/text.h),include/vrxutil/texts.h),'
  docs 1 "$build" docs/text.md
  says 'docs/text.md has a link that leads nowhere: ../include/vrxutil/texts.h'
}

fault_heading() {
  spoil "$work/$page" 's,log.md#the-trace-of-an-error,log.md#the-traces-of-an-error,'
  docs 1 "$build" docs/text.md
  says 'docs/text.md: no such heading: log.md#the-traces-of-an-error'
}

fault_index() {
  echo '# Text' >"$work/docs/more.md"
  docs 1 "$build" docs/README.md
  says 'docs/README.md does not name docs/more.md'
}

"fault_$fault"
