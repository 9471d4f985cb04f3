"""nimbractl log: what is shown of the debugger output, and that nobody who writes to it suffers."""

import datetime
import json
import re
import shutil
import signal
import subprocess
import time

from harness.nimbractl import Listener, NimbractlCase
from harness.waiting import wait_until
from harness.wine import wine_program


class DebugOutputCase(NimbractlCase):
    needs_provider = False
    LINE = "lib\\cloud-filter\\win-cf\\placeholder (183) | Failed to dehydrate all, reason: "

    def speaker_command(self):
        return [wine_program(), str(self.bin / "e2e-debug-speaker.exe")]

    def speak(self, *lines):
        """Gives the process id of the program that wrote them."""
        said = self.prefix.run(self.bin / "e2e-debug-speaker.exe", *lines)
        self.assertEqual(said.returncode, 0)
        return int(said.stdout)

    def start_speaker(self, *lines, command=None):
        """One that goes on while it speaks; gives the process, whose output begins with its id."""
        speaker = subprocess.Popen(
            [*(command or self.speaker_command()), *lines],
            env=self.prefix.environment(), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
        )

        def end():
            speaker.kill()
            speaker.communicate()

        self.addCleanup(end)
        return speaker


class Lines(DebugOutputCase):
    def test_the_library_s_lines_of_another_process_are_shown_readably_and_no_others(self):
        plain = self.folder / "plain 中文 😀.txt"
        plain.write_text("x")
        log = Listener(self)
        self.assertEqual(log.notes, ["nimbractl: listening; Ctrl+C ends it"])
        self.speak("a foreign line\r\n", "lib\\cloud-filter without the rest\r\n")
        self.run_ctl("state", plain)
        line = log.wait_for("is not a placeholder, so it is fully hydrated")
        self.assertRegex(
            line,
            r"^\d\d:\d\d:\d\d\.\d{3}  nimbractl\.exe \(\d+\)  Z:.*plain 中文 😀\.txt is not a "
            r"placeholder, so it is fully hydrated  \[win-cf\\placeholder 202\]$",
        )
        pid = self.speak(self.LINE + "-2147024504\r\n")
        line = log.wait_for("Failed to dehydrate all")
        self.assertIn(f"  e2e-debug-speaker.exe ({pid})  ", line)
        self.assertTrue(
            line.endswith("reason: 0x80070188 ERROR_CLOUD_FILE_PINNED, it is pinned"
                          "  [win-cf\\placeholder 183]"), line
        )
        self.assertFalse(any("foreign" in line or "without the rest" in line
                             for line in log.lines), log.lines)

    def test_a_result_is_spelled_out_wherever_it_stands(self):
        log = Listener(self)
        for message in ("Failed to set excluded.-2147024504", "to normal file, hr=-2147024504",
                        "Failed to convert to placeholder. -2147024504", "on path C:/x, ec: 5",
                        "Failed to ack rename-2147024504", "transfer buffer, ec = 8"):
            self.speak("lib\\cloud-filter\\win-cf\\placeholder (1) | " + message)
            start = re.split(r"-?\d", message)[0]
            self.assertRegex(log.wait_for(start), re.escape(start) + "0x80070[01][08][58]")

    def test_all_shows_what_other_software_writes_in_its_code_page_too(self):
        log = Listener(self, "--all")
        self.speak("a foreign line: é", "another one\r\n", self.LINE + "-2147024504\r\n")
        self.assertTrue(log.wait_for("a foreign line").endswith("  a foreign line: é"))
        log.wait_for("ERROR_CLOUD_FILE_PINNED")
        self.assertEqual([line.split("  ")[-1] for line in log.lines[:2]],
                         ["a foreign line: é", "another one"])

    def test_as_json_there_is_one_object_a_line(self):
        log = Listener(self, "--json", "--all")
        pid = self.speak('foreign "quoted" \\', self.LINE + "-2147024504\r\n")
        log.wait_for("dehydrate all")
        foreign, ours = (json.loads(line) for line in log.lines)
        self.assertEqual((foreign["message"], foreign["library"]), ('foreign "quoted" \\', False))
        self.assertEqual((ours["pid"], ours["program"]), (pid, "e2e-debug-speaker.exe"))
        self.assertEqual((ours["source"], ours["number"]), ("win-cf\\placeholder", 183))
        self.assertEqual(ours["result"], -2147024504)
        self.assertEqual(ours["message"], "Failed to dehydrate all, reason: -2147024504")

    def test_as_json_the_time_is_a_moment_whatever_the_zone(self):
        start = datetime.datetime.now(datetime.timezone.utc)
        log = Listener(self, "--json", TZ="America/St_Johns")
        self.speak(self.LINE + "1\r\n")
        text = json.loads(log.wait_for("dehydrate all"))["time"]
        self.assertRegex(text, r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}-0[23]:30$")
        time = datetime.datetime.fromisoformat(text)
        self.assertLess(abs(time - start), datetime.timedelta(minutes=2))

    def test_pid_leaves_the_lines_of_one_process(self):
        wanted = self.start_speaker("-", self.LINE + "wanted\r\n")
        pid = int(wanted.stdout.readline())
        log = Listener(self, "--pid", pid)
        self.speak(self.LINE + "other\r\n")
        wanted.communicate(b"\n", timeout=20)
        log.wait_for("reason: wanted")
        self.assertEqual(len(log.lines), 1, log.lines)

    def test_it_ends_after_the_time_that_it_was_given(self):
        log = Listener(self, "--for", "0.2")
        self.assertEqual((log.finish(), log.lines), (0, []))
        self.assertEqual(log.notes, ["nimbractl: listening"])

    def test_many_lines_of_many_processes_arrive_whole(self):
        log = Listener(self)
        names = [f"{name}{number}" for name in "abcd" for number in range(50)]
        speakers = [
            self.start_speaker(*(f"{self.LINE}{name}\r\n" for name in names[at::4]))
            for at in range(4)
        ]
        for speaker in speakers:
            self.assertEqual(speaker.wait(20), 0)
        wait_until(lambda: len(log.lines) == len(names), what="all lines")
        got = [re.search(r"reason: (\w+)  \[", line)[1] for line in log.lines]
        self.assertEqual(sorted(got), sorted(names))

    def test_a_command_s_own_lines_reach_the_listener_although_it_reads_them_itself(self):
        plain = self.folder / "plain.txt"
        plain.write_text("x")
        log = Listener(self)
        self.assertIn("ERROR_CLOUD_FILE_NOT_UNDER_SYNC_ROOT", self.failure("pin", plain))
        log.wait_for("Failed to pin to local: ")


