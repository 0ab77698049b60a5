#!/usr/bin/env python3
"""Writes a reproducible corpus for the scan benchmark.

Realistic mix: mostly small files, a tail of large ones, about a quarter of all
files are copies (some beside the original, most in other folders), and many
same-size files with different contents so that sizes alone do not decide.
"""
import argparse
import os
import random


def size_of(rng):
    r = rng.random()
    if r < 0.75:
        return rng.randint(200, 8 * 1024)
    if r < 0.97:
        return rng.randint(8 * 1024, 64 * 1024)
    if r < 0.998:
        return rng.randint(64 * 1024, 1024 * 1024)
    return rng.randint(1024 * 1024, 8 * 1024 * 1024)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("root")
    ap.add_argument("--files", type=int, default=100_000)
    ap.add_argument("--dup-ratio", type=float, default=0.25)
    ap.add_argument("--seed", type=int, default=7)
    args = ap.parse_args()

    rng = random.Random(args.seed)
    os.makedirs(args.root, exist_ok=True)
    folders = []
    for a in range(40):
        for b in range(25):
            folders.append(os.path.join(args.root, f"album{a:02d}", f"set{b:02d}"))
    for f in folders:
        os.makedirs(f, exist_ok=True)

    originals = []
    unique_count = int(args.files * (1 - args.dup_ratio))
    exts = ["jpg", "png", "txt", "pdf", "mp3", "dat", "docx", "mkv"]
    block = os.urandom(1 << 20)
    for i in range(unique_count):
        size = size_of(rng)
        folder = folders[rng.randrange(len(folders))]
        path = os.path.join(folder, f"file{i:06d}.{exts[i % len(exts)]}")
        # A unique prefix, then shared random bytes: cheap to write, distinct per file.
        head = f"{i:012d}".encode()
        off = rng.randrange(0, len(block) - 1)
        body = (block[off:] + block[:off])
        data = head + (body * (size // len(body) + 1))[: max(0, size - len(head))]
        with open(path, "wb") as fh:
            fh.write(data[:size])
        originals.append(path)

    for j in range(args.files - unique_count):
        src = originals[rng.randrange(len(originals))]
        if rng.random() < 0.2:
            dst = os.path.join(os.path.dirname(src), f"copy{j:06d}_" + os.path.basename(src))
        else:
            dst = os.path.join(folders[rng.randrange(len(folders))], f"copy{j:06d}_" + os.path.basename(src))
        with open(src, "rb") as a, open(dst, "wb") as b:
            b.write(a.read())


if __name__ == "__main__":
    main()
