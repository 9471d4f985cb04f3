"""The sample folder's pictures, drawn in plain Python."""

import math
import pathlib
import struct
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests" / "e2e"))

from harness.images import Image, write_png  # noqa: E402  (needs the path above)

# Files


def png(path, image):
    write_png(path, image, "rgb" if len(image.pixels[0]) == 3 else "rgba")


def bmp(path, image):
    """With 24 bits, from the bottom to the top."""
    size = image.width * 3
    bottom_up = bytearray()
    for start in range((image.height - 1) * image.width, -1, -image.width):
        row = image.pixels[start : start + image.width]
        bottom_up += bytes(value for pixel in row for value in pixel[::-1]) + bytes(-size % 4)
    header = struct.pack("<IiiHHIIiiII", 40, image.width, image.height, 1, 24, 0, 0, 0, 0, 0, 0)
    file_header = struct.pack("<2sIHHI", b"BM", 54 + len(bottom_up), 0, 0, 54)
    path.write_bytes(file_header + header + bottom_up)


def gif(path, image):
    """With a palette of at most 128 colours. The code table is cleared before it would grow, so
    that each pixel is a code of 8 bits."""
    clear, end, most = 128, 129, 120
    palette = sorted(set(image.pixels))
    places = {colour: place for place, colour in enumerate(palette)}
    codes = bytearray()
    for start in range(0, len(image.pixels), most):
        codes.append(clear)
        codes += bytes(places[pixel] for pixel in image.pixels[start : start + most])
    codes.append(end)
    size = struct.pack("<HH", image.width, image.height)
    colours = b"".join(map(bytes, palette)).ljust(3 * 128, b"\0")
    data = b"GIF89a" + size + b"\xf6\0\0" + colours + b"\x2c" + bytes(4) + size + b"\0\x07"
    for start in range(0, len(codes), 255):
        block = codes[start : start + 255]
        data += bytes([len(block)]) + block
    path.write_bytes(data + b"\0\x3b")


# What there is to see


def mix(one, other, part):
    return tuple(round(a + (b - a) * min(max(part, 0), 1)) for a, b in zip(one, other))


def drawn(width, height, colour):
    places = ((x / width, y / height) for y in range(height) for x in range(width))
    return Image(width, height, [colour(x, y) for x, y in places])


def sunset():
    """A sun over the sea."""

    def colour(x, y):
        if y < 0.62:
            sky = mix((36, 30, 84), (250, 140, 80), y / 0.62)
            distance = math.hypot((x - 0.62) * 1.6, y - 0.5) - 0.11
            glow = min(60 * distance, 0.3 + 3 * distance)
            return mix((255, 236, 170), sky, glow)
        depth = (y - 0.62) / 0.38
        glitter = math.sin(90 * depth**0.6) * math.cos(40 * x + 9 * depth)
        path = math.exp(-(((x - 0.62) / (0.06 + 0.2 * depth)) ** 2))
        return mix(mix((190, 100, 90), (20, 26, 60), depth), (255, 214, 150), path * (0.5 + glitter))

    return drawn(480, 300, colour)


def fractal():
    """The Mandelbrot set."""

    def colour(x, y):
        point, value = complex(-2.15 + 2.9 * x, -1.1 + 2.2 * y), 0j
        for count in range(48):
            if abs(value) > 8:
                shade = (count - math.log2(math.log2(abs(value)))) / 20
                return mix((12, 20, 70), (255, 226, 150), max(shade, 0) ** 0.8)
            value = value * value + point
        return (8, 8, 18)

    return drawn(360, 270, colour)


def plasma():
    def colour(x, y):
        value = math.sin(9 * x + 3 * y) + math.sin(11 * math.hypot(x - 0.3, y - 0.6))
        return tuple(round(127.5 + 127.5 * math.sin(1.7 * value + phase)) for phase in (0, 2.1, 4.2))

    return drawn(320, 320, colour)


def chart(width=400, height=260):
    """Bars on a grid."""
    heights = [0.22, 0.35, 0.3, 0.48, 0.62, 0.55, 0.78, 0.9]

    def colour(x, y):
        bar, inside = divmod(x * 9 - 0.5, 1)
        if 0 <= bar < 8 and 0.14 < inside < 0.86 and 1 - heights[int(bar)] * 0.9 < y < 0.95:
            return ((66, 133, 190), (240, 150, 60))[int(bar) == 7]
        if 0.95 <= y < 0.96:
            return (120, 120, 130)
        return (226, 228, 234) if y * 8 % 1 < 0.04 else (250, 250, 252)

    return drawn(width, height, colour)


def rings():
    """Rings that fade into nothing."""

    def colour(x, y):
        distance = math.hypot(x - 0.5, y - 0.5)
        wave = 0.5 + 0.5 * math.cos(distance * 60)
        alpha = max(0, min(1, 1.35 - 2.7 * distance)) * wave
        return (*mix((20, 140, 120), (120, 60, 200), 2 * distance), round(255 * alpha))

    return drawn(300, 300, colour)


def tower():
    """Higher than it is wide."""

    def colour(x, y):
        row, column = int(y * 30), int(x * 5)
        if x < 0.12 or x > 0.88 or y < 0.06:
            return mix((120, 170, 220), (220, 232, 240), y)
        window = 0.2 < y * 30 % 1 < 0.8 and 0.2 < x * 5 % 1 < 0.8
        lit = (row * 7 + column * 13) % 5 < 2
        return ((70, 80, 96), (250, 220, 130))[lit] if window else (96, 84, 84)

    return drawn(120, 420, colour)


def icon():
    """Smaller than a thumbnail."""
    return drawn(
        32, 32, lambda x, y: (230, 70, 70) if abs(x - 0.5) + abs(y - 0.5) < 0.45 else (255, 244, 230)
    )


SAMPLES = {
    "sunset.png": (png, sunset),
    "fractal.png": (png, fractal),
    "plasma.bmp": (bmp, plasma),
    "chart.gif": (gif, chart),
    "rings.png": (png, rings),
    "tower.bmp": (bmp, tower),
    "icon.png": (png, icon),
    "ein Bild 画.gif": (gif, lambda: chart(200, 130)),
}


def draw_samples(folder):
    for name, (write, draw) in SAMPLES.items():
        write(folder / name, draw())