class Listeners(DebugOutputCase):
    """How they begin and end: one after the other, at once, by Ctrl+C, by being killed."""

    # What Windows has a process wait for a listener that takes nothing, a line.
    WAIT = 10

    def shows(self, log, text):
        self.speak(self.LINE + text)
        return log.wait_for(f"reason: {text}  [")

    def test_after_ctrl_c_the_next_one_hears_everything(self):
        for number in range(3):
            log = Listener(self)
            self.shows(log, f"line-{number}")
            log.interrupt()
            self.assertEqual(log.finish(), 0)
            self.assertEqual((len(log.lines), len(log.notes)), (1, 1), log.notes)
            self.speak(self.LINE + "to nobody")

    def test_one_that_ends_amid_many_lines_leaves_nobody_waiting(self):
        lines = [self.LINE + "one of many"] * 200
        for end in ("ctrl-c", "time"):
            speakers = [self.start_speaker("-", *lines) for _ in range(4)]
            for speaker in speakers:
                speaker.stdout.readline()  # it has started
            log = Listener(self, *([] if end == "ctrl-c" else ["--for", "1"]))
            if end == "time":
                time.sleep(0.7)  # they need longer for all their lines than what is left
            start = time.monotonic()
            for speaker in speakers:
                speaker.stdin.write(b"\n")
                speaker.stdin.flush()
            if end == "ctrl-c":
                wait_until(lambda: len(log.lines) > 20, what="the first lines")
                log.process.send_signal(signal.SIGINT)
            self.assertEqual(log.finish(), 0)
            for speaker in speakers:
                speaker.wait(2 * self.WAIT)
            self.assertLess(time.monotonic() - start, self.WAIT, "one waited for a line")
        self.shows(Listener(self), "afterwards")

    def test_one_that_dies_with_a_process_waiting_is_replaced(self):
        dying = Listener(self)
        self.shows(dying, "first")
        dying.process.send_signal(signal.SIGSTOP)
        speaker = self.start_speaker(*(self.LINE + str(number) for number in range(10)))
        speaker.stdout.readline()  # it has started
        time.sleep(0.3)
        start = time.monotonic()
        self.assertIsNone(speaker.poll(), "it does not wait")
        dying.stop()
        log = Listener(self)
        self.assertIn("this one takes its place", log.notes[0])
        self.assertEqual(speaker.wait(self.WAIT), 0)
        self.assertLess(time.monotonic() - start, self.WAIT)
        log.wait_for("reason: 9  [")
        self.assertGreaterEqual(len(log.lines), 9)  # the dead one may have taken the first
        self.shows(log, "afterwards")

    def test_a_second_one_says_so_and_the_first_goes_on(self):
        log = Listener(self)
        errors = self.failure("log", "--for", "1")
        self.assertIn("another program reads the debugger output", errors)
        self.assertIn("close it", errors)
        self.shows(log, "still here")
        log.interrupt()
        self.assertEqual(log.finish(), 0)
        self.run_ctl("log", "--for", "0")

    def test_a_program_that_runs_already_and_has_written_is_heard(self):
        speaker = self.start_speaker(self.LINE + "too early", "-", self.LINE + "heard")
        speaker.stdout.readline()
        time.sleep(0.2)
        log = Listener(self)
        speaker.communicate(b"\n", timeout=20)
        log.wait_for("reason: heard")
        self.assertEqual(len(log.lines), 1, log.lines)

    def start_unread(self):
        """One whose output nobody takes."""
        log = subprocess.Popen(
            [wine_program(), str(self.bin / self.program), "log"],
            env=self.prefix.environment(**self.endpoint()),
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
        )
        self.addCleanup(log.stderr.close)
        self.addCleanup(log.stdout.close)
        self.addCleanup(log.wait)
        self.addCleanup(log.kill)
        self.assertIn(b"listening", log.stderr.readline())
        return log

    def speak_more_than_a_pipe_holds(self):
        for _ in range(4):
            self.speak(*(f"{self.LINE}{number} {'x' * 600}" for number in range(40)))

    def test_nobody_waits_for_output_that_is_not_taken(self):
        log = self.start_unread()
        start = time.monotonic()
        self.speak_more_than_a_pipe_holds()
        self.assertLess(time.monotonic() - start, self.WAIT)
        log.send_signal(signal.SIGINT)
        output, _ = log.communicate(timeout=20)
        self.assertGreater(len(output), 65536, "less than a pipe holds")
        self.assertEqual((log.returncode, output.count(b"Failed to dehydrate all")), (0, 160))

    def test_output_that_is_never_taken_is_given_up_at_the_second_ctrl_c(self):
        log = self.start_unread()
        self.speak_more_than_a_pipe_holds()
        log.send_signal(signal.SIGINT)
        with self.assertRaises(subprocess.TimeoutExpired):
            log.wait(0.5)
        self.shows(Listener(self), "heard by the next one")
        log.send_signal(signal.SIGINT)
        self.assertEqual(log.wait(10), 1)

    def test_it_ends_when_its_reader_has_gone(self):
        log = self.start_unread()
        log.stdout.close()
        self.speak(self.LINE + "one", self.LINE + "two")
        self.assertEqual(log.wait(10), 0)
        self.shows(Listener(self), "afterwards")

    def test_what_has_ended_before_its_line_was_taken_is_told_from_what_runs(self):
        log = Listener(self, "--json")
        programs = []
        while None not in programs and len(programs) < 10:
            log.process.send_signal(signal.SIGSTOP)
            pid = self.speak(self.LINE + "from the past")
            time.sleep(0.1 * len(programs))  # the wineserver may know of its end later than we do
            log.process.send_signal(signal.SIGCONT)
            programs.append(json.loads(log.wait_for(f'"pid":{pid},'))["program"])
        self.assertIn(None, programs)
        self.assertLessEqual(set(programs), {None, "e2e-debug-speaker.exe"})
        pid = self.speak(self.LINE + "now")
        self.assertIn("e2e-debug-speaker.exe", log.wait_for(f'"pid":{pid},'))

    def reuse(self, pid, *lines):
        """Another program, with the id of one that has ended, speaks; gives its process."""
        other = self.bin / "e2e-other-speaker.exe"
        if not other.exists():
            shutil.copy(self.bin / "e2e-debug-speaker.exe", other)
        reuser = self.start_speaker(
            str(pid), "Z:" + str(other), *lines,
            command=[wine_program(), str(self.bin / "e2e-id-reuser.exe")],
        )
        self.assertEqual(int(reuser.stdout.readline()), pid)
        return reuser

    def test_an_id_that_another_program_has_got_names_that_one(self):
        log = Listener(self)
        pid = int(re.search(r"\((\d+)\)", self.shows(log, "old"))[1])
        self.shows(log, "between")
        self.reuse(pid, self.LINE + "new").wait(20)
        self.assertIn(f"  e2e-debug-speaker.exe ({pid})  ", log.wait_for("reason: old"))
        self.assertIn(f"  e2e-other-speaker.exe ({pid})  ", log.wait_for("reason: new"))

    def test_an_id_that_another_program_has_got_meanwhile_names_neither(self):
        log = Listener(self)
        log.process.send_signal(signal.SIGSTOP)
        # The wait for a line that is under way ends without one, unseen until the process goes on.
        time.sleep(0.6)
        pid = self.speak(self.LINE + "old")
        reuser = self.reuse(pid, "-", self.LINE + "new")
        time.sleep(1)  # held up for longer than a program needs to start and to write
        log.process.send_signal(signal.SIGCONT)
        self.assertIn(f"  ? ({pid})  ", log.wait_for("reason: old"))
        reuser.communicate(b"\n", timeout=20)
        self.assertIn(f"  e2e-other-speaker.exe ({pid})  ", log.wait_for("reason: new"))
