# Makes the comments of a header readable to Doxygen, line by line, so that line numbers stay what they are:
# each // in front of a declaration or behind it becomes a documentation comment, a block with a blank line
# behind it one of the whole file, labels such as "Threads:" become list items, drawings become code, and
# nothing else is taken for a command.

# Text as it stands, but for `code`, where Doxygen leaves everything alone.
function literal(text,    parts, count, i, result) {
  count = split(text, parts, "`")
  for (i = 1; i <= count; i++) {
    if (i % 2 == 1) gsub(/[\\@<>&#$%]/, "\\\\&", parts[i])
    result = result (i > 1 ? "`" : "") parts[i]
  }
  return result
}

function is_comment(text) { return text ~ /^ *\/\// }

# Whether the block of comments that begins in line `i` stands by itself.
function stands_alone(i) {
  while (is_comment(line[i])) i++
  return line[i] == ""
}

# Text of a line that is all comment.
function converted(text) {
  if (text ~ /^   *[^ ]/ && (blank || code)) {
    code = 1
    return "    " text
  }
  code = 0
  text = literal(text)
  if (match(text, /^ [A-Z][a-z]+: /)) text = " - **" substr(text, 2, RLENGTH - 3) ":** " substr(text, RLENGTH + 1)
  return text
}

{ line[NR] = $0 }

END {
  for (i = 1; i <= NR; i++) {
    text = line[i]
    if (is_comment(text)) {
      match(text, /^ *\/\//)
      rest = substr(text, RLENGTH + 1)
      if (trailing && RLENGTH - 1 >= trailing) {  # goes on with the comment behind the declaration above
        print substr(text, 1, RLENGTH) "/<" literal(rest)
      } else {
        trailing = 0
        print substr(text, 1, RLENGTH) "/" converted(rest)
        blank = (rest == "")
      }
      continue
    }
    blank = code = trailing = 0
    if (text == "#pragma once") {
      print "/** @file */"
    } else if (text == "" && is_comment(line[i + 1]) && stands_alone(i + 1)) {
      print "/// @file"
      blank = 1
    } else if (text ~ /[;,{(] +\/\/ / && text !~ /^ *[}#]/ && text !~ /^ *namespace / && match(text, / *\/\/ /)) {
      trailing = RSTART + RLENGTH - 3
      print substr(text, 1, trailing - 1) "///<" literal(substr(text, trailing + 2))
    } else {
      print text
    }
  }
}
