#!/bin/sh
# Run in a Debian of its own with the packages: compiles programs against the library by
# README.md's words, by pkg-config and by CMake, runs them, and uses the tool.
#
#   use_packages.sh FOLDER COMMAND EXPECTED
#
# FOLDER has sample.cpp, daemon.cpp, the consumer's folder and use_tool.sh. COMMAND is
# README.md's, EXPECTED what the consumer prints.
set -eu
cd "$1"
command=$2
expected=$3
scratch=/Library/Vornix/oxa/scratch
data=/var/lib/vornix/oxa

fail() {
  echo "use: $*" >&2
  exit 1
}

is_empty() { [ -z "$(ls "$1")" ]; }

ldconfig -p | grep -qF libvrxutil.so.1 || fail "the loader's cache does not have the libraries"

sh -c "$command" >output 2>records || true

# shellcheck disable=SC2046 # the flags are words
g++ -std=c++17 daemon.cpp -o daemon $(pkg-config --cflags --libs vrxutil)
./daemon || fail "the daemon's status is $?"
for file in keys/type3.key log/daemon.log; do
  [ -s "$data/$file" ] || fail "the daemon has left no $file"
done
[ "$(stat --format %a "$data/keys/type3.key")" = 600 ] || fail 'others may read the key'
is_empty "$scratch" || fail 'the daemon has left a lock'

cmake -S consumer -B build
cmake --build build
found=$(build/consumer)
[ "$found" = "$expected" ] || fail "the consumer printed '$found'"

sh ./use_tool.sh '. /usr/share/bash-completion/bash_completion
  _completion_loader vrxtool || [ $? -eq 124 ]'
held=$(vrxtool lock write package -- vrxtool lock status package --json)
echo "$held" | grep -q '"writer": true' || fail "a lock that is taken is shown so: $held"
is_empty "$scratch" || fail 'the tool has left a lock'
page=$(man --where vrxtool) || fail 'there is no man page'
[ "$page" = /usr/share/man/man1/vrxtool.1.gz ] || fail "the man page is $page"
man vrxtool | grep -q 'lock status' || fail 'the man page does not have a command'

# A lock whose process was killed leaves its set of semaphores, until the packages go.
# shellcheck disable=SC2016 # for the shell under the lock
vrxtool lock write killed -- sh -c 'kill -9 $PPID' || true
[ -e "$scratch/killed" ] || fail 'a killed process leaves no lock'
