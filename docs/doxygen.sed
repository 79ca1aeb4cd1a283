# What Doxygen gets to read of a header instead of its plain text, line for line.

# The paragraphs at its top are the documentation of the file.
1,/^$/ {
  s,^//,///,
  s,^$,/// \\file,
  s,^/// \(Errors\|Lifetime\|Threads\): ,/// <br>\1: ,
}
# What is indented is to stay as it stands: Markdown wants four blanks for that.
s,^\( *///\)   \([^ ]\),\1     \2,
s,^\( *///\)   \( .*[^ ]\),\1     \2,
