"""What the tests read in a Windows image (PE32+): its sections, exports, protections and symbols."""

import struct
import uuid
from dataclasses import dataclass
from pathlib import Path

EXPORTS, DEBUG, LOAD_CONFIG = 0, 6, 10  # directories
DEBUG_CODEVIEW, DEBUG_EX_CHARACTERISTICS = 2, 20  # entries of the debug directory

DLL_CHARACTERISTICS = {
    "high-entropy addresses": 0x0020,
    "dynamic base": 0x0040,
    "no execution of data": 0x0100,
    "Control Flow Guard": 0x4000,
}
CET_COMPAT = 0x1  # in the extended characteristics
GUARD_INSTRUMENTED, GUARD_TABLE_PRESENT = 0x100, 0x400


@dataclass
class Section:
    name: str
    address: int  # relative to the image's base, as all addresses here
    size: int
    offset: int  # in the file
    length: int  # in the file


class Image:
    def __init__(self, path):
        self.path = Path(path)
        self.data = self.path.read_bytes()
        (self._header,) = self._read("<I", 0x3C)
        if self.data[:2] != b"MZ" or self.data[self._header : self._header + 4] != b"PE\0\0":
            raise ValueError(f"{path} is no Windows image")
        count, optional_size = self._read("<2xH12xH", self._header + 4)
        self.optional_header = self._header + 24
        if self._read("<H", self.optional_header) != (0x20B,):
            raise ValueError(f"{path} is no 64-bit image")
        (self.base,) = self._read("<Q", self.optional_header + 24)
        (self.characteristics,) = self._read("<H", self.optional_header + 70)
        self.sections = [
            self._section(self.optional_header + optional_size + 40 * i) for i in range(count)
        ]

    def _read(self, layout, offset):
        return struct.unpack_from(layout, self.data, offset)

    def _section(self, offset):
        name, size, address, length, start = self._read("<8sIIII", offset)
        return Section(name.rstrip(b"\0").decode(), address, size, start, length)

    def offset_of(self, address):
        for section in self.sections:
            if section.address <= address < section.address + section.length:
                return section.offset + address - section.address
        raise ValueError(f"{self.path} has no bytes at {address:#x}")

    def read_at(self, layout, address):
        return self._read(layout, self.offset_of(address))

    def text_at(self, address):
        start = self.offset_of(address)
        return self.data[start : self.data.index(b"\0", start)].decode()

    def directory(self, index):
        """Address and size; 0, 0 if there is none."""
        return self._read("<II", self.directory_entry(index))

    def directory_entry(self, index):
        """Where in the file the directory's address and size stand."""
        return self.optional_header + 112 + 8 * index

    def exports(self):
        """The address of each export with a name."""
        address, size = self.directory(EXPORTS)
        if not size:
            return {}
        count, functions, names, ordinals = self.read_at("<24xIIII", address)
        found = {}
        for i in range(count):
            (name,) = self.read_at("<I", names + 4 * i)
            (ordinal,) = self.read_at("<H", ordinals + 2 * i)
            (found[self.text_at(name)],) = self.read_at("<I", functions + 4 * ordinal)
        return found

    def count_of_functions(self):
        """Exports with a name or without."""
        address, size = self.directory(EXPORTS)
        return self.read_at("<20xI", address)[0] if size else 0

    def _debug_entries(self, kind):
        address, size = self.directory(DEBUG)
        for entry in range(address, address + size, 28):
            found, length, data = self.read_at("<12xIII", entry)
            if found == kind:
                yield data, length

    def is_cet_compatible(self):
        return any(
            self.read_at("<I", data)[0] & CET_COMPAT
            for data, _ in self._debug_entries(DEBUG_EX_CHARACTERISTICS)
        )

    def symbol_file(self):
        """The identifier, age and name of the .pdb file that the image names; or None."""
        for data, _ in self._debug_entries(DEBUG_CODEVIEW):
            signature, guid, age = self.read_at("<4s16sI", data)
            if signature == b"RSDS":
                name = self.text_at(data + 24) if self.read_at("<B", data + 24)[0] else ""
                return str(uuid.UUID(bytes_le=guid)).upper(), age, name
        return None

    def guard(self):
        """Control Flow Guard's flags and table, or (0, []): the addresses that may be called."""
        address, size = self.directory(LOAD_CONFIG)
        if not size or self.read_at("<I", address)[0] < 0x94:
            return 0, []
        table, count, flags = self.read_at("<QQI", address + 0x80)
        step = 4 + (flags >> 28)
        first = table - self.base
        return flags, [self.read_at("<I", first + step * i)[0] for i in range(count)]
