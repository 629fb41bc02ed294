#!/usr/bin/env bash
# Peak memory and time of one Exact export to JPEG, PNG and TIFF, each in
# a process of its own (stream_export: load, render, encode, write), beside
# vips doing the same linear-light Lanczos 3 job in the same run, and beside
# stream_export built from an earlier tree when BEFORE_EXPORT names it (its
# files must come out the same).
#
# Input: samples/rocket.jpg (from Debian's python3-skimage) scaled with grain
# by bench_photo to 6000 x 4000 (24 MP, enlarged x4 to 384 MP) and to
# 1620 x 1080 (1.75 MP, enlarged to 28 MP and to 384 MP). JPEG at quality 90.
# Goals: x4 of 24 MP under 400 MiB peak to each format, at no more than 5 %
# extra time; peak memory for a 384 MP output within 1.5x of that for a
# 28 MP output of the same photo.
#
#   bench/stream_memory_bench.sh [RUNS]      (after scripts/setup and a build;
#                                             best of RUNS, default 1)
#   BUILD_DIR=build-release bench/stream_memory_bench.sh
#   BEFORE_EXPORT=/old/build/bench/stream_export bench/stream_memory_bench.sh
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$(cd "${BUILD_DIR:-$here/build}" && pwd)
ours=$build/bench/stream_export
before=${BEFORE_EXPORT:-}
runs=${1:-1}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

for tool in vips exiftool python3 /usr/bin/time; do
  command -v "$tool" >/dev/null || { echo "missing $tool: run scripts/setup" >&2; exit 1; }
done
for program in "$ours" "$build/bench/bench_photo" ${before:+"$before"}; do
  [ -x "$program" ] || { echo "missing $program: build first" >&2; exit 1; }
done

"$build/bench/bench_photo" "$work/photo-24mp.jpg" 6000 4000
"$build/bench/bench_photo" "$work/photo-2mp.jpg" 1620 1080

# Runs a command $runs times with OUT=$work/out/$1 for its files; prints the
# best SECONDS, the peak RSS (MiB) of that run and the files' size (MB).
measure() {
  local name=$1 best="" rss=""
  shift
  for _ in $(seq "$runs"); do
    rm -rf "${work:?}/out/$name" && mkdir -p "$work/out/$name"
    local line
    line=$(OUT="$work/out/$name" /usr/bin/time -f '%x %e %M' "$@" 2>&1 >/dev/null | tail -n 1)
    read -r status s kb <<<"$line"
    [ "$status" = 0 ] || { echo "failed: $* (exit $status)" >&2; exit 1; }
    if [ -z "$best" ] || awk "BEGIN{exit !($s < $best)}"; then best=$s; rss=$((kb / 1024)); fi
  done
  local bytes
  bytes=$(find "$work/out/$name" -type f -printf '%s\n' | awk '{ n += $1 } END { print n + 0 }')
  echo "$best $rss $(awk -v b="$bytes" 'BEGIN { printf "%.0f", b / 1e6 }')"
}

# Whether two exports are the same file. The sRGB and grey profiles we embed
# are made when the process starts and carry that time in their header, so
# two runs differ there: files that differ are compared again without their
# profiles, and the profiles without their creation time.
same_file() {
  cmp -s "$1" "$2" && return 0
  local d=$work/compare ext=${1##*.}
  rm -rf "$d" && mkdir -p "$d"
  exiftool -q -b -icc_profile "$1" >"$d/a.icc"
  exiftool -q -b -icc_profile "$2" >"$d/b.icc"
  python3 -c 'import sys; a, b = (open(f, "rb").read() for f in sys.argv[1:])
sys.exit(not (len(a) == len(b) > 36 and a[:24] + a[36:] == b[:24] + b[36:]))' "$d/a.icc" "$d/b.icc" ||
    return 1
  cp "$1" "$d/a.$ext" && cp "$2" "$d/b.$ext"
  exiftool -q -q -overwrite_original -icc_profile= "$d/a.$ext" "$d/b.$ext"
  cmp -s "$d/a.$ext" "$d/b.$ext"
}

# vips in linear light: to scRGB, Lanczos 3, back to sRGB, then the format.
vips_job() {
  vips colourspace "$INPUT" "$OUT/a.v" scrgb &&
    vips resize "$OUT/a.v" "$OUT/b.v" 4 --kernel lanczos3 &&
    vips colourspace "$OUT/b.v" "$OUT/vips.$SUFFIX" srgb &&
    rm -f "$OUT/a.v" "$OUT/b.v"
}
export -f vips_job

declare -A ext=([jpeg]=jpg [png]=png [tiff]=tif)
declare -A vips_suffix=([jpeg]='jpg[Q=90]' [png]='png' [tiff]='tif[compression=deflate,predictor=horizontal]')
declare -A peak
same=yes
echo "exact, best of $runs, $(nproc) cores"
printf '%-6s %-11s %-6s %-10s %8s %9s %8s\n' input size format tool seconds 'peak MiB' 'file MB'
row() { printf '%-6s %-11s %-6s %-10s %8s %9s %8s' "$photo" "$size" "$format" "$@"; }
# 28 MP and 384 MP from the small photo (memory must not grow with the
# output), then x4 of the 24 MP photo beside vips.
for job in "2mp x4" "2mp width:24000" "24mp x4"; do
  read -r photo size <<<"$job"
  input=$work/photo-$photo.jpg
  for format in jpeg png tiff; do
    read -r t r m < <(measure ours sh -c '"$0" "$1" "$2" "$3" "$OUT/out.$4"' \
      "$ours" "$input" "$format" "$size" "${ext[$format]}")
    row tarnbloom "$t" "$r" "$m" && echo
    peak[$photo-$size-$format]=$r
    if [ -n "$before" ]; then
      read -r bt br bm < <(measure before sh -c '"$0" "$1" "$2" "$3" "$OUT/out.$4"' \
        "$before" "$input" "$format" "$size" "${ext[$format]}")
      row before "$bt" "$br" "$bm"
      awk -v a="$t" -v b="$bt" -v ra="$r" -v rb="$br" \
        'BEGIN { printf "   after/before: time %+.1f %%, peak %.2fx\n", (a / b - 1) * 100, ra / rb }'
      if ! same_file "$work/out/ours/out.${ext[$format]}" "$work/out/before/out.${ext[$format]}"; then
        echo "  $format, $photo at $size: not the same file as the earlier build" && same=no
      fi
    fi
    rm -rf "${work:?}/out"
    if [ "$size" = x4 ]; then
      read -r vt vr vm < <(INPUT=$input SUFFIX=${vips_suffix[$format]} measure vips bash -c vips_job)
      row vips "$vt" "$vr" "$vm" && echo
      rm -rf "${work:?}/out"
    fi
  done
done
if [ -n "$before" ]; then echo "files the same as the earlier build's: $same"; fi
for format in jpeg png tiff; do
  awk -v f="$format" -v a="${peak[24mp-x4-$format]}" -v s="${peak[2mp-x4-$format]}" \
    -v l="${peak[2mp-width:24000-$format]}" \
    'BEGIN { printf "%-5s peak for x4 of 24 MP %d MiB (goal < 400); 384 MP from 1.75 MP %.2fx the peak at 28 MP (goal <= 1.5)\n",
             f, a, l / s }'
done
