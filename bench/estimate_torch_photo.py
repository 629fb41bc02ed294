#!/usr/bin/python3
"""PyTorch enhancing a whole photo on the same tile grid as ours, the peer
of bench/enhance_vs_torch.sh: 256 x 256 inputs at origins -16 + 192 k with
the edge samples repeated, the x4 outputs feathered over 128 pixels towards
inner tile edges, and the estimate written as an 8-bit PNG at zlib level 1
(OpenCV's default, the fastest). Torch runs 2 threads in channels-last, its
faster layout here. Timed from reading the pixels (model loading included,
as ours includes it) to the PNG on disk.

usage: estimate_torch_photo.py MODEL.param RAW WIDTH HEIGHT OUT.png
prints: torch-photo SECONDS TILES PEAK-MIB
"""
import resource
import struct
import sys
import time
import zlib

import numpy as np
import torch

from estimate_torch import forward, read_model

TILE, STRIDE, CONTEXT, FEATHER, SCALE = 256, 192, 16, 128, 4


def origins(length):
    n = (length - 33) // STRIDE if length > 33 else 0
    return [-CONTEXT + STRIDE * k for k in range(n + 1)]


def ramp(origin, length):
    """Feather weights along one side of a tile's output: they rise over
    128 pixels from an edge that lies inside the image."""
    out = TILE * SCALE
    i = np.arange(out)
    distance = np.full(out, FEATHER)
    if origin > 0:
        distance = np.minimum(distance, i)
    if origin + TILE < length:
        distance = np.minimum(distance, out - 1 - i)
    return np.clip((distance + 1) / FEATHER, 1e-3, 1.0).astype(np.float32)


def write_png(path, rgb):
    height, width, _ = rgb.shape
    rows = np.zeros((height, 1 + width * 3), np.uint8)
    rows[:, 1:] = rgb.reshape(height, -1)

    def chunk(kind, data):
        body = kind + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body))

    with open(path, "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n")
        f.write(chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)))
        f.write(chunk(b"IDAT", zlib.compress(rows.tobytes(), 1)))
        f.write(chunk(b"IEND", b""))


def main():
    param, raw, width, height, out_path = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4]), sys.argv[5]
    torch.set_num_threads(2)
    start = time.perf_counter()
    layers = read_model(param)
    layers = [(l[0], l[1].contiguous(memory_format=torch.channels_last), l[2]) if l[0] == "conv" else l for l in layers]
    image = np.fromfile(raw, np.uint8).reshape(height, width, 3)
    out_w, out_h = width * SCALE, height * SCALE
    total = np.zeros((out_h, out_w, 3), np.float32)
    weight = np.zeros((out_h, out_w, 1), np.float32)
    tiles = 0
    with torch.inference_mode():
        for oy in origins(height):
            ys = np.clip(np.arange(oy, oy + TILE), 0, height - 1)
            wy = ramp(oy, height)
            for ox in origins(width):
                xs = np.clip(np.arange(ox, ox + TILE), 0, width - 1)
                tile = image[np.ix_(ys, xs)].astype(np.float32) / 255
                x = torch.from_numpy(tile.transpose(2, 0, 1)[None].copy()).contiguous(
                    memory_format=torch.channels_last)
                y = forward(layers, x, True)[0].permute(1, 2, 0).numpy()
                w = np.minimum.outer(wy, ramp(ox, width))[:, :, None]
                y0, x0 = oy * SCALE, ox * SCALE
                top, left = max(0, -y0), max(0, -x0)
                bottom, right = min(TILE * SCALE, out_h - y0), min(TILE * SCALE, out_w - x0)
                region = (slice(y0 + top, y0 + bottom), slice(x0 + left, x0 + right))
                total[region] += y[top:bottom, left:right] * w[top:bottom, left:right]
                weight[region] += w[top:bottom, left:right]
                tiles += 1
    rgb = np.clip(np.rint(total / weight * 255), 0, 255).astype(np.uint8)
    write_png(out_path, rgb)
    seconds = time.perf_counter() - start
    peak = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024
    print(f"torch-photo {seconds:.2f} {tiles} {peak:.0f}")


if __name__ == "__main__":
    main()
