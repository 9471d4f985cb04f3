"""A sync root as the tests see it: the folder, its source, and what the client did for it."""

import subprocess

from .content import content, sha256, write_content
from .wine import client_path, dos_path


class SyncRoot:
    """`name` is what the client calls it; the source is made when there is none yet."""

    def __init__(self, provider, path, session, name=None, source=None):
        self.name = name or path.name
        self.session = session
        self.path = path
        self.source = source or path.with_name(f"{path.name} source")
        self.source.mkdir(exist_ok=True)
        self.attach(provider)

    @classmethod
    def in_new_folder(cls, provider, path, session, source=None):
        path.mkdir()
        return cls(provider, path, session, source=source)

    def attach(self, provider):
        """Makes the sync root object, in this or in a restarted client."""
        self.provider = provider
        path = dos_path(self.path)
        assert self.status("newRoot", path=path, session=self.session) == 0
        assert self.status("serve", source=dos_path(self.source)) == 0

    # The client's side

    def call(self, command, timeout=30, **arguments):
        return self.provider.call(command, timeout, root=self.name, **arguments)

    def status(self, command, timeout=30, **arguments):
        return self.call(command, timeout, **arguments).status

    def serve(self, **rules):
        """Changes how fetches are answered: these rules, and the usual ones otherwise."""
        assert self.status("serve", defaults=1, **rules) == 0

    def bring_up(self):
        for command in ("register", "connect"):
            result = self.status(command)
            assert result == 0, f"{command} gave {result & 0xFFFFFFFF:#x}"

    def client_path(self, name):
        return client_path(self.path / name)

    def item(self, command, name, timeout=30, **arguments):
        """A command on one item of the root."""
        return self.provider.call(command, timeout, path=self.client_path(name), **arguments)

    def item_status(self, command, name, timeout=30, **arguments):
        return self.item(command, name, timeout, **arguments).status

    def state(self, name):
        """What the library says of an item: yes or no for each question, and the identity."""
        answer = self.item("state", name)
        questions = ("opened", "placeholder", "hydrated", "pinned", "excluded", "inSync")
        state = {question: answer.number(question) == 0 for question in questions}
        return {**state, "identity": answer["identity"]}

    def create(self, name, size, identity=None, seed=None, **more):
        """A source file and a placeholder for it; gives the content."""
        identity = name if identity is None else identity
        data = write_content(self.source / name, size, name if seed is None else seed)
        if identity != name:
            self.serve_from(identity, self.source / name)
        self.create_placeholder(name, size, identity, **more)
        return data

    def create_placeholder(self, name, size, identity, **more):
        status = self.item_status("create", name, identity=identity, size=size, **more)
        assert status == 0, f"the placeholder {name} could not be created"

    def create_folder(self, name, identity=None):
        status = self.item_status("create", name, identity=identity or name, size=0, type=1)
        assert status == 0, f"the folder {name} could not be created"

    def serve_from(self, identity, path):
        assert self.status("content", identity=identity, path=dos_path(path)) == 0

    # The programs' side

    def read(self, name, timeout=30):
        """The content, as an ordinary Linux program reads it."""
        return subprocess.run(
            ["cat", self.path / name], stdout=subprocess.PIPE, timeout=timeout, check=True
        ).stdout

    def start_reading(self, name):
        return subprocess.Popen(
            ["cat", self.path / name], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE
        )

    def reading_fails(self, name, timeout=30):
        """Reads a file that cannot be had; gives the program's complaint, or None if it could."""
        result = subprocess.run(["cat", self.path / name], capture_output=True, timeout=timeout)
        return result.stderr.decode() if result.returncode != 0 else None

    def bytes_on_disk(self, name):
        return (self.path / name).stat().st_blocks * 512

    def holds(self, name, data):
        return sha256(self.read(name)) == sha256(data)


def expected_content(name, size):
    """What SyncRoot.create() writes for a name."""
    return content(size, name)
