#!/usr/bin/env python3
"""Packs a folder into a zip that is the same whenever and wherever it is made again.

    pack.py FOLDER ZIP

The folder's name is the first part of all names in the zip. Dates are that of SOURCE_DATE_EPOCH, or
else the first one that a zip can hold.
"""

import os
import pathlib
import sys
import time
import zipfile

FIRST_DATE = (1980, 1, 1, 0, 0, 0)
REGULAR_FILE = 0o100644


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__.strip())
    folder, target = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
    epoch = os.environ.get("SOURCE_DATE_EPOCH")
    date = max(FIRST_DATE, time.gmtime(int(epoch))[:6]) if epoch else FIRST_DATE
    with zipfile.ZipFile(target, "w") as archive:
        for file in sorted(path for path in folder.rglob("*") if path.is_file()):
            entry = zipfile.ZipInfo(file.relative_to(folder.parent).as_posix(), date)
            entry.external_attr = REGULAR_FILE << 16
            archive.writestr(entry, file.read_bytes(), zipfile.ZIP_DEFLATED, 9)


if __name__ == "__main__":
    main()
