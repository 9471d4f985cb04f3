"""File content that a test can make again to compare with."""

import hashlib
import random

_BLOCK = 1 << 20


def content(size, seed=0):
    """`size` bytes that are the same for the same seed and hard to mistake for other bytes."""
    return random.Random(f"{seed}:{size}").randbytes(size)


def write_content(path, size, seed=0):
    data = content(size, seed)
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(data)
    return data


def write_big_content(path, size):
    """Content of any size, quickly: numbered copies of one block."""
    block = content(_BLOCK - 8, "big")
    with open(path, "wb") as file:
        for number in range(size // _BLOCK):
            file.write(number.to_bytes(8, "little") + block)
        file.write(block[: size % _BLOCK])


def sha256(data):
    return hashlib.sha256(data).hexdigest()


def sha256_of_file(path):
    with open(path, "rb") as file:
        return hashlib.file_digest(file, "sha256").hexdigest()
