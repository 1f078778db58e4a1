# Doxygen input filter for the public headers, which are commented in plain `//`
# style: makes those comments documentation comments without changing the
# headers themselves.
#  - The first comment block of a file (before any code) describes the file.
#  - A `//` line of its own documents what follows it; rule lines (`// ----`)
#    only separate sections and are dropped.
#  - A `//` after code on the same line documents that line's member.
# Line numbers stay as they are, so warnings point at the real header lines.
BEGIN { in_head = 1; started = 0 }
{
  line = $0
  if (match(line, /^[ \t]*\/\/ ?-+[ \t]*$/)) {
    print ""
    in_head = (in_head && started) ? 0 : in_head
    next
  }
  if (match(line, /^[ \t]*\/\/\//)) { print line; next }
  # A C header opens with a /* block: that block describes the file.
  if (in_head && !started && match(line, /^\/\*[^*]?/)) {
    name = FILENAME
    sub(/.*\//, "", name)
    print "/** \\file " name substr(line, 3)
    started = 1
    in_head = 0
    next
  }
  if (match(line, /^[ \t]*\/\//)) {
    indent = substr(line, 1, RSTART + RLENGTH - 3)
    text = substr(line, RSTART + RLENGTH)
    if (in_head && !started) {
      name = FILENAME
      sub(/.*\//, "", name)
      print indent "/// \\file " name text
      started = 1
    } else {
      print indent "///" text
    }
    next
  }
  if (in_head && started && line ~ /^[ \t]*$/) {
    # End of the file's own block: keep it apart from what follows.
    in_head = 0
    print ""
    next
  }
  if (line !~ /^[ \t]*$/) in_head = 0
  # A trailing comment after code, outside string and character literals.
  code = line
  gsub(/"([^"\\]|\\.)*"/, "", code)
  gsub(/'([^'\\]|\\.)*'/, "", code)
  if (index(code, "//") > 0 && line !~ /^[ \t]*#/) {
    pos = index(line, "//")
    # Only when the // of the original line is the same one (not inside a literal).
    before = substr(line, 1, pos - 1)
    if (before !~ /"/ && before !~ /'/ && substr(line, pos, 3) != "///") {
      print before "///<" substr(line, pos + 2)
      next
    }
  }
  print line
}
