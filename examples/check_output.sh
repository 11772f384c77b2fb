#!/usr/bin/env bash
# Runs an example and compares what it prints with its expected output.
#   check_output.sh PROGRAM EXPECTED_FILE
set -euo pipefail
program=$1
expected=$2
if ! actual=$("$program"); then
  echo "$(basename "$program") failed" >&2
  exit 1
fi
if ! diff -u "$expected" <(printf '%s\n' "$actual"); then
  echo "$(basename "$program"): output differs from $expected" >&2
  exit 1
fi
echo "$(basename "$program"): output as expected"
