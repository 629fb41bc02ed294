#!/usr/bin/env bash
# Clarity x4 enlargement as a whole process, against Exact doing the same
# enlargement in the same run: Clarity is Exact plus its sharpening pass, so
# the ratio is what the pass costs.
#
# Input: bench/data/retina.jpg, 1411 x 1411 (2.0 megapixels, to 31.9 MP),
# a CC0 photograph shipped by Debian's python3-skimage. Output JPEG at
# quality 90. Goal: Clarity takes at most 2.5x Exact's time, with peak
# memory inside its band budget (288 MB of working memory beyond the output).
#
#   bench/clarity_bench.sh [RUNS]     (after scripts/setup; best of RUNS, default 3)
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cli=${TARNBLOOM_CLI:-$here/build/cli/tarnbloom}
input=${BENCH_INPUT:-$here/bench/data/retina.jpg}
runs=${1:-3}
work=$(mktemp -d)
# Receipts and the export queue go to a scratch state folder.
export TARNBLOOM_HOME="$work/home"
trap 'rm -rf "$work"' EXIT

command -v /usr/bin/time >/dev/null || { echo "missing /usr/bin/time: run scripts/setup" >&2; exit 1; }
[ -x "$cli" ] || { echo "missing $cli: build first" >&2; exit 1; }

# SECONDS and peak RSS (MB) of one run of a method
once() {
  rm -rf "$work/out" && mkdir -p "$work/out"
  local line
  line=$(/usr/bin/time -f '%e %M' "$cli" enlarge --method "$1" --size x4 --format jpeg \
    --quality 90 --out "$work/out" "$input" 2>&1 >/dev/null | tail -n 1)
  echo "${line% *} $((${line#* } / 1024))"
}

# Best of $runs each, interleaved so that a busy machine slows both alike.
exact="" clarity=""
for _ in $(seq "$runs"); do
  read -r e e_rss < <(once exact)
  read -r c c_rss < <(once clarity)
  if [ -z "$exact" ] || awk "BEGIN{exit !($e < $exact)}"; then exact=$e exact_rss=$e_rss; fi
  if [ -z "$clarity" ] || awk "BEGIN{exit !($c < $clarity)}"; then clarity=$c clarity_rss=$c_rss; fi
done

echo "input: $(basename "$input"), x4 to JPEG q90, best of $runs, $(nproc) cores"
printf '%-12s %7s s  %6s MB peak RSS\n' exact "$exact" "$exact_rss" clarity "$clarity" "$clarity_rss"
awk -v e="$exact" -v c="$clarity" -v er="$exact_rss" -v cr="$clarity_rss" \
  'BEGIN { printf "clarity costs %.2fx exact (goal <= 2.5); %d MB more memory (band budget 288 MB)\n", c / e, cr - er }'
echo "where clarity's time goes:"
rm -rf "$work/out" && mkdir -p "$work/out"
TARNBLOOM_TIMINGS=1 "$cli" enlarge --method clarity --size x4 --format jpeg --quality 90 \
  --out "$work/out" "$input" 2>&1 >/dev/null | sed 's/^/  /'
