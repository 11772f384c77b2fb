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
  shift
else
  # Field 3 onwards is the demangled name, which may contain spaces.
  symbols=$(nm -D --defined-only --demangle "$1" | cut -d' ' -f3-)
  what=$(basename "$1")
fi
shift
if [ -z "$symbols" ]; then
  echo "$what: exports no symbol at all" >&2
  exit 1
fi

# The headers first, which fill ok[] with "class C", "member C::m" and
# "free f"; then the symbols from standard input, one failure line each.
failures=$(printf '%s\n' "$symbols" | awk '
  # The name a declaration line declares: the identifier (or operator)
  # before its parameter list, else the last identifier before ";".
  function declared(line,    name) {
    if (match(line, /operator[ ]*(new|delete|\(\)|[^ (A-Za-z0-9_]+)/)) {
      name = substr(line, RSTART, RLENGTH)
      sub(/operator[ ]+/, "operator ", name)
      if (name !~ /operator (new|delete)/) sub(/operator /, "operator", name)
    } else if (index(line, "(")) {
      name = substr(line, 1, index(line, "(") - 1)
      name = match(name, /~?[A-Za-z_][A-Za-z0-9_]*[ ]*$/) ? substr(name, RSTART, RLENGTH) : ""
    } else if (match(line, /[A-Za-z_][A-Za-z0-9_]*[ ]*(=[^;]*)?;[ ]*$/)) {
      name = substr(line, RSTART, RLENGTH)
    }
    sub(/[ ]*((=[^;]*)?;.*)?$/, "", name)
    return name
  }
  # The qualified name of a symbol, without its parameter list and const.
  function qualified(s,    depth, i, c) {
    gsub(/\[abi:[a-z0-9]+\]/, "", s)
    sub(/ const$/, "", s)
    if (substr(s, length(s), 1) != ")") return s
    for (i = length(s); i > 0; i--) {
      c = substr(s, i, 1)
      if (c == ")") depth++
      else if (c == "(" && --depth == 0) break
    }
    return substr(s, 1, i - 1)
  }
  FILENAME != "-" {
    line = $0
    sub(/\/\/.*/, "", line)
    gsub(/__attribute__\(\([^)]*\)\)/, "", line)
    opens = gsub(/\{/, "{", line)
    closes = gsub(/\}/, "}", line)
    if (match(line, /^[ ]*(class|struct)[ ]+CRRECORD(_PLATFORM)?_API[ ]+[A-Za-z_][A-Za-z0-9_]*/) &&
        line !~ /;[ ]*$/) {
      n = split(substr(line, RSTART, RLENGTH), word, /[ ]+/)
      name = top > 0 ? scope[top] "::" word[n] : word[n]
      ok["class " name] = 1
      scope[++top] = name
      access[top] = line ~ /^[ ]*struct/ ? "public" : "private"
      body[top] = depth + 1
    } else if (top > 0 && depth == body[top]) {
      if (match(line, /^[ ]*(public|protected|private)[ ]*:/)) {
        access[top] = substr(line, RSTART, RLENGTH)
        gsub(/[ :]/, "", access[top])
      } else if (access[top] == "public" &&
                 line !~ /^[ ]*(typedef|using|friend|class|struct|enum)[ ]/ &&
                 (name = declared(line)) != "") {
        ok["member " scope[top] "::" name] = 1
      }
    } else if (top == 0 && depth == 0 && line ~ /CRRECORD(_PLATFORM)?_API/ &&
               line !~ /^[ ]*(class|struct)[ ]/ && (name = declared(line)) != "") {
      ok["free " name] = 1
    }
    depth += opens - closes
    while (top > 0 && depth < body[top]) top--
    next
  }
  length(ok) == 0 {
    print "no public declaration found in the headers" > "/dev/stderr"
    exit 2
  }
  $0 == "" { next }
  match($0, /^(typeinfo name for|typeinfo for|vtable for) /) {
    if (!(("class " substr($0, RLENGTH + 1)) in ok)) {
      print $0 ": not an exported class of a public header"
    }
    next
  }
  {
    name = qualified($0)
    if (name ~ /[<>]/) print $0 ": template instance, not public API"
    else if (name ~ /::/ && !(("member " name) in ok)) {
      print $0 ": not a public member in a public header"
    } else if (name !~ /::/ && !(("free " name) in ok)) {
      print $0 ": not declared for export in a public header"
    }
  }
' "$@" -)

if [ -n "$failures" ]; then
  echo "$what exports symbols outside the public API:" >&2
  printf '%s\n' "$failures" | sed 's/^/  /' >&2
  exit 1
fi
echo "$what: $(printf '%s\n' "$symbols" | grep -c .) exported symbols, all public API"
