# Shows a Markdown file to Doxygen as GitHub would read it: headings have anchors that links name,
# with the name of the file in front, and nothing in the text is a command of Doxygen. Links to what
# is no page here become their text.

# What is no code, as plain text and links.
function prose(text,   result, label, target, parts) {
  gsub(/\\/, "\\\\", text)
  gsub(/@/, "\\@", text)
  while (match(text, /\[[^]]*\]\([^)]*\)/)) {
    result = result substr(text, 1, RSTART - 1)
    split(substr(text, RSTART + 1, RLENGTH - 2), parts, /\]\(/)
    label = parts[1]
    target = parts[2]
    text = substr(text, RSTART + RLENGTH)
    if (target == "../include/VarnSupport")
      result = result "[" label "](files.html)"
    else if (target ~ /^#/)
      result = result "[" label "](@ref " page "-" substr(target, 2) ")"
    else if (target ~ /^[a-z]+\.md/) {
      sub(/\.md#/, "-", target)
      sub(/\.md$/, "", target)
      result = result "[" label "](@ref " target ")"
    } else
      result = result label
  }
  return result text
}

FNR == 1 {
  page = FILENAME
  sub(/.*\//, "", page)
  sub(/\.md$/, "", page)
}

/^```/ { inCode = !inCode }

inCode || /^```/ || /^[|-]+$/ { print; next }

/^#+ / {
  anchor = tolower($0)
  sub(/^#+ /, "", anchor)
  gsub(/[^a-z0-9 _-]/, "", anchor)
  gsub(/ /, "-", anchor)
  print $0 " {#" page (/^# / ? "" : "-" anchor) "}"
  next
}

{
  count = split($0, parts, "`")
  line = ""
  # A link's text may hold code: its pieces are put together before links are looked for.
  for (i = 1; i <= count; ++i) {
    if (i % 2 == 0) {
      code[i] = "`" parts[i] "`"
      line = line "\001" i "\002"
    } else
      line = line parts[i]
  }
  line = prose(line)
  for (i = 2; i <= count; i += 2) {
    at = index(line, "\001" i "\002")
    line = substr(line, 1, at - 1) code[i] substr(line, at + length("\001" i "\002"))
  }
  print line
}
