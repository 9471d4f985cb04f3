"""PNG files in plain Python, to make images of every kind and to look at what came back."""

import dataclasses
import random
import struct
import zlib

_SIGNATURE = b"\x89PNG\r\n\x1a\n"
_COLOUR_TYPES = {"gray": 0, "rgb": 2, "palette": 3, "rgba": 6}


@dataclasses.dataclass
class Image:
    width: int
    height: int
    pixels: list  # of (red, green, blue, alpha), row by row from the top

    def bgra(self):
        """The bytes that a 32-bit bitmap of it has."""
        data = bytearray(4 * len(self.pixels))
        for channel, values in zip((2, 1, 0, 3), zip(*self.pixels)):
            data[channel::4] = bytes(values)
        return bytes(data)

    def crc32(self):
        return zlib.crc32(self.bgra())


def any_image(width, height, kind="rgba", seed=0):
    """One that can be mistaken for no other, nor for itself turned or mirrored."""
    source = random.Random(f"{seed}:{width}:{height}:{kind}")
    count = width * height
    if kind == "rgba":
        values = source.randbytes(4 * count)
        pixels = list(zip(*(values[channel::4] for channel in range(4))))
    elif kind == "gray":
        pixels = [(value, value, value, 255) for value in source.randbytes(count)]
    else:
        colours = [(*source.randbytes(3), 255) for _ in range(200)]
        pixels = source.choices(colours, k=count)
    return Image(width, height, pixels)


def write_png(path, image, kind="rgba"):
    palette = list(dict.fromkeys(image.pixels)) if kind == "palette" else []
    if kind == "palette":
        places = {colour: place for place, colour in enumerate(palette)}
        data = bytes(places[pixel] for pixel in image.pixels)
    else:
        channels = {"gray": 1, "rgb": 3, "rgba": 4}[kind]
        data = bytes(value for pixel in image.pixels for value in pixel[:channels])
    header = struct.pack(
        ">IIBBBBB", image.width, image.height, 8, _COLOUR_TYPES[kind], 0, 0, 0
    )
    stride = len(data) // image.height
    rows = b"".join(
        b"\0" + data[start : start + stride] for start in range(0, len(data), stride)
    )
    chunks = [(b"IHDR", header)]
    if palette:
        chunks.append((b"PLTE", bytes(value for colour in palette for value in colour[:3])))
    chunks += [(b"IDAT", zlib.compress(rows)), (b"IEND", b"")]
    path.write_bytes(_SIGNATURE + b"".join(_chunk(*chunk) for chunk in chunks))


def _chunk(kind, data):
    return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))


def read_png(path):
    """An 8-bit RGBA image, as the thumbnail client writes it."""
    data = path.read_bytes()
    assert data.startswith(_SIGNATURE), f"{path} is no PNG file"
    at, header, packed = len(_SIGNATURE), None, b""
    while at < len(data):
        (length,) = struct.unpack_from(">I", data, at)
        kind, content = data[at + 4 : at + 8], data[at + 8 : at + 8 + length]
        if kind == b"IHDR":
            header = struct.unpack(">IIBBBBB", content)
        elif kind == b"IDAT":
            packed += content
        at += length + 12
    width, height, *form = header
    assert form == [8, _COLOUR_TYPES["rgba"], 0, 0, 0], f"{path} is of another kind: {form}"
    rows = _unfiltered(zlib.decompress(packed), 4 * width, height)
    return Image(width, height, list(zip(*(rows[channel::4] for channel in range(4)))))


def _unfiltered(data, stride, height):
    out, above = bytearray(), bytes(stride)
    for row in range(height):
        start = row * (stride + 1)
        kind, line = data[start], bytearray(data[start + 1 : start + 1 + stride])
        for place in range(stride):
            left = line[place - 4] if place >= 4 else 0
            corner = above[place - 4] if place >= 4 else 0
            line[place] = (line[place] + _predicted(kind, left, above[place], corner)) & 0xFF
        out += line
        above = bytes(line)
    return bytes(out)


def _predicted(kind, left, up, corner):
    if kind == 4:
        guess = left + up - corner
        return min((left, up, corner), key=lambda value: abs(guess - value))
    return (0, left, up, (left + up) // 2)[kind]
