#!/usr/bin/env bash
# Our Enhance inference against PyTorch on the same weights, in one run:
# seconds per 256 x 256 tile, the ratios, and the largest difference between
# the float32 answers (direct and Winograd) and torch's. Needs python3-torch
# (Debian) and the model that scripts/setup installs; TARNBLOOM_BUILD names
# another build folder.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
model="$here/models/realesr-general-x4v3.param"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
ours=$("${TARNBLOOM_BUILD:-$here/build}/bench/estimate_bench" "$model" --dump "$work")
echo "$ours"
# TARNBLOOM_TORCH_PYTHON: a Python that has torch, when the system one has not.
theirs=$(OMP_NUM_THREADS=2 "${TARNBLOOM_TORCH_PYTHON:-/usr/bin/python3}" "$here/bench/estimate_torch.py" "$model" "$work")
echo "$theirs" | grep -v '^torch-best'
torch=$(echo "$theirs" | awk '/^torch-best/ {print $2}')
for precision in fp32 winograd bf16; do
  seconds=$(echo "$ours" | awk -v p="$precision:" '$1 == p {print $2}')
  [ -n "$seconds" ] && awk -v o="$seconds" -v t="$torch" -v p="$precision" \
    'BEGIN {printf "%s: %.2fx PyTorch'"'"'s best layout (goal: fp32 >= 1x, winograd and bf16 >= 2x)\n", p, t / o}'
done
