"""A Windows program of the suite, driven line by line over its standard streams."""

import os
import signal
import subprocess
import threading
import time
import urllib.parse

from .waiting import wait_until


class Message(dict):
    """The arguments of one line, as texts."""

    def number(self, name):
        return int(self[name])

    @property
    def status(self):
        return self.number("status")

    def matches(self, wanted):
        return all(self.get(name) == str(value) for name, value in wanted.items())


def _encode(arguments):
    return "".join(
        f"\t{name}={urllib.parse.quote(str(int(value) if isinstance(value, bool) else value))}"
        for name, value in arguments.items()
    )


def _decode(words):
    pairs = (word.split("=", 1) for word in words)
    return Message((name, urllib.parse.unquote(value)) for name, value in pairs)


class Pending:
    """The answer that a command will give."""

    def __init__(self, program, what):
        self._program = program
        self._what = what
        self._arrived = threading.Event()
        self._answer = None

    def deliver(self, answer):
        self._answer = answer
        self._arrived.set()

    def done(self):
        return self._answer is not None

    def answered(self):
        """Whether the answer has come, or the program has ended without it."""
        return self._arrived.is_set()

    def result(self, timeout=30):
        if not self._arrived.wait(timeout):
            raise AssertionError(f"no answer within {timeout} s to: {self._what}")
        if self._answer is None:
            raise AssertionError(f"the program ended before it answered: {self._what}")
        return self._answer


class Program:
    def __init__(self, command, environment, log):
        self._log = open(log, "ab")
        self.process = subprocess.Popen(
            command,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=self._log,
            env=environment,
            start_new_session=True,
        )
        self._lock = threading.Lock()
        self._events = []
        self._pending = {}
        self._count = 0
        self._reader = threading.Thread(target=self._read_lines, daemon=True)
        self._reader.start()
        self.windows_process_id = self.wait_for("ready", 60).number("windowsProcessId")

    @property
    def pid(self):
        return self.process.pid

    def _read_lines(self):
        for line in self.process.stdout:
            self._log.write(b"%.3f " % time.monotonic() + line)
            self._log.flush()
            kind, name, *words = line.decode().rstrip("\r\n").split("\t")
            message = _decode(words)
            with self._lock:
                if kind == "R":
                    self._pending.pop(name).deliver(message)
                else:
                    self._events.append((name, message))
        with self._lock:
            for pending in self._pending.values():
                pending.deliver(None)

    def start(self, command, **arguments):
        """Sends a command and returns at once."""
        pending = Pending(self, f"{command} {arguments}")
        with self._lock:
            self._count += 1
            number = str(self._count)
            self._pending[number] = pending
        line = f"{number}\t{command}{_encode(arguments)}\n"
        self.process.stdin.write(line.encode())
        self.process.stdin.flush()
        return pending

    def call(self, command, timeout=30, **arguments):
        return self.start(command, **arguments).result(timeout)

    def status(self, command, timeout=30, **arguments):
        return self.call(command, timeout, **arguments).status

    def forget_events(self):
        """For a long run: marks from before mean nothing afterwards."""
        with self._lock:
            self._events.clear()

    def mark(self):
        """A point in time: events() and wait_for() can leave out what came before it."""
        with self._lock:
            return len(self._events)

    def events(self, kind, since=0, **wanted):
        """All such events until now."""
        if self.process.poll() is None:
            self.call("sync")
        return self._arrived_events(kind, since, wanted)

    def _arrived_events(self, kind, since, wanted):
        with self._lock:
            events = self._events[since:]
        return [message for name, message in events if name == kind and message.matches(wanted)]

    def wait_for(self, kind, timeout=10, since=0, **wanted):
        """The first such event."""

        def find():
            ended = not self._reader.is_alive()
            found = self._arrived_events(kind, since, wanted)
            assert found or not ended, f"the program ended without the event {kind} {wanted}"
            return found

        return wait_until(find, timeout, f"the event {kind} {wanted}")[0]

    def log_lines(self, since=0):
        """What the program sent to the debugger."""
        return [message["text"] for message in self.events("log", since)]

    def kill(self):
        self.process.send_signal(signal.SIGKILL)
        self._finish()

    def wait_for_exit(self, timeout=10):
        self.process.wait(timeout)
        self._finish()

    def close(self):
        """Ends the program as if its user had closed it."""
        if self.process.poll() is None:
            self.process.stdin.close()
            try:
                self.process.wait(10)
            except subprocess.TimeoutExpired:
                os.killpg(self.process.pid, signal.SIGKILL)
        self._finish()

    def _finish(self):
        self.process.wait(10)
        self._reader.join(10)
        if not self.process.stdin.closed:
            try:
                self.process.stdin.close()
            except BrokenPipeError:
                pass
        self.process.stdout.close()
        self._log.close()
