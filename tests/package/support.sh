# shellcheck shell=sh disable=SC2034,SC2154 # of whoever sources this
# What the scripts of these tests share. They define $subject, what they look at, and
# those that take the program of README.md $source and $work.

consumer_prints='<task name="backup"></task> /tmp/a007 1234567b'

fail() {
  echo "$subject: $*" >&2
  exit 1
}

# For what cannot be looked at here; the test counts as skipped.
skip() {
  echo "$subject: skipped: $*" >&2
  exit 77
}

# The program that README.md shows: makes sample.cpp and `shown`, what it prints by
# README.md, in $work.
# shellcheck disable=SC2016 # the backquotes are Markdown's
readme_program() {
  sed -n '/^```cpp$/,/^```$/p' "$source/README.md" | sed '1d; $d' >"$work/sample.cpp"
  sed -n '/^every 60 minutes$/,/^```$/p' "$source/README.md" | sed '$d' >"$work/shown"
}

# printed_as_shown OUTPUT RECORDS: files with what the program has printed.
printed_as_shown() {
  cat "$1" "$2" >"$work/printed"
  for text in shown printed; do
    # Without time, process and thread.
    sed -E -i 's/^[0-9]{4}-[^ ]* [0-9]+\/[0-9]+ //' "$work/$text"
  done
  diff "$work/shown" "$work/printed" || fail 'README.md shows other output'
}
