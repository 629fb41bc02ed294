#!/usr/bin/python3
"""PyTorch's time for one 256 x 256 tile of the Enhance network, the peer
our oneDNN inference is measured against. Reads the same ncnn model files,
runs them with torch (2 threads) in channels-last and in NCHW, and, given
the input tile and our float32 outputs, direct and Winograd (raw float32,
planar RGB, written by `estimate_bench --dump DIR`), reports how far they
are from torch's.

usage: estimate_torch.py MODEL.param DUMP_DIR
"""
import struct
import sys
import time

import numpy as np
import torch
import torch.nn.functional as F

HALF_TAG = 0x01306B47


def read_model(param_path):
    bin_path = param_path[: -len(".param")] + ".bin"
    lines = open(param_path).read().split("\n")[2:]
    blob = open(bin_path, "rb").read()
    offset = 0

    def floats(count, tagged):
        nonlocal offset
        if tagged:
            (flag,) = struct.unpack_from("<I", blob, offset)
            offset += 4
            if flag == HALF_TAG:
                values = np.frombuffer(blob, np.float16, count, offset).astype(np.float32)
                offset += 2 * count
                offset += (-offset) % 4  # fp16 data is padded to 4 bytes
                return values
            assert flag == 0, "unknown weight flag"
        values = np.frombuffer(blob, np.float32, count, offset).copy()
        offset += 4 * count
        return values

    layers = []
    for line in lines:
        parts = line.split()
        if not parts:
            continue
        kind = parts[0]
        count_in, count_out = int(parts[2]), int(parts[3])
        keys = dict(p.split("=") for p in parts[4 + count_in + count_out:])
        if kind == "Convolution":
            out_channels, kernel, weights = int(keys["0"]), int(keys["1"]), int(keys["6"])
            in_channels = weights // (out_channels * kernel * kernel)
            w = floats(weights, True).reshape(out_channels, in_channels, kernel, kernel)
            b = floats(out_channels, False) if keys.get("5") == "1" else np.zeros(out_channels, np.float32)
            layers.append(("conv", torch.from_numpy(w), torch.from_numpy(b)))
        elif kind == "PReLU":
            layers.append(("prelu", torch.from_numpy(floats(int(keys["0"]), False))))
    return layers


def forward(layers, x, channels_last):
    body = x
    for layer in layers:
        if layer[0] == "conv":
            body = F.conv2d(body, layer[1], layer[2], padding=1)
        else:
            body = F.prelu(body, layer[1])
    out = F.pixel_shuffle(body, 4)
    return out + F.interpolate(x, scale_factor=4, mode="nearest")


def main():
    param, dump = sys.argv[1], sys.argv[2]
    torch.set_num_threads(2)
    layers = read_model(param)
    tile = np.fromfile(f"{dump}/input.f32", np.float32).reshape(1, 3, 256, 256)
    results = {}
    with torch.inference_mode():
        for name, channels_last in (("channels-last", True), ("nchw", False)):
            fmt = torch.channels_last if channels_last else torch.contiguous_format
            run = [(l[0], l[1].contiguous(memory_format=fmt), l[2]) if l[0] == "conv" else l for l in layers]
            x = torch.from_numpy(tile).contiguous(memory_format=fmt)
            out = forward(run, x, channels_last)
            best = 1e9
            for _ in range(3):
                start = time.perf_counter()
                out = forward(run, x, channels_last)
                best = min(best, time.perf_counter() - start)
            results[name] = best
            print(f"torch {name}: {best:.3f} s per tile")
        theirs = out[0].contiguous().numpy()
    for name in ("fp32", "winograd"):
        ours = np.fromfile(f"{dump}/{name}.f32", np.float32).reshape(3, 1024, 1024)
        diff = np.abs(np.clip(theirs, 0, 1) - np.clip(ours, 0, 1)) * 255
        print(f"ours ({name}) against torch: largest {diff.max():.4f}/255, mean {diff.mean():.5f}/255")
    print(f"torch-best {min(results.values()):.4f}")


if __name__ == "__main__":
    main()
