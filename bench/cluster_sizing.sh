#!/usr/bin/env bash
# Sizing a catalogue run: CPU seconds per photo and peak memory of the
# instance that renders, for Exact, Clarity and Enhance, one thread each
# (OMP_NUM_THREADS=1), as one task of a cluster array spends them. CPU time
# rather than wall time, so a busy machine moves the figures less; the
# ratios to Exact in the same run compare across machines.
#
# Input: bench/data/retina.jpg, 1411 x 1411 (2.0 megapixels), a CC0
# photograph shipped by Debian's python3-skimage, enlarged x2 to JPEG at
# quality 90. Enhance needs the model (scripts/fetch-model).
#
#   bench/cluster_sizing.sh [PHOTOS] [METHODS]   (default 4 photos; "exact clarity enhance")
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cli=${TARNBLOOM_CLI:-$here/build/cli/tarnbloom}
input=${BENCH_INPUT:-$here/bench/data/retina.jpg}
photos=${1:-4}
methods=${2:-exact clarity enhance}
command -v /usr/bin/time >/dev/null || { echo "missing /usr/bin/time: run scripts/setup" >&2; exit 1; }

# Prints "CPU-SECONDS-PER-PHOTO PEAK-MIB" for one method.
measure() {
  local method=$1 work
  work=$(mktemp -d)
  mkdir -p "$work/in" "$work/run"
  chmod 700 "$work/run"
  for i in $(seq "$photos"); do cp "$input" "$work/in/photo-$i.jpg"; done
  (
    export TARNBLOOM_HOME="$work/home" XDG_RUNTIME_DIR="$work/run" OMP_NUM_THREADS=1
    # The instance renders; run it here, so its CPU time and memory are ours
    # to read. The command line only hands it the batch.
    /usr/bin/time -f '%U %S %M' -o "$work/time" "$cli" service --until-idle &
    for _ in $(seq 100); do [ -n "$(ls "$work/run/tarnbloom" 2>/dev/null)" ] && break; sleep 0.05; done
    "$cli" enlarge "$work/in" --out "$work/out" --size x2 --method "$method" --format jpeg \
      --quality 90 >"$work/log" 2>&1 || true
    wait
  )
  [ "$(find "$work/out" -name '*.jpg' | wc -l)" -eq "$photos" ] ||
    { echo "$method: not every photo was exported:" >&2; cat "$work/log" >&2; rm -rf "$work"; return 1; }
  awk -v n="$photos" '{ printf "%.2f %d\n", ($1 + $2) / n, $3 / 1024 }' "$work/time"
  rm -rf "$work"
}

printf '%-8s %14s %16s %10s %12s\n' method "CPU s/photo" "photos/core-hour" "vs exact" "peak MiB"
exact=""
for method in $methods; do
  read -r seconds mib < <(measure "$method")
  [ -n "$exact" ] || exact=$seconds
  awk -v m="$method" -v s="$seconds" -v e="$exact" -v r="$mib" \
    'BEGIN { printf "%-8s %14.2f %16d %10.1f %12d\n", m, s, 3600 / s, s / e, r }'
done
