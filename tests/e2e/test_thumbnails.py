"""Thumbnails, asked for as the shell does: from another process, of the client that serves them."""

import time

from harness.case import EndToEndCase
from harness.images import any_image, read_png, write_png
from harness.program import Message
from harness.waiting import wait_until
from harness.wine import dos_path

NOT_REGISTERED = 0x80040154  # REGDB_E_CLASSNOTREG
UNEXPECTED = 0x8000FFFF
NO_INTERFACE = 0x80004002
FILE_NOT_FOUND = 0x80070002
SERVER_FAULT = 0x80010105  # RPC_E_SERVERFAULT
NO_ACCESS = 0x800703E6  # ERROR_NOACCESS, which Wine passes on instead
NOT_AN_IMAGE = 0x88982F50  # WINCODEC_ERR_COMPONENTNOTFOUND
ARGB = 2
LONGEST_PATH = 259  # MAX_PATH without the terminator
IUNKNOWN = "{00000000-0000-0000-C000-000000000046}"

PROVIDER_SOURCE = "lib\\cloud-filter\\win-cf\\thumbnail-provider ("
START_LINE = "lib\\cloud-filter\\nimbra-host\\nimbra\\nimbra (729) | Registring shell services\r\n"


class ThumbnailCase(EndToEndCase):
    """A client that serves thumbnails, and a program that asks for them, in one Windows."""

    needs_fuse = False
    needs_daemon = False
    needs_provider = False
    needs_server = True

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.client = cls.start_client()

    @classmethod
    def new_prefix(cls, name, build=None):
        prefix = super().new_prefix(name, build)
        registered = prefix.run("regsvr32", "/s", dos_path(cls.bin / "thumbnail-proxy.dll"))
        assert registered.returncode == 0, "the proxy could not be registered"
        return prefix

    @classmethod
    def start_client(cls, prefix=None):
        return cls.start_program("e2e-thumbnail-client.exe", prefix)

    def setUp(self):
        self.files = self.folder / f"{self._testMethodName} files"
        self.files.mkdir()
        if self.needs_server:
            self.server = self.new_server("first")

    def start_server(self, *retrievers, starts=1, prefix=None):
        """One of this test's own, with these retrievers installed one after the other."""
        server = self.start_program("e2e-thumbnail-server.exe", prefix)
        self.addCleanup(server.close)
        for retriever in retrievers:
            server.call("install", retriever=retriever)
        for _ in range(starts):
            server.call("startServices")
        return server

    def new_server(self, *retrievers, starts=1, prefix=None):
        server = self.start_server(*retrievers, starts=starts, prefix=prefix)
        # The thread that serves is started, not waited for.
        ready = {"interface": IUNKNOWN}
        wait_until(
            lambda: self.client.call("hasInterface", **ready)["result"] == "0", what="the service"
        )
        return server

    def new_item(self, name="item.bin"):
        item = self.files / name
        item.write_bytes(b"not an image")
        return item

    def new_preview(self, width=3, height=2, kind="rgba", name="preview.png", seed=0):
        image = any_image(width, height, kind, seed)
        write_png(self.files / name, image, kind)
        return self.files / name, image

    def item_with_preview(self, name="item.bin", server=None, **of_preview):
        """An item, and the image that it is to have."""
        item = self.new_item(name)
        preview, image = self.new_preview(name=f"{name}.png", **of_preview)
        self.set_rule(item, server, image=dos_path(preview))
        return item, image

    def set_rule(self, item=None, server=None, **rule):
        if item is not None:
            rule["item"] = dos_path(item)
        (server or self.server).call("rule", **rule)

    def ask(self, item, client=None, timeout=30, **more):
        return (client or self.client).call("thumbnail", timeout, path=dos_path(item), **more)

    def assert_result(self, answer, expected, step="GetThumbnail"):
        found = (answer["step"], f"{answer.number('result') & 0xFFFFFFFF:#x}")
        self.assertEqual(found, (step, f"{expected:#x}"))

    def assert_shows(self, answer, image):
        self.assert_result(answer, 0)
        self.assertEqual(answer.number("bitmap"), 1)
        self.assertEqual(answer.number("alpha"), ARGB)
        size = (answer.number("width"), answer.number("height"))
        self.assertEqual(size, (image.width, image.height))
        self.assertEqual(answer.number("crc32"), image.crc32())

    def assert_no_bitmap(self, answer):
        self.assertEqual((answer["bitmap"], answer["alpha"]), ("0", "0"))

    def texts(self, since, server=None):
        """The server's log lines from their message on; the source of each is checked."""
        lines = (server or self.server).log_lines(since)
        for line in lines:
            self.assertTrue(line.startswith(PROVIDER_SOURCE), line)
        return [line.split(") | ", 1)[1] for line in lines]


