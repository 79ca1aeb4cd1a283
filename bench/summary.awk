# Prints the figures named in bench/figures.txt, the first file, from the results
# of Google Benchmark in JSON, the other files.

function trim(text) {
  gsub(/^[ \t]+|[ \t]+$/, "", text)
  return text
}

function time_of(nanoseconds) {
  if (nanoseconds < 1000) return sprintf("%.1f ns", nanoseconds)
  if (nanoseconds < 1000000) return sprintf("%.1f us", nanoseconds / 1000)
  return sprintf("%.2f ms", nanoseconds / 1000000)
}

# What stands after "KEY": on this line, without quotation marks and comma.
function value_of(line) {
  sub(/^[^:]*"[ ]*:[ ]*/, "", line)
  sub(/,[ \t]*$/, "", line)
  gsub(/^"|"$/, "", line)
  return line
}

function notes_of(run,    notes) {
  notes = ""
  if ((run, "allocs") in counter) notes = sprintf("%.3g allocations", counter[run, "allocs"])
  if ((run, "memoryPerByte") in counter)
    notes = sprintf("memory %.1f bytes/byte", counter[run, "memoryPerByte"])
  if ((run, "memoryToMaps") in counter)
    notes = sprintf("memory %.2f of the maps", counter[run, "memoryToMaps"])
  if ((run, "allocsPerPair") in counter)
    notes = notes sprintf(", %.2f allocations a pair", counter[run, "allocsPerPair"])
  if ((run, "perChild") in counter) notes = time_of(counter[run, "perChild"] * 1e9) " each"
  if ((run, "perLookup") in counter) notes = time_of(counter[run, "perLookup"] * 1e9) " each"
  return notes
}

function print_figure(line,    field, count, run, base, ratio, goal) {
  count = split(line, field, "|")
  run = trim(field[2])
  base = count >= 3 ? trim(field[3]) : ""
  goal = count >= 4 ? "  goal: " trim(field[4]) : ""
  if (!(run in median)) return
  if (heading != "") print "\n" heading
  heading = ""
  ratio = ""
  if ((run, "toExpat") in counter) ratio = sprintf("%.2f", counter[run, "toExpat"])
  else if ((run, "toGKeyFile") in counter) ratio = sprintf("%.2f", counter[run, "toGKeyFile"])
  else if (base in median) ratio = sprintf("%.2f", median[run] / median[base])
  line = sprintf("  %-50s %11s %7s  %s%s", trim(field[1]), time_of(median[run]), ratio,
                 notes_of(run), goal)
  sub(/[ ]+$/, "", line)
  print line
}

BEGIN {
  in_nanoseconds["ns"] = 1
  in_nanoseconds["us"] = 1e3
  in_nanoseconds["ms"] = 1e6
  in_nanoseconds["s"] = 1e9
}

FNR == NR {
  if ($0 !~ /^#/ && $0 !~ /^[ \t]*$/) figures[++figure_count] = $0
  next
}

/"run_name"/ { run = value_of($0) }
/"aggregate_name"/ { aggregate = value_of($0) }
/"real_time"/ { real = value_of($0) }
/"cpu_time"/ { cpu = value_of($0) }
/"time_unit"/ {
  if (aggregate == "median")
    median[run] = (run ~ /\/(manual|real)_time$/ ? real : cpu) * in_nanoseconds[value_of($0)]
}
/"(allocs|allocsPerPair|memoryPerByte|memoryToMaps|perChild|perLookup|toExpat|toGKeyFile)"/ {
  if (aggregate == "median") {
    key = $0
    sub(/^[ \t]*"/, "", key)
    sub(/".*/, "", key)
    counter[run, key] = value_of($0)
  }
}
/^[ \t]*}/ { aggregate = "" }

END {
  for (i = 1; i <= figure_count; ++i) {
    if (figures[i] ~ /^=/) heading = substr(figures[i], 3)
    else print_figure(figures[i])
  }
}
