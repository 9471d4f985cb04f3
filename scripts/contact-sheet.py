#!/usr/bin/env python3
"""Puts pictures next to each other into one, numbered, and says which is which.

    contact-sheet.py SHEET PICTURE...

All are PNG files. A number and a hyphen before a picture's name are not said.
"""

import pathlib
import re
import sys

sys.dont_write_bytecode = True  # the checkout may be read-only
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests" / "e2e"))

from harness.images import Image, read_png, write_png  # noqa: E402  (needs the path above)

COLUMNS, CELL, MARGIN, DOT = 4, 256, 16, 4
PAPER, INK = (250, 250, 250), (90, 90, 100)
CHECKS = ((236, 236, 240), (216, 216, 222))  # seen through what is transparent
# The rows of each digit, from the top: three dots, as the bits of a number.
DIGITS = "75557 26227 71747 71717 55711 74717 74757 71122 75757 75717".split()


class Sheet:
    def __init__(self, count):
        columns, self.step = min(count, COLUMNS), CELL + MARGIN
        self.width = columns * self.step + MARGIN
        self.row_height = self.step + 7 * DOT
        self.height = -(-count // COLUMNS) * self.row_height + MARGIN
        self.pixels = [PAPER] * (self.width * self.height)

    def put(self, x, y, colour):
        self.pixels[y * self.width + x] = colour

    def add(self, index, picture):
        row, column = divmod(index, COLUMNS)
        left, top = MARGIN + column * self.step, MARGIN + row * self.row_height
        self.write(left, top, str(index + 1))
        x0 = left + (CELL - picture.width) // 2
        y0 = top + 7 * DOT + (CELL - picture.height) // 2
        for place, (*colour, alpha) in enumerate(picture.pixels):
            y, x = divmod(place, picture.width)
            below = CHECKS[(x // 8 + y // 8) % 2]
            mixed = ((c * alpha + b * (255 - alpha)) // 255 for c, b in zip(colour, below))
            self.put(x0 + x, y0 + y, tuple(mixed))

    def write(self, left, top, number):
        for position, digit in enumerate(number):
            for y in range(5 * DOT):
                for x in range(3 * DOT):
                    if int(DIGITS[int(digit)][y // DOT]) & 4 >> x // DOT:
                        self.put(left + position * 4 * DOT + x, top + y, INK)


def main():
    paths = [pathlib.Path(name) for name in sys.argv[2:]]
    sheet = Sheet(len(paths))
    for index, path in enumerate(paths):
        picture = read_png(path)
        if max(picture.width, picture.height) > CELL:
            sys.exit(f"contact-sheet: '{path}' is larger than {CELL} x {CELL}")
        sheet.add(index, picture)
        name = re.sub(r"^\d+-", "", path.stem)
        print(f"{index + 1:2}  {name}  {picture.width} x {picture.height}")
    write_png(pathlib.Path(sys.argv[1]), Image(sheet.width, sheet.height, sheet.pixels), "rgb")


if __name__ == "__main__":
    main()
