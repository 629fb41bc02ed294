#!/usr/bin/env bash
# A whole photo at x4 with Enhance: `tarnbloom enlarge --method enhance` to
# PNG against PyTorch running the same network over the same tile grid and
# writing its PNG (bench/estimate_torch_photo.py), in one run, alternating
# for ROUNDS rounds (default 3; a shared machine's speed drifts by a fifth
# between minutes). Prints each round, the medians and their ratio. Ours is timed from the
# command to the exported file (decode, model load, inference, the Exact
# render and blend at the default strength, encode, receipt) with the
# instance already started; its peak is the instance's.
#
# Input: samples/rocket.jpg scaled to WIDTH x HEIGHT with grain (default
# 1600 x 1080, 1.73 megapixels), JPEG at quality 92. Needs the model
# (scripts/setup) and a Python with torch (python3-torch, or name one in
# TARNBLOOM_TORCH_PYTHON); TARNBLOOM_BUILD names another build folder.
#
#   bench/enhance_vs_torch.sh [WIDTH HEIGHT [ROUNDS]]
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${TARNBLOOM_BUILD:-$here/build}
cli=$build/cli/tarnbloom
model=$here/models/realesr-general-x4v3.param
width=${1:-1600}
height=${2:-1080}
rounds=${3:-3}
command -v /usr/bin/time >/dev/null || { echo "missing /usr/bin/time: run scripts/setup" >&2; exit 1; }
[ -f "$model" ] || { echo "missing $model: run scripts/setup" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/out" "$work/run"
chmod 700 "$work/run"
"$build/bench/bench_photo" "$work/photo.jpg" "$width" "$height" "$work/photo.rgb"

# One round of ours: prints "SECONDS PEAK-MIB".
ours() {
  rm -rf "$work/out" "$work/home" "$work/run"
  mkdir -p "$work/out" "$work/run"
  chmod 700 "$work/run"
  (
    export TARNBLOOM_HOME="$work/home" XDG_RUNTIME_DIR="$work/run"
    /usr/bin/time -f '%M' -o "$work/ours.time" "$cli" service --until-idle &
    for _ in $(seq 200); do [ -n "$(ls "$work/run/tarnbloom" 2>/dev/null)" ] && break; sleep 0.05; done
    start=$(date +%s.%N)
    "$cli" enlarge "$work/photo.jpg" --out "$work/out" --size x4 --method enhance --format png >"$work/ours.log" 2>&1 ||
      { cat "$work/ours.log" >&2; exit 1; }
    end=$(date +%s.%N)
    wait
    [ "$(find "$work/out" -name '*.png' | wc -l)" -eq 1 ] || { echo "ours: no PNG exported" >&2; exit 1; }
    awk -v s="$start" -v e="$end" -v k="$(cat "$work/ours.time")" 'BEGIN { printf "%.2f %d\n", e - s, k / 1024 }'
  )
}

median() { sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

: >"$work/rounds"
for round in $(seq "$rounds"); do
  read -r ours_seconds ours_mib < <(ours)
  theirs=$(OMP_NUM_THREADS=2 "${TARNBLOOM_TORCH_PYTHON:-/usr/bin/python3}" "$here/bench/estimate_torch_photo.py" \
    "$model" "$work/photo.rgb" "$width" "$height" "$work/torch.png")
  read -r _ torch_seconds tiles torch_mib < <(echo "$theirs" | grep '^torch-photo')
  printf 'round %d: ours %s s (%s MiB), torch %s s (%s MiB)\n' "$round" "$ours_seconds" "$ours_mib" \
    "$torch_seconds" "$torch_mib"
  echo "$ours_seconds $ours_mib $torch_seconds $torch_mib" >>"$work/rounds"
done
ours_seconds=$(cut -d' ' -f1 "$work/rounds" | median)
ours_mib=$(cut -d' ' -f2 "$work/rounds" | sort -n | tail -1)
torch_seconds=$(cut -d' ' -f3 "$work/rounds" | median)
torch_mib=$(cut -d' ' -f4 "$work/rounds" | sort -n | tail -1)

printf '%s x %s to %s x %s PNG, %s tiles of 256\n' "$width" "$height" $((width * 4)) $((height * 4)) "$tiles"
printf '%-8s %10s %10s\n' "" "median s" "peak MiB"
printf '%-8s %10s %10s\n' ours "$ours_seconds" "$ours_mib" torch "$torch_seconds" "$torch_mib"
awk -v o="$ours_seconds" -v t="$torch_seconds" -v m="$ours_mib" \
  'BEGIN { printf "ours is %.2fx PyTorch over the same tiles (goal >= 2x); peak %d MiB (goal < 400)\n", t / o, m }'
