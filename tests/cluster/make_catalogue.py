"""Writes a small photo catalogue for the cluster test: distinct PNG photos
in a few folders, JPEG copies of a sample, and the hostile files a real
catalogue collects. Prints the good photos' paths relative to the folder.

    make_catalogue.py FOLDER COUNT SAMPLE_JPEG
"""
import os
import struct
import sys
import zlib


def png(path, width, height, seed):
    # Smooth gradients, different per photo: each has its own source hash.
    rows = bytearray()
    for y in range(height):
        rows.append(0)
        for x in range(width):
            rows += bytes(((x * 255 // width + seed * 7) % 256, (y * 255 // height) % 256,
                           (seed * 37) % 256))

    def chunk(kind, data):
        body = kind + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body))

    with open(path, "wb") as out:
        out.write(b"\x89PNG\r\n\x1a\n")
        out.write(chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)))
        out.write(chunk(b"IDAT", zlib.compress(bytes(rows), 6)))
        out.write(chunk(b"IEND", b""))


def main():
    folder, count, sample = sys.argv[1], int(sys.argv[2]), sys.argv[3]
    good = []
    for i in range(count):
        relative = os.path.join("set-%d" % (i % 3), "photo-%03d.png" % i) if i % 2 else "photo-%03d.png" % i
        os.makedirs(os.path.dirname(os.path.join(folder, relative)), exist_ok=True)
        png(os.path.join(folder, relative), 160, 120, i)
        good.append(relative)
    with open(sample, "rb") as f:
        jpeg = f.read()
    for i in range(2):
        relative = "sample-%d.jpg" % i
        with open(os.path.join(folder, relative), "wb") as out:
            out.write(jpeg)
        good.append(relative)
    # A shot list saved with a photo's extension: not an image at all.
    with open(os.path.join(folder, "shot-list.jpg"), "w") as out:
        out.write("front, back, detail\n")
    # An empty file where a PNG was meant to be.
    open(os.path.join(folder, "empty.png"), "wb").close()
    # A JPEG cut off half-way, as an interrupted copy leaves it.
    with open(os.path.join(folder, "set-1", "truncated.jpg"), "wb") as out:
        out.write(jpeg[: len(jpeg) // 2])
    print("\n".join(sorted(good)))


main()
