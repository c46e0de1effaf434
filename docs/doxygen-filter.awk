# Shows a header to Doxygen as if its comments were written for Doxygen.
#
# The comment that opens a file becomes that of the file, and of the class that the file is named
# after unless that has one of its own. A comment right above a declaration becomes that of the
# declaration, and of the overloads, and the setter to a getter, that follow without a comment of
# their own; other functions that follow so refer to it. One behind an enumerator or a member
# becomes that of its line. Indented lines of a comment are shown as they are.

# Text in which nothing is markup but code between backquotes.
function plain(text,   parts, count, i, result) {
  count = split(text, parts, "`")
  for (i = 1; i <= count; ++i) {
    if (i % 2 == 1) {
      gsub(/\\/, "\\\\", parts[i])
      gsub(/&/, "\\&amp;", parts[i])
      gsub(/</, "\\&lt;", parts[i])
      gsub(/>/, "\\&gt;", parts[i])
      gsub(/[#@*]/, "\\\\&", parts[i])
    }
    result = result (i > 1 ? "`" : "") parts[i]
  }
  return result
}

# The block of comment lines, as one that Doxygen reads.
function documentation(lines, count, indent,   i, text, result, shown) {
  for (i = 1; i <= count; ++i) {
    text = lines[i]
    if (shown != (text ~ /^   /)) {
      result = result indent "///\n"
      shown = !shown
    }
    result = result indent "///" (shown ? "   " text : plain(text)) "\n"
  }
  return result
}

# The name that a declaration introduces, empty when it is no function.
function functionName(line) {
  if (line !~ /\(/ || line ~ /= (delete|default);/)
    return ""
  sub(/\(.*/, "", line)
  sub(/^.*[ *&]/, "", line)
  return line
}

function indentOf(line) {
  match(line, /^ */)
  return RLENGTH
}

# Whether a function without a comment stands right below one that has it, as its equal.
function isBeside(line, name) {
  return name ~ /^[A-Za-z_]+$/ && lastName ~ /^[A-Za-z_]+$/ && indentOf(line) == lastIndent
}

function isSetterOf(name, getter) {
  return name ~ /^set/ && "get" substr(name, 4) == getter
}

FNR == 1 {
  className = FILENAME
  sub(/.*\//, "", className)
  sub(/\.h$/, "", className)
  opening = 1
}

/^ *\/\// {
  indent = $0
  sub(/\/\/.*/, "", indent)
  text = $0
  sub(/^ *\/\//, "", text)
  block[++count] = text
  next
}

{
  if (opening) {
    for (i = 1; i <= count; ++i)
      fileBlock[i] = block[i]
    fileCount = count
    printf "/// \\file\n%s", documentation(block, count, "")
    opening = count = 0
  }
  name = functionName($0)
  isClass = $0 ~ ("^(class|struct) .*[ )]" className " *([:{]|final|$)")
  if (count > 0 && $0 ~ /[^ ]/) {
    last = documentation(block, count, indent)
    lastName = name
    lastIndent = indentOf($0)
    printf "%s", last
  } else if (count > 0) {
    for (i = 1; i <= count; ++i)
      print indent "//" block[i]
  } else if (name != "" && (name == lastName || isSetterOf(name, lastName))) {
    printf "%s", last
  } else if (isBeside($0, name)) {
    print "/// \\see " lastName "()"
  } else if ($0 !~ /[^ ]/) {
    lastName = ""
  }
  if (count == 0 && isClass && !templateDocumented)
    printf "%s", documentation(fileBlock, fileCount, "")
  templateDocumented = count > 0 && $0 ~ /^template/
  count = 0
  if ($0 !~ /\(/ && $0 ~ /[;,A-Za-z0-9}] +\/\/ /)
    sub(/\/\/ /, "///< ")
  # Specialisations of templates of namespace std are beyond Doxygen.
  if ($0 ~ /^template <>/) {
    print "/// \\cond"
    special = 1
  }
  print
  if (special && $0 ~ /^};/) {
    print "/// \\endcond"
    special = 0
  }
}
