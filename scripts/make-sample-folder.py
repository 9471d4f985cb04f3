#!/usr/bin/env python3
"""Makes a folder of sample files, the same at every call.

    make-sample-folder.py FOLDER [EXTRA]...

The sizes lie around the places where transfers of files go wrong; the contents are pseudo-random,
so no two pieces of a file are alike. Some pictures are there to be looked at. Each EXTRA, a folder,
is copied into it.
"""

import pathlib
import random
import shutil
import sys

sys.dont_write_bytecode = True  # the checkout may be read-only

import pictures  # noqa: E402  (after the line above)

KIB, MIB = 1 << 10, 1 << 20

FILES = {
    "sizes/empty.bin": 0,
    "sizes/1 byte.bin": 1,
    "sizes/one less than a page.bin": 4 * KIB - 1,
    "sizes/one page.bin": 4 * KIB,
    "sizes/one more than a page.bin": 4 * KIB + 1,
    "sizes/64 KiB.bin": 64 * KIB,
    "sizes/1 MiB.bin": MIB,
    "sizes/one less than 4 MiB.bin": 4 * MIB - 1,
    "sizes/4 MiB.bin": 4 * MIB,
    "sizes/one more than 4 MiB.bin": 4 * MIB + 1,
    "sizes/10 MiB.bin": 10 * MIB,
    "names/Äpfel & Birnen.txt": 700,
    "names/写真 2024.jpg": 90 * KIB,
    "names/🍎/naïve café.bin": 12 * KIB,
    "video.bin": 64 * MIB,
}


def main():
    folder = pathlib.Path(sys.argv[1])
    for seed, (name, size) in enumerate(FILES.items()):
        path = folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(random.Random(seed).randbytes(size))
    (folder / "pictures").mkdir(exist_ok=True)
    pictures.draw_samples(folder / "pictures")
    for extra in map(pathlib.Path, sys.argv[2:]):
        shutil.copytree(extra, folder / extra.name, copy_function=shutil.copyfile)


if __name__ == "__main__":
    main()