class Pictures(ThumbnailCase):
    def test_the_thumbnail_is_the_preview_pixel_for_pixel(self):
        item, image = self.item_with_preview(width=61, height=37)
        out = self.files / "out.png"
        answer = self.ask(item, out=dos_path(out))
        self.assertEqual(answer.number("written"), 0)
        self.assert_shows(answer, image)
        self.assertEqual(read_png(out).pixels, image.pixels)

    def test_images_of_every_colour_type_arrive_with_their_colours(self):
        for kind in ("rgba", "rgb", "palette", "gray"):
            with self.subTest(kind):
                item, image = self.item_with_preview(
                    f"{kind}.bin", width=40, height=30, kind=kind
                )
                self.assert_shows(self.ask(item), image)

    def test_images_of_every_size_arrive_whole(self):
        for width, height in ((1, 1), (1, 300), (300, 1), (257, 129), (1920, 1080)):
            with self.subTest(f"{width} x {height}"):
                item, image = self.item_with_preview(
                    f"{width}x{height}.bin", width=width, height=height
                )
                self.assert_shows(self.ask(item), image)

    def test_the_size_asked_for_makes_no_difference(self):
        item, image = self.item_with_preview(width=50, height=20)
        for size in (0, 1, 16, 2560, 0xFFFFFFFF):
            with self.subTest(size):
                self.assert_shows(self.ask(item, size=size), image)

    def test_a_folder_has_a_thumbnail_like_a_file(self):
        folder = self.files / "folder"
        folder.mkdir()
        preview, image = self.new_preview()
        self.set_rule(folder, image=dos_path(preview))
        self.assert_shows(self.ask(folder), image)

    def test_names_in_any_script_reach_the_retriever_as_they_are(self):
        name = "größe 雲 ☁.bin"
        item, image = self.item_with_preview(name)
        since = self.server.mark()
        self.assert_shows(self.ask(item), image)
        (call,) = self.server.events("retrieve", since)
        self.assertEqual(call["item"], dos_path(item))

    def test_a_preview_s_path_may_fill_the_buffer(self):
        item = self.new_item()
        room = LONGEST_PATH - len(dos_path(self.files / "x.png")) + 1
        preview, image = self.new_preview(name="x" * room + ".png")
        self.assertEqual(len(dos_path(preview)), LONGEST_PATH)
        self.set_rule(item, image=dos_path(preview))
        self.assert_shows(self.ask(item), image)

    def test_a_client_in_a_single_threaded_apartment_is_served_as_well(self):
        item, image = self.item_with_preview(width=20, height=20)
        self.assert_shows(self.ask(item, sta=1), image)

    def test_the_command_line_writes_the_thumbnail_to_a_file(self):
        item, image = self.item_with_preview(width=33, height=44)
        out = self.files / "out.png"
        done = self.prefix.run(
            self.bin / "e2e-thumbnail-client.exe", dos_path(item), dos_path(out)
        )
        self.assertEqual((done.returncode, done.stdout.strip()), (0, b"33x44"))
        self.assertEqual(read_png(out).pixels, image.pixels)

    def test_the_log_tells_of_the_request_and_of_the_thumbnail(self):
        item, image = self.item_with_preview()
        since = self.server.mark()
        self.assert_shows(self.ask(item), image)
        self.assertEqual(
            self.texts(since),
            [
                f"Thumbnail requested for {dos_path(item)}\r\n",
                f"Thumbnail done for {dos_path(item)}\r\n",
            ],
        )

    def test_the_object_has_the_two_interfaces_and_no_other(self):
        interfaces = {
            "{7F73BE3F-FB79-493C-A6C7-7EE14E245841}": 0,  # IInitializeWithItem
            "{E357FCCD-A995-4576-B01F-234630154E96}": 0,  # IThumbnailProvider
            IUNKNOWN: 0,
            "{B824B49D-22AC-4161-AC8A-9916E8FA3F7F}": NO_INTERFACE,  # IInitializeWithStream
            "{B7D14566-0509-4CCE-A71F-0A554233BD9B}": NO_INTERFACE,  # IInitializeWithFile
            "{886D8EEB-8CF2-4446-8D02-CDBA1DBDCF99}": NO_INTERFACE,  # IPropertyStore
        }
        for interface, expected in interfaces.items():
            with self.subTest(interface):
                answer = self.client.call("hasInterface", interface=interface)
                self.assert_status(answer.number("result"), expected)


