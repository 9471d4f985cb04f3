"""Where the built pieces are. run.py fills this in from its command line."""

import dataclasses
import pathlib


@dataclasses.dataclass
class Settings:
    files: list = dataclasses.field(default_factory=list)
    daemon: pathlib.Path | None = None
    scripts: pathlib.Path | None = None
    work: pathlib.Path | None = None

    def file(self, name):
        for path in self.files:
            if path.name == name:
                return path
        raise RuntimeError(f"{name} is not among the files under test: pass it with --file")


SETTINGS = Settings()
