#!/usr/bin/env bash
# Memory admission against what exports really hold: real exports (the
# stream_export program: load, render, encode, stage, as the controller does
# for one item) of generated photos of 2, 12 and 24 MP at x2, x4 and x8 to
# every format, each under /usr/bin/time -v, beside the estimate the planner
# uses for the same export. Fails when an estimate is off by more than 15 %
# of the measured peak. Exports the planner refuses (the estimate over the
# ceiling, WebP's side limit, the engine's output ceiling) are listed as
# refused, not run. Each file's SHA-256 as the exporter took it while
# writing must be the SHA-256 of the file it wrote.
#
# Then the paths that hold a picture whole besides the formats: a canvas,
# a JPEG byte ceiling (several encodes), and Enhance (EXTRAS, each
# PHOTO:SCALE:FORMAT:METHOD[:VARIANT] with VARIANT canvas or maxkb:N;
# Enhance rows are skipped without the model, and take minutes).
#
#   bench/memory_admission_bench.sh                 (after scripts/setup and a build)
#   BUILD_DIR=build-release PHOTOS="2 12" SCALES="x2 x4" FORMATS="png webp" \
#     METHODS="exact clarity" EXTRAS="2:x4:png:exact:canvas" bench/memory_admission_bench.sh
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$(cd "${BUILD_DIR:-$here/build}" && pwd)
export_program=$build/bench/stream_export
photos=${PHOTOS:-"2 12 24"}
scales=${SCALES:-"x2 x4 x8"}
formats=${FORMATS:-"jpeg png tiff webp heic avif"}
methods=${METHODS:-exact}
tolerance=${TOLERANCE:-15}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

for program in "$export_program" "$build/bench/bench_photo" /usr/bin/time; do
  [ -x "$program" ] || { echo "missing $program: build first (and scripts/setup)" >&2; exit 1; }
done

declare -A side=([2]="1732 1155" [12]="4243 2828" [24]="6000 4000")
declare -A ext=([jpeg]=jpg [png]=png [tiff]=tif [webp]=webp [heic]=heic [avif]=avif)
for mp in $photos; do
  read -r w h <<<"${side[$mp]}"
  "$build/bench/bench_photo" "$work/photo-$mp.jpg" "$w" "$h"
done

extras=${EXTRAS-"2:x4:jpeg:exact:canvas 2:x4:png:exact:canvas 2:x4:webp:exact:canvas
  12:x2:tiff:exact:canvas 2:x4:jpeg:exact:maxkb:3000 12:x2:jpeg:exact:maxkb:8000
  2:x4:png:estimate 2:x2:webp:estimate"}
model=${TARNBLOOM_ESTIMATE_MODEL:-$here/models/realesr-general-x4v3.param}

off=0
# One export under /usr/bin/time beside its estimate: one line of the table.
measure() {
  local mp=$1 scale=$2 format=$3 method=$4 variant=${5:-}
  local row out status estimate kb line
  row=$(printf '%-6s %-5s %-5s %-8s %-11s' "${mp}mp" "$scale" "$format" "$method" "${variant:--}")
  if [ "$method" = estimate ] && [ ! -f "$model" ]; then
    printf '%s %10s\n' "$row" 'no model' && return
  fi
  out=$work/out.${ext[$format]}
  set +e
  /usr/bin/time -v "$export_program" "$work/photo-$mp.jpg" "$format" "$scale" "$out" \
    "$method" $variant >"$work/log" 2>&1
  status=$?
  set -e
  # The hash taken as the file was written must be the written file's.
  if [ "$status" = 0 ] &&
    [ "$(awk '/^sha256 /{ print $2 }' "$work/log")" != "$(sha256sum "$out" | cut -d' ' -f1)" ]; then
    echo "$row: the hash taken while writing is not the file's" >&2 && exit 1
  fi
  rm -f "$out"
  estimate=$(awk '/^estimate /{ print $2 }' "$work/log")
  if [ "$status" = 3 ] || { [ "$status" != 0 ] && grep -q -e 'more than this version can build' \
    -e 'pixel limit' -e 'WebP supports at most' "$work/log"; }; then
    printf '%s %10s %10s %8s\n' "$row" refused \
      "$(awk -v e="${estimate:-0}" 'BEGIN { printf "%.0f", e / 1048576 }')" -
    return
  fi
  if [ "$status" != 0 ]; then
    echo "$row failed (exit $status):" >&2 && tail -n 5 "$work/log" >&2 && exit 1
  fi
  kb=$(awk -F': ' '/Maximum resident set size/{ print $2 }' "$work/log")
  line=$(awk -v k="$kb" -v e="$estimate" -v t="$tolerance" 'BEGIN {
    m = k * 1024; d = (e - m) / m * 100
    printf "%10.0f %10.0f %+7.1f%s", m / 1048576, e / 1048576, d, (d > t || d < -t) ? "  OFF" : ""
  }')
  echo "$row $line"
  case $line in *OFF) off=$((off + 1)) ;; esac
}

printf '%-6s %-5s %-5s %-8s %-11s %10s %10s %8s\n' photo scale format method variant \
  'peak MiB' 'est. MiB' 'off %'
for mp in $photos; do
  for scale in $scales; do
    for format in $formats; do
      for method in $methods; do
        measure "$mp" "$scale" "$format" "$method"
      done
    done
  done
done
for extra in $extras; do
  IFS=: read -r mp scale format method variant size <<<"$extra"
  [ -f "$work/photo-$mp.jpg" ] || { read -r w h <<<"${side[$mp]}" &&
    "$build/bench/bench_photo" "$work/photo-$mp.jpg" "$w" "$h"; }
  measure "$mp" "$scale" "$format" "$method" "${variant}${size:+:$size}"
done
if [ "$off" -gt 0 ]; then
  echo "FAILED: $off estimates off by more than $tolerance % of the measured peak" >&2
  exit 1
fi
echo "every estimate within $tolerance % of the measured peak"
