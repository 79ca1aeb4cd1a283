#!/bin/sh
# Uses the installed vrxtool and its completion, as an operator does.
#
#   use_tool.sh LOADER
#
# vrxtool is the one in PATH, LOADER the command by which bash loads the completion.
# Files come to the working folder.
set -eu
loader=$1

fail() {
  echo "vrxtool: $*" >&2
  exit 1
}

printf '; by hand\r\n[agent]\r\nfolder = /a\r\n' >agent.ini
vrxtool ini set agent.ini agent folder /b >/dev/null
[ "$(vrxtool ini get agent.ini agent folder)" = /b ] || fail 'an INI file does not have the value set'
grep -q '^; by hand' agent.ini || fail 'an INI file has lost its comment'

echo '<agent><task name="backup"/></agent>' >agent.xml
vrxtool xml encrypt agent.xml
! grep -q backup agent.xml || fail 'an XML file is not encrypted'
vrxtool xml show agent.xml | grep -q '<task name="backup"' || fail 'an encrypted XML file is not shown'
[ "$(vrxtool xml get agent.xml agent/task name)" = backup ] || fail 'an attribute is not read'

words=$(bash -c "$loader"'
  complete -p vrxtool >&2 || exit
  COMP_WORDS=(vrxtool lock st) COMP_CWORD=2
  _vrxtool
  echo "${COMPREPLY[*]}"' 2>/dev/null) || fail 'bash does not load the completion'
[ "$words" = status ] || fail "bash completes 'lock st' by '$words'"
