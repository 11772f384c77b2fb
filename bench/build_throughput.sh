#!/usr/bin/env bash
# crrec build's throughput beside openssl dgst -sha256 and sha256sum on the
# same file, each run a few times by turns; prints a Markdown table of the
# median seconds, GB/s, the ratio to openssl and the peak resident set.
#
#   bench/build_throughput.sh CRREC [SIZE] [RUNS]     e.g. build/tools/crrec 1G 3
#
# The file is made by `crrec gen` in a scratch folder and read once before
# timing, so that every run reads it from the page cache.
set -euo pipefail
crrec=$(realpath "$1")
size=${2:-1G}
runs=${3:-3}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
file=$scratch/input.bin
"$crrec" gen "$file" --size "$size" >/dev/null
cat "$file" >/dev/null
bytes=$(stat -c %s "$file")

declare -A commands=(
  ["openssl dgst -sha256"]="openssl dgst -sha256 $file"
  ["sha256sum"]="sha256sum $file"
  ["crrec build --threads 1"]="$crrec build $file --time 1 -q --threads 1 -o $scratch/t1.stored"
  ["crrec build"]="$crrec build $file --time 1 -q -o $scratch/all.stored"
)
order=("openssl dgst -sha256" "sha256sum" "crrec build --threads 1" "crrec build")
declare -A times rss
for ((r = 0; r < runs; ++r)); do
  for name in "${order[@]}"; do
    out=$( { /usr/bin/time -f "%e %M" ${commands[$name]} >/dev/null; } 2>&1 | tail -n 1)
    times[$name]+="${out%% *} "
    rss[$name]=${out##* }
  done
done
cmp "$scratch/t1.stored" "$scratch/all.stored"  # the record must not depend on the threads

median() { tr ' ' '\n' | grep . | sort -g | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
base=$(echo "${times["openssl dgst -sha256"]}" | median)
echo "| command ($size, $(nproc) cores) | median s | GB/s | × openssl | peak RSS |"
echo "|---|---:|---:|---:|---:|"
for name in "${order[@]}"; do
  t=$(echo "${times[$name]}" | median)
  awk -v n="$name" -v t="$t" -v b="$bytes" -v o="$base" -v m="${rss[$name]}" \
    'BEGIN { printf "| %s | %.2f | %.2f | %.2f | %.0f MB |\n", n, t, b / t / 1e9, o / t, m / 1024 }'
done
echo "(the two crrec runs wrote the same stored record)"
