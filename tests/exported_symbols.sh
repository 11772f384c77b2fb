#!/usr/bin/env bash
# Checks that a shared library exports nothing but the public API.
#
#   exported_symbols.sh LIBRARY HEADER...            check a built library
#   exported_symbols.sh --symbols FILE HEADER...     check a list of demangled
#                                                    names, one per line
#
# The allowed names are read from the public headers each time, so a new
# public function needs no list to be kept up to date:
# - a free function declared with CRRECORD_API or CRRECORD_PLATFORM_API;
# - a member declared in a public section of a class or struct that carries
#   one of these macros (nested classes too), and that class's vtable and
#   typeinfo.
# Every exported symbol is demangled and cut to its qualified name (no
# parameters); anything else, such as a private member, a helper of the
# library's own or a standard-library template instantiated inside it,
# fails the check with one line per symbol.
set -euo pipefail

if [ $# -lt 2 ]; then
  echo "usage: $0 LIBRARY|--symbols FILE HEADER..." >&2
  exit 2
fi

if [ "$1" = "--symbols" ]; then
  symbols=$(cat "$2")
  what=$2
  shift 2
else
  # Field 3 onwards is the demangled name, which may contain spaces.
  symbols=$(nm -D --defined-only --demangle "$1" | cut -d' ' -f3-)
  what=$(basename "$1")
  shift
fi

if [ -z "$symbols" ]; then
  echo "$what: exports no symbol at all" >&2
  exit 1
fi

allowed=$(awk '
  function strip(line) {
    sub(/\/\/.*/, "", line)
    gsub(/__attribute__\(\([^)]*\)\)/, "", line)
    return line
  }
  # The name a declaration line declares: the identifier (or operator)
  # before its parameter list, else the last identifier before ";".
  function declared(line,    head, name) {
    if (match(line, /operator[ ]*(new|delete|\(\)|[^ (A-Za-z0-9_]+)/)) {
      name = substr(line, RSTART, RLENGTH)
      sub(/operator[ ]+/, "operator ", name)
      if (name !~ /operator (new|delete)/) sub(/operator /, "operator", name)
      return name
    }
    if (index(line, "(")) {
      head = substr(line, 1, index(line, "(") - 1)
      if (match(head, /~?[A-Za-z_][A-Za-z0-9_]*[ ]*$/)) {
        name = substr(head, RSTART, RLENGTH)
        sub(/[ ]+$/, "", name)
        return name
      }
      return ""
    }
    if (line ~ /;[ ]*$/ && match(line, /[A-Za-z_][A-Za-z0-9_]*[ ]*(=[^;]*)?;[ ]*$/)) {
      name = substr(line, RSTART, RLENGTH)
      sub(/[ ]*(=[^;]*)?;.*/, "", name)
      return name
    }
    return ""
  }
  BEGIN { depth = 0; top = 0 }
  {
    line = strip($0)
    opens = gsub(/\{/, "{", line)
    closes = gsub(/\}/, "}", line)
    exported = line ~ /CRRECORD(_PLATFORM)?_API/
    if (match(line, /^[ ]*(class|struct)[ ]+CRRECORD(_PLATFORM)?_API[ ]+[A-Za-z_][A-Za-z0-9_]*/) &&
        line !~ /;[ ]*$/) {
      split(substr(line, RSTART, RLENGTH), word, /[ ]+/)
      name = word[length(word)]
      qualified = top > 0 ? scope[top] "::" name : name
      print "class " qualified
      top++
      scope[top] = qualified
      access[top] = (line ~ /^[ ]*struct/) ? "public" : "private"
      body[top] = depth + 1
    } else if (top > 0 && depth == body[top]) {
      if (line ~ /^[ ]*(public|protected|private)[ ]*:/) {
        access[top] = line
        sub(/^[ ]*/, "", access[top])
        sub(/[ ]*:.*/, "", access[top])
      } else if (access[top] == "public" && line !~ /^[ ]*(typedef|using|friend|class|struct|enum)[ ]/) {
        name = declared(line)
        if (name != "") print "member " scope[top] "::" name
      }
    } else if (top == 0 && depth == 0 && exported && line !~ /^[ ]*(class|struct)[ ]/) {
      name = declared(line)
      if (name != "") print "free " name
    }
    depth += opens - closes
    while (top > 0 && depth < body[top]) top--
  }
' "$@" | sort -u)

if [ -z "$allowed" ]; then
  echo "no public declaration found in: $*" >&2
  exit 1
fi

# Demangled name -> what the headers must declare for it.
failures=$(printf '%s\n' "$symbols" | awk -v allowed="$allowed" '
  BEGIN {
    n = split(allowed, list, "\n")
    for (i = 1; i <= n; i++) ok[list[i]] = 1
  }
  # The qualified name without the parameter list and const.
  function qualified(s,    depth, i, c) {
    gsub(/\[abi:[a-z0-9]+\]/, "", s)
    sub(/ const$/, "", s)
    if (substr(s, length(s), 1) != ")") return s
    depth = 0
    for (i = length(s); i > 0; i--) {
      c = substr(s, i, 1)
      if (c == ")") depth++
      else if (c == "(" && --depth == 0) break
    }
    return substr(s, 1, i - 1)
  }
  {
    symbol = $0
    if (symbol == "") next
    if (match(symbol, /^(typeinfo name for|typeinfo for|vtable for) /)) {
      cls = substr(symbol, RLENGTH + 1)
      if (!(("class " cls) in ok)) print symbol ": not an exported class of a public header"
      next
    }
    name = qualified(symbol)
    last = 0
    for (i = 1; i < length(name); i++) {
      if (substr(name, i, 2) == "::" && index(name, "<") == 0) last = i
    }
    if (index(name, "<") > 0 || index(name, ">") > 0) {
      print symbol ": template instance, not public API"
    } else if (last > 0) {
      if (!(("member " name) in ok)) print symbol ": not a public member in a public header"
    } else if (!(("free " name) in ok)) {
      print symbol ": not declared for export in a public header"
    }
  }
')

if [ -n "$failures" ]; then
  echo "$what exports symbols outside the public API:" >&2
  printf '%s\n' "$failures" | sed 's/^/  /' >&2
  exit 1
fi
count=$(printf '%s\n' "$symbols" | grep -c .)
echo "$what: $count exported symbols, all public API"