class Retrievers(ThumbnailCase):
    needs_server = False

    def assert_fails(self, expected, log, **rule):
        server = self.new_server("first")
        item = self.new_item()
        self.set_rule(item, server, **rule)
        since = server.mark()
        answer = self.ask(item)
        self.assert_result(answer, expected)
        self.assert_no_bitmap(answer)
        self.assertEqual(len(server.events("retrieve", since)), 1)
        self.assertEqual(
            self.texts(since, server), [f"Thumbnail requested for {dos_path(item)}\r\n", *log]
        )
        # The next one is served as if nothing had been.
        other, image = self.item_with_preview("other.bin", server)
        self.assert_shows(self.ask(other), image)

    def test_an_item_without_a_preview_has_no_thumbnail(self):
        self.assert_fails(UNEXPECTED, [], found=0)

    def test_a_retriever_that_finds_nothing_but_leaves_a_path_has_found_nothing(self):
        self.assert_fails(UNEXPECTED, [], found=0, image="Z:\\somewhere.png")

    def test_an_empty_path_is_no_preview(self):
        self.assert_fails(UNEXPECTED, [], image="")

    def test_a_retriever_that_throws_has_found_nothing(self):
        self.assert_fails(UNEXPECTED, [], end="throw")

    def test_a_missing_preview_is_reported_with_its_path(self):
        missing = dos_path(self.files / "miss ing.png")
        code = FILE_NOT_FOUND - (1 << 32)
        self.assert_fails(
            FILE_NOT_FOUND, [f"SHCreateStreamOnFileW: {code}path: {missing}\r\n"], image=missing
        )

    def test_a_preview_that_is_no_image_is_reported(self):
        junk = self.files / "junk.png"
        junk.write_bytes(b"junk" * 100)
        code = NOT_AN_IMAGE - (1 << 32)
        self.assert_fails(
            NOT_AN_IMAGE, [f"WICCreate32bppHBITMAP: {code}\r\n"], image=dos_path(junk)
        )

    def test_without_a_retriever_there_is_a_success_without_a_bitmap(self):
        for retrievers in ((), ("none",), ("first", "none")):
            with self.subTest(retrievers):
                server = self.new_server(*retrievers)
                item = self.new_item(f"{len(retrievers)}{len(''.join(retrievers))}.bin")
                since = server.mark()
                answer = self.ask(item)
                self.assert_result(answer, 0)
                self.assert_no_bitmap(answer)
                self.assertEqual(server.events("retrieve", since), [])
                self.assertEqual(
                    self.texts(since, server), [f"Thumbnail requested for {dos_path(item)}\r\n"]
                )
                server.close()

    def test_a_retriever_cleared_while_the_services_run_is_asked_no_more(self):
        server = self.new_server("first")
        item, image = self.item_with_preview(server=server)
        self.assert_shows(self.ask(item), image)
        server.call("install", retriever="none")
        answer = self.ask(item)
        self.assert_result(answer, 0)
        self.assert_no_bitmap(answer)
        server.call("install", retriever="second")
        self.assert_shows(self.ask(item), image)

    def test_the_retriever_set_last_before_the_start_is_the_one_asked(self):
        server = self.new_server("first", "second")
        item, image = self.item_with_preview(server=server)
        self.assert_shows(self.ask(item), image)
        self.assertEqual([call["retriever"] for call in server.events("retrieve")], ["second"])

    def test_services_started_twice_still_serve_each_request_once(self):
        server = self.new_server("first", starts=2)
        self.assertEqual(server.log_lines().count(START_LINE), 2)
        item, image = self.item_with_preview(server=server)
        for count in range(1, 5):
            self.assert_shows(self.ask(item), image)
            self.assertEqual(len(server.events("retrieve")), count)

    def test_the_start_is_logged_and_nothing_else(self):
        server = self.new_server("first")
        self.assertEqual(server.log_lines(), [START_LINE])

    def test_the_services_run_after_every_start(self):
        for _ in range(25):
            self.new_server().close()


