#!/usr/bin/env bash
# Exact x4 enlargement as a whole process, against vips and ImageMagick doing
# the same linear-light Lanczos 3 job, in the same run.
#
# Input: bench/data/retina.jpg, 1411 x 1411 (2.0 megapixels, to 31.9 MP),
# a CC0 photograph shipped by Debian's python3-skimage. Output JPEG at
# quality 90. Goal: at least 2x faster than the vips pipeline.
#
#   bench/enlarge_bench.sh [RUNS]     (after scripts/setup; best of RUNS, default 3)
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cli=$here/build/cli/tarnbloom
input=${BENCH_INPUT:-$here/bench/data/retina.jpg}
runs=${1:-3}
work=$(mktemp -d)
# Receipts and the export queue go to a scratch state folder.
export TARNBLOOM_HOME="$work/home"
trap 'rm -rf "$work"' EXIT

for tool in vips convert /usr/bin/time; do
  command -v "$tool" >/dev/null || { echo "missing $tool: run scripts/setup" >&2; exit 1; }
done

# best SECONDS and its peak RSS (MB) of a command over $runs runs
measure() {
  local best="" rss=""
  for _ in $(seq "$runs"); do
    rm -rf "$work/out" && mkdir -p "$work/out"
    local line
    line=$(/usr/bin/time -f '%e %M' "$@" 2>&1 >/dev/null | tail -n 1)
    local s=${line% *} kb=${line#* }
    if [ -z "$best" ] || awk "BEGIN{exit !($s < $best)}"; then best=$s; rss=$((kb / 1024)); fi
  done
  echo "$best $rss"
}

vips_job() {
  vips colourspace "$input" "$work/a.v" scrgb &&
    vips resize "$work/a.v" "$work/b.v" 4 --kernel lanczos3 &&
    vips colourspace "$work/b.v" "$work/out/vips.jpg[Q=90]" srgb
}
export -f vips_job
export input work

read -r ours ours_rss < <(measure "$cli" enlarge --method exact --size x4 --format jpeg --quality 90 --out "$work/out" "$input")
read -r vips vips_rss < <(measure bash -c vips_job)
read -r magick magick_rss < <(measure /usr/bin/convert "$input" -colorspace RGB -filter Lanczos -resize 400% -colorspace sRGB -quality 90 "$work/out/magick.jpg")

echo "input: $(basename "$input"), x4 to JPEG q90, best of $runs, $(nproc) cores"
printf '%-12s %7s s  %6s MB peak RSS\n' tarnbloom "$ours" "$ours_rss" vips "$vips" "$vips_rss" ImageMagick "$magick" "$magick_rss"
awk -v o="$ours" -v v="$vips" -v m="$magick" \
  'BEGIN { printf "speed-up: %.2fx against vips (goal >= 2, floor 1.5), %.2fx against ImageMagick\n", v / o, m / o }'
echo "where tarnbloom's time goes:"
rm -rf "$work/out" && TARNBLOOM_TIMINGS=1 "$cli" enlarge --method exact --size x4 --format jpeg --quality 90 \
  --out "$work/out" "$input" 2>&1 >/dev/null | sed 's/^/  /'