class Crowds(ThumbnailCase):
    seconds = 90
    ITEMS = 48
    THREADS = 8

    def items(self, count=ITEMS):
        found = [
            self.item_with_preview(f"{number}.bin", width=5 + number, height=64 - number)
            for number in range(count)
        ]
        paths = "\n".join(dos_path(item) for item, _ in found)
        return paths, [image for _, image in found]

    def assert_all_shown(self, answer, images):
        seen = {}
        for line in answer["seen"].splitlines():
            index, *words = line.split("\t")
            self.assertNotIn(int(index), seen, "an item with two faces")
            seen[int(index)] = Message(word.split("=", 1) for word in words)
        self.assertEqual(sorted(seen), list(range(len(images))))
        for index, image in enumerate(images):
            self.assert_shows(seen[index], image)

    def test_threads_that_ask_at_once_get_each_item_its_own(self):
        paths, images = self.items()
        since = self.server.mark()
        answer = self.client.call("many", 40, paths=paths, threads=self.THREADS)
        self.assert_all_shown(answer, images)
        calls = self.server.events("retrieve", since)
        self.assertEqual(len(calls), self.ITEMS * self.THREADS)

    def test_processes_that_ask_at_once_get_each_item_its_own(self):
        paths, images = self.items()
        clients = [self.client, self.start_client(), self.start_client()]
        pending = [client.start("many", paths=paths, threads=3) for client in clients]
        for answer in pending:
            self.assert_all_shown(answer.result(40), images)

    def test_the_retriever_may_be_replaced_while_requests_run(self):
        paths, images = self.items(20)
        since = self.server.mark()
        pending = self.client.start("many", paths=paths, threads=self.THREADS)
        while not pending.done():
            for retriever in ("second", "first"):
                self.server.call("install", retriever=retriever)
        self.assert_all_shown(pending.result(), images)
        asked = {call["retriever"] for call in self.server.events("retrieve", since)}
        self.assertEqual(asked, {"first", "second"})

    def test_requests_run_at_the_same_time(self):
        item, image = self.item_with_preview()
        other, other_image = self.item_with_preview("other.bin", width=9, height=9)
        preview = dos_path(self.files / "item.bin.png")
        self.set_rule(item, image=preview, delay=6000)
        since = self.server.mark()
        slow = [self.client.start("thumbnail", path=dos_path(item)) for _ in range(4)]
        wait_until(lambda: len(self.server.events("retrieve", since)) == 4, 10, "four requests")
        self.assertFalse(any(request.done() for request in slow))
        self.assert_shows(self.ask(other), other_image)
        self.assertFalse(any(request.done() for request in slow))
        for request in slow:
            self.assert_shows(request.result(), image)
        at_once = [call.number("atOnce") for call in self.server.events("retrieve", since)]
        self.assertEqual(max(at_once), 5)


class Deaths(ThumbnailCase):
    """The server goes while it is asked: the asking program learns of it soon.

    Each has a Windows of its own: Wine does not forget the classes of a process that was killed.
    """

    needs_server = False
    FAILURES = {
        0x800706BA,  # RPC_S_SERVER_UNAVAILABLE
        0x800706BE,  # RPC_S_CALL_FAILED
        0x800706BF,  # RPC_S_CALL_FAILED_DNE
        0x80010108,  # RPC_E_DISCONNECTED
        SERVER_FAULT,
        0x80010012,  # RPC_E_SERVER_DIED_DNE
        0x80010007,  # RPC_E_SERVER_DIED
    }

    def setUp(self):
        super().setUp()
        prefix = self.new_prefix(f"prefix of {self._testMethodName}")
        self.client = self.start_client(prefix)
        self.server = self.new_server("first", prefix=prefix)
        self.own_prefix = prefix

    def new_request(self, **rule):
        item = self.new_item()
        self.set_rule(item, **rule)
        request = self.client.start("thumbnail", path=dos_path(item))
        self.server.wait_for("retrieve")
        return item, request

    def assert_fails_soon(self, item, request):
        answer = request.result(15)
        self.assertEqual(answer["step"], "GetThumbnail")
        self.assertIn(answer.number("result") & 0xFFFFFFFF, self.FAILURES)
        self.assert_no_bitmap(answer)
        again = self.ask(item, timeout=15)
        self.assertIn(again.number("result") & 0xFFFFFFFF, self.FAILURES | {NOT_REGISTERED})
        self.assert_no_bitmap(again)

    def assert_the_next_server_serves(self):
        self.server = self.new_server("first", prefix=self.own_prefix)
        item, image = self.item_with_preview("again.bin")
        self.assert_shows(self.ask(item), image)

    def test_the_server_is_killed(self):
        item, request = self.new_request(delay=60_000)
        self.server.kill()
        self.assert_fails_soon(item, request)

    def test_the_server_is_closed(self):
        item, request = self.new_request(delay=60_000)
        self.server.process.stdin.close()
        self.server.wait_for_exit()
        self.assertEqual(self.server.process.returncode, 0)
        self.assert_fails_soon(item, request)
        self.assert_the_next_server_serves()

    def test_the_server_exits_inside_the_retriever(self):
        item, request = self.new_request(delay=100, end="exit")
        self.server.wait_for_exit()
        self.assert_fails_soon(item, request)
        self.assert_the_next_server_serves()

    def test_the_server_is_terminated_inside_the_retriever(self):
        item, request = self.new_request(delay=100, end="terminate")
        self.server.wait_for_exit()
        self.assert_fails_soon(item, request)

    def test_a_fault_inside_the_retriever_fails_the_request_only(self):
        _, request = self.new_request(end="fault")
        answer = request.result(15)
        self.assertIn(answer.number("result") & 0xFFFFFFFF, (SERVER_FAULT, NO_ACCESS))
        self.assert_no_bitmap(answer)
        other, image = self.item_with_preview("other.bin")
        self.assert_shows(self.ask(other), image)

    def test_the_asking_program_is_killed(self):
        client = self.start_client(self.own_prefix)
        item, image = self.item_with_preview()
        self.set_rule(item, image=dos_path(self.files / "item.bin.png"), delay=500)
        client.start("thumbnail", path=dos_path(item))
        self.server.wait_for("retrieve")
        client.kill()
        self.assert_shows(self.ask(item), image)


class NoServer(ThumbnailCase):
    needs_server = False

    def test_without_the_services_the_class_is_not_registered(self):
        server = self.start_server("first", starts=0)
        item = self.new_item()
        self.assert_result(self.ask(item, timeout=10), NOT_REGISTERED, "CoCreateInstance")
        self.assertEqual(server.events("retrieve"), [])

    def test_after_the_server_was_closed_the_class_is_not_registered(self):
        server = self.new_server("first")
        item, image = self.item_with_preview(server=server)
        self.assert_shows(self.ask(item), image)
        server.close()
        self.assert_result(self.ask(item, timeout=10), NOT_REGISTERED, "CoCreateInstance")

    def test_the_command_line_says_so_and_fails(self):
        done = self.prefix.run(
            self.bin / "e2e-thumbnail-client.exe",
            dos_path(self.new_item()),
            dos_path(self.files / "out.png"),
        )
        self.assertEqual(done.returncode, 1)
        self.assertEqual(done.stderr.strip(), b"CoCreateInstance: 0x80040154")
        self.assertFalse((self.files / "out.png").exists())


class OldWindows(ThumbnailCase):
    build = 16299
    needs_server = False

    def test_before_build_17134_nothing_is_served_and_nothing_logged(self):
        server = self.start_server("first")
        time.sleep(0.5)
        item = self.new_item()
        self.assert_result(self.ask(item, timeout=10), NOT_REGISTERED, "CoCreateInstance")
        self.assertEqual(server.log_lines(), [])
        self.assertEqual(server.events("retrieve"), [])


class SyncRoots(ThumbnailCase):
    needs_fuse = True
    needs_daemon = True
    needs_provider = True

    def test_a_placeholder_has_a_thumbnail_and_stays_online_only(self):
        root = self.new_root()
        root.create_folder("folder")
        data = root.create("folder/photo.jpg", 300_000)
        item = root.path / "folder" / "photo.jpg"
        preview, image = self.new_preview(width=64, height=48)
        self.set_rule(item, image=dos_path(preview))
        for _ in range(3):
            self.assert_shows(self.ask(item), image)
        self.assert_online_only(root, "folder/photo.jpg")
        self.assertEqual(self.provider.events("fetch", root=root.name), [])
        self.assert_content(root, "folder/photo.jpg", data)
        self.assertEqual(len(self.provider.events("fetch", root=root.name)), 1)

    def test_a_placeholder_without_a_preview_stays_online_only_too(self):
        root = self.new_root()
        root.create("photo.jpg", 300_000)
        item = root.path / "photo.jpg"
        for rule, expected in (
            ({"found": 0}, UNEXPECTED),
            ({"image": dos_path(self.files / "missing.png")}, FILE_NOT_FOUND),
        ):
            self.set_rule(item, **rule)
            self.assert_result(self.ask(item), expected)
        self.assert_online_only(root, "photo.jpg")
        self.assertEqual(self.provider.events("fetch", root=root.name), [])
