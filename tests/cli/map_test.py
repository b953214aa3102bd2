#!/usr/bin/env python3
"""Drives kab map over sample groups: the model against the builder's layout and against the images' bytes, its pictures
as a parser and as a browser see them.

  map_test.py KAB [unittest arguments]
"""
import html.parser
import json
import os
import re
import shutil
import struct
import subprocess
import unittest
import xml.dom.minidom

import chromium
import group_test
from group_test import DATA, KAB, MIB, GroupCase as Base, flip, read_file

try:
    import jsonschema
except ImportError:
    jsonschema = None

SCHEMA = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "docs", "schema", "map.json")
GPT = 16896  # bytes at a disk's end
del group_test


class Page(html.parser.HTMLParser):
    """Every element in order, and what stands in the script elements."""

    def __init__(self, text):
        super().__init__()
        self.elements, self.scripts = [], []
        self.script = False
        self.feed(text)
        self.close()

    def handle_starttag(self, tag, attrs):
        self.elements.append((tag, dict(attrs)))
        self.script = tag == "script"
        if self.script:
            self.scripts.append("")

    def handle_endtag(self, tag):
        self.script = False

    def handle_data(self, data):
        if self.script:
            self.scripts[-1] += data


class MapCase(Base):
    """What holds for every group; the layouts below add their own."""

    @classmethod
    def setUpClass(cls):
        if cls is MapCase:
            raise unittest.SkipTest("the base of the others")
        super().setUpClass()

    def model(self, folder=None, code=0, paths=None):
        model = self.json("map", *(paths or self.paths(folder)), code=code)
        self.assertEqual(len(model), 1)
        if jsonschema is not None:
            with open(SCHEMA, encoding="utf-8") as file:
                jsonschema.validate(model[0], json.load(file))
        return model[0]

    def pictures(self, folder=None, code=0, paths=None):
        paths = paths or self.paths(folder)
        self.kab("map", "-f", "--svg", "map.svg", "--html", "map.html", *paths, code=code)
        return read_file(f"{self.work}/map.svg").decode(), read_file(f"{self.work}/map.html").decode()

    def region(self, disk, name):
        return next(region for region in disk["regions"] if region["name"] == name)

    def strip(self, disk, name):
        return next(strip for strip in disk["strips"] if strip["name"] == name)

    def assert_cells(self, strip, pieces, base=None):
        """The strip is what (offset, bytes) pieces add up to, per byte of its cells or of `base` pieces."""
        def spread(pieces):
            cells = [0] * len(strip["cells"])
            for offset, length, weight in pieces:
                end = min(offset + length, strip["offset"] + strip["length"])
                offset = max(offset, strip["offset"])
                while offset < end:
                    i = (offset - strip["offset"]) // strip["cellSize"]
                    part = min(end, strip["offset"] + (i + 1) * strip["cellSize"]) - offset
                    cells[i] += part * weight
                    offset += part
            return cells
        self.assertLessEqual(len(strip["cells"]), 512)
        self.assertEqual(len(strip["cells"]), -(-strip["length"] // strip["cellSize"]))
        whole = [min(strip["cellSize"], strip["length"] - i * strip["cellSize"]) for i in range(len(strip["cells"]))]
        divisors = spread(base) if base is not None else whole
        for value, have, divisor in zip(strip["cells"], spread(pieces), divisors):
            if divisor == 0:
                self.assertIsNone(value)
            else:
                expected = have / divisor if base is not None else min(have / divisor, 1)
                self.assertAlmostEqual(value, expected, delta=0.001)

    def assert_pin(self, folder, wanted, disk, block, region, code):
        """A finding somewhere in the block: most name the byte of the field that breaks the rule."""
        pins = [pin for pin in self.model(folder, code)["findings"] if pin["code"] == wanted]
        self.assertIn((disk, block, region),
                      [(pin["disk"], pin["offset"] - pin["offset"] % 4096, pin["region"]) for pin in pins])

    def test_regions_cover_every_disk(self):
        model = self.model()
        self.assertEqual(model["verdict"], "clean")
        paths = self.paths()
        self.assertEqual([disk["path"] for disk in model["disks"]], paths)
        for disk, path in zip(model["disks"], paths):
            self.assertEqual(disk["size"], os.path.getsize(path))
            at = 0
            for region in disk["regions"]:
                self.assertEqual(region["offset"], at)
                at += region["length"]
            self.assertEqual(at, disk["size"])
            self.assertEqual(self.region(disk, "Arvo metadata"),
                             {"name": "Arvo metadata", "kind": "meta", "offset": MIB, "length": 4096})
            self.assertEqual(self.region(disk, "secondary partition table")["length"], GPT)

    def test_findings_are_those_of_check(self):
        lines = self.json("check", *self.paths())
        model = self.model()
        self.assertEqual(model["counts"], {name: lines[-1][name] for name in ("info", "warning", "damage")})
        uuids = [disk["uuid"] for disk in model["disks"]]
        self.assertEqual(
            sorted((pin["code"], uuids[pin["disk"]], pin["offset"] or 0, pin["text"]) for pin in model["findings"]),
            sorted((line["code"], line["disk"], line["offset"] or 0, line["text"]) for line in lines[:-1]))

    def test_pictures_parse_and_need_nothing_else(self):
        svg, page = self.pictures()
        document = xml.dom.minidom.parseString(svg)
        self.assertEqual(document.documentElement.tagName, "svg")
        self.assertNotIn("nan", re.sub(r"<text.*?</text>", "", svg))
        names = [node.getAttribute("aria-label") for node in document.getElementsByTagName("rect")]
        for disk in self.model()["disks"]:
            for region in disk["regions"]:
                self.assertIn(region["name"], names)
        parsed = Page(page)
        for tag, attributes in parsed.elements:
            self.assertNotIn("src", attributes)
            self.assertNotEqual(tag, "link")
            self.assertTrue(attributes.get("href", "#").startswith("#"))
        self.assertEqual(json.loads(parsed.scripts[0]), self.model())
        text = self.kab("map", "--columns", "60", *self.paths()).decode()
        bars = [line for line in text.splitlines() if re.match(r" +(regions|components) ", line)]
        self.assertTrue(bars)
        self.assertEqual({len(bar) for bar in bars}, {60})
        self.assertEqual(set(re.findall(r"[\x00-\x1f\x7f]", text)), {"\n"})

    def test_outputs_are_guarded(self):
        self.pictures()
        self.kab("map", "--svg", "map.svg", *self.paths(), code=2)
        self.kab("map", "--svg", "-", "--html", "-", *self.paths(), code=2)
        self.kab("map", "--text", "--svg", "-", *self.paths(), code=2)
        xml.dom.minidom.parseString(self.kab("map", "--svg", "-", *self.paths()))
        folder = self.copy()
        before = [read_file(path) for path in self.paths(folder)]
        self.kab("map", "-f", "--html", self.paths(folder)[0], *self.paths(folder), code=2)
        self.kab("map", *self.paths(folder))
        self.assert_same([read_file(path) for path in self.paths(folder)], before)


class Log(MapCase):
    sample = ["--layout", "log", "--disks", "3", "--seed", "5", "--ssd-size", "64M"]

    def test_the_chain_is_the_log(self):
        model = self.model()
        ssd = model["disks"][0]
        header, *lines = self.json("log", "--only", "plog", *self.paths())
        entries = [line for line in lines if "entry" in line]
        lsns = [entry["lsn"] for entry in entries if "lsn" in entry]
        plog, llog = ssd["chains"]
        self.assertEqual((plog["log"], plog["blocks"], plog["entries"], plog["end"]),
                         ("PLOG", lines[-1]["blocks"], len(entries), lines[-1]["end"]))
        self.assertEqual((plog["firstLsn"], plog["lastLsn"]), (lsns[0], lsns[-1]))
        self.assertEqual((llog["blocks"], llog["end"]), (0, "it is empty"))
        walked = [segment["offset"] + 4096 * i for segment in plog["segments"] for i in range(segment["blocks"])]
        blocks = list(dict.fromkeys(DATA + entry["block"] * 4096 for entry in entries))
        self.assertEqual(walked, blocks)
        self.assertEqual(sum(segment["entries"] for segment in plog["segments"]), len(entries))
        record = header["checkpoints"][0]
        buffer = self.region(ssd, "write buffer")
        self.assertEqual((buffer["offset"], buffer["length"]),
                         (DATA + record["writeBufferStart"] * 4096, record["writeBufferLength"] * 4096))

    def test_what_the_write_buffer_holds(self):
        model = self.model()
        held = []
        for slot in range(3):
            disk = model["disks"][slot + 1]
            size = os.path.getsize(f"{self.folder}/disk{slot}.picture")
            pieces = self.json("read", "--as-group", "--explain", "-d", str(slot), "-r", f"0:{size}", *self.paths())[1:]
            newer = [piece for piece in pieces if piece["source"] in ("write buffer", "zero write")]
            self.assertEqual(disk["held"], sum(piece["length"] for piece in newer))
            self.assert_cells(self.strip(disk, "newer in the write buffer"),
                              [(DATA + piece["offset"], piece["length"], 1) for piece in newer])
            held += [(piece["place"], piece["length"], 1) for piece in pieces if piece["source"] == "write buffer"]
        strip = self.strip(model["disks"][0], "newest copies, by disk")
        self.assert_cells(strip, held)
        for value, owner in zip(strip["cells"], strip["owners"]):
            self.assertEqual(owner >= 0, value > 0)

    def test_damage_is_pinned_and_the_rest_is_drawn(self):
        folder = self.copy()
        flip(f"{folder}/ssd.img", DATA + 4096 + 20)
        self.assert_pin(folder, "CPR-INVALID", 0, DATA + 4096, "checkpoint record 2", 3)
        flip(f"{folder}/ssd.img", DATA + 20)
        model = self.model(folder, 4)
        self.assertEqual((model["verdict"], model["complete"], model["disks"][0]["chains"]), ("damaged", False, []))
        self.assertTrue(any("no valid checkpoint record" in note for note in model["notes"]))
        xml.dom.minidom.parseString(self.pictures(folder, 4)[0])

        folder = self.copy()
        block = self.model()["disks"][0]["chains"][0]["segments"][0]["offset"] + 20 * 4096
        flip(f"{folder}/ssd.img", block + 100)  # torn: the log ends there
        self.assertEqual(self.model(folder, 4)["disks"][0]["chains"][0]["blocks"], 20)
        self.assert_pin(folder, "LOG-SHORT", 0, block - 4096, "write buffer", 4)  # the last block


class Dedup(MapCase):
    sample = ["--layout", "dedup", "--disks", "3", "--seed", "4"]

    def words(self, slot):
        superblock = read_file(f"{self.folder}/disk{slot}.img", DATA, 4096)
        return lambda at: struct.unpack_from("<Q", superblock, at)[0]

    def test_regions_lie_where_the_superblock_says(self):
        for slot, disk in enumerate(self.model()["disks"][1:]):
            word = self.words(slot)
            for name, at in (("transaction superblock", 84), ("bitmap", 132), ("hash map", 116), ("translation map", 148)):
                region = self.region(disk, name)
                self.assertEqual((region["offset"], region["length"]),
                                 (DATA + word(at) * 4096, word(at + 8) * 4096), name)
            data = self.region(disk, "data units")
            self.assertEqual((data["offset"], data["length"]), (DATA + word(164) * 4096, word(172) * 2048))

    def test_allocation_and_density_are_those_of_the_maps(self):
        model = self.model()
        logical = {slot: [] for slot in range(3)}
        stored = {slot: [] for slot in range(3)}
        place = lambda slot, unit: DATA + self.words(slot)(164) * 4096 + unit * 2048
        for slot in range(3):
            word = self.words(slot)
            image = read_file(f"{self.folder}/disk{slot}.img")
            block = lambda index: image[DATA + index * 4096:][:4096]
            for index in range(word(140)):
                bits = int.from_bytes(block(word(132) + index)[40:], "little")
                for bit in range(32448):
                    if bits >> bit & 1:
                        stored[slot].append((place(slot, index * 32448 + bit), 2048, 1))
            for index in range(word(156)):
                xmap = block(word(148) + index)
                for i in range(225 if xmap[:4] == b"\xaa\xda\x00\xb0" else 0):
                    record = int.from_bytes(xmap[46 + 18 * i + 8:46 + 18 * i + 18], "little")
                    holder, first, second = record >> 4 & 15, record >> 8 & (1 << 36) - 1, record >> 44
                    if record & 15 != 7:
                        continue
                    start = self.words(holder)(164)
                    whole = second == (1 << 36) - 1
                    logical[holder].append((place(holder, first - start), 2048, 2 if whole else 1))
                    if not whole:
                        logical[holder].append((place(holder, second - start), 2048, 1))
        for slot, disk in enumerate(model["disks"][1:]):
            self.assertTrue(stored[slot] and logical[slot])
            self.assert_cells(self.strip(disk, "data units in use"), stored[slot])
            density = self.strip(disk, "logical bytes per stored byte")
            self.assert_cells(density, logical[slot], stored[slot])
            self.assertGreater(max(filter(None, density["cells"])), 2)  # shared and compressed

    def test_damage_is_pinned(self):
        for at, region, code in ((84, "transaction superblock", 3), (132, "bitmap", 4), (116, "hash map", 4)):
            folder = self.copy()
            offset = DATA + self.words(2)(at) * 4096
            flip(f"{folder}/disk2.img", offset + 200)
            self.assert_pin(folder, "DDP-BLOCK-HEADER", 3, offset, region, code)

    def test_a_hostile_superblock_stays_on_the_disk(self):
        folder = self.copy()
        with open(f"{folder}/disk1.img", "r+b") as image:
            for at in range(84, 228, 8):
                image.seek(DATA + at)
                image.write(b"\xff" * 7)
        for arguments in [], ["--quick"]:
            result = subprocess.run([KAB, "--json", "map", *arguments, *self.paths(folder)], stdout=subprocess.PIPE)
            self.assertIn(result.returncode, (3, 4))
            disk = json.loads(result.stdout)["disks"][2]
            self.assertEqual(sum(region["length"] for region in disk["regions"]), disk["size"])
            self.assertTrue(all(len(strip["cells"]) <= 512 for strip in disk["strips"]))


class Orlo(MapCase):
    sample = ["--layout", "orlo", "--seed", "3"]

    def components(self, folder=None):
        return [line for line in self.json("component", "list", *self.paths(folder))[1:] if line["hasSuperblock"]]

    def test_extents_are_those_of_the_components(self):
        model = self.model()
        wanted = self.components()
        self.assertEqual([(c["uuid"], c["allocated"], c["whole"]) for c in model["components"]],
                         [(c["uuid"], c["allocated"], True) for c in wanted])
        for number, component in enumerate(wanted):
            disk = model["disks"][component["slot"] + 1]
            extents = [extent for extent in disk["extents"] if extent["component"] == number]
            blocks = {offset for extent in extents
                      for offset in range(extent["offset"], extent["offset"] + extent["length"], 4096)}
            runs = self.json("component", "map", "-u", component["uuid"], *self.paths())[1:]
            mapped = {run["place"] + offset for run in runs if run["place"] is not None
                      for offset in range(0, run["length"], 4096)}
            self.assertIn(DATA + component["mapBlock"] * 4096, blocks)
            self.assertTrue(mapped < blocks)  # the rest are blocks of the map
            self.assertEqual(len(blocks) * 4096, sum(extent["length"] for extent in extents))
        for disk in model["disks"][1:]:
            self.assert_cells(self.strip(disk, "blocks of components and their maps"),
                              [(extent["offset"], extent["length"], 1) for extent in disk["extents"]])

    def test_damage_is_pinned(self):
        component = self.components()[0]
        disk = component["slot"] + 1
        folder = self.copy()
        with open(f"{folder}/disk{component['slot']}.img", "r+b") as image:
            image.seek(DATA + component["mapBlock"] * 4096 + 16)
            image.write(b"\xff\x7f")
        self.assert_pin(folder, "ORLO-MAP", disk, DATA + component["mapBlock"] * 4096, "data", 4)
        broken = [c["uuid"] for c in self.model(folder, 4)["components"] if not c["whole"]]
        self.assertEqual(broken, [component["uuid"]])

    def test_a_flood_of_components_is_bounded(self):
        """A registry of 600 entries, all of them one component whose superblock is spoilt."""
        folder = self.copy()
        component = next(c for c in self.components() if c["slot"] == 0)
        path = f"{folder}/disk0.img"
        place = self.json("component", "map", "-u", component["uuid"], *self.paths())[1]["place"]
        flip(path, place)
        offset = struct.unpack("<Q", read_file(path, DATA + 48, 8))[0]
        head = bytearray(read_file(path, DATA + offset, 52))
        entry = struct.pack("<I8xIQ", 1, 1, component["mapBlock"]) + bytes(24)
        struct.pack_into("<Q", head, 16, 52 + 600 * 48)
        struct.pack_into("<I", head, 36, 600)
        with open(path, "r+b") as image:
            image.seek(DATA + 48)
            image.write(struct.pack("<Q", os.path.getsize(path) - DATA - GPT - 65536))
            image.seek(DATA + 72)
            image.write(struct.pack("<Q", 65536))
            image.seek(os.path.getsize(path) - GPT - 65536)
            image.write(bytes(head) + entry * 600)
        model = self.json("map", *self.paths(folder), code=4)[0]
        self.assertEqual(len(model["components"]), 256)
        self.assertEqual(model["componentsLeftOut"], 600 - 256 + sum(c["slot"] != 0 for c in self.components()))
        pins = sum(pin["code"] == "ORLO-SUPERBLOCK" for pin in model["findings"])
        found = self.json("check", *self.paths(folder), code=4)[-1]["codes"]["ORLO-SUPERBLOCK"]
        self.assertGreaterEqual(found, 600)
        self.assertEqual((pins, model["findingsLeftOut"]["ORLO-SUPERBLOCK"]), (100, found - 100))
        self.assertLessEqual(len(model["disks"][1]["extents"]), 4096)
        svg, page = self.pictures(folder, 4)
        self.assertLess(len(svg) + len(page), 2 << 20)

    def hostile(self):
        """A path and a magic that would break out of every form; the folder's slash makes the end tag."""
        folder = f"{self.work}/<"
        shutil.copytree(self.folder, folder)
        evil = f"{folder}/script><b onclick='1'>&\"]]>\x1b[2J\u0085.img"
        os.rename(f"{folder}/disk0.img", evil)
        with open(evil, "r+b") as image:
            image.seek(DATA)
            image.write(b"<i>\x1b[31m&\xff\xef\xbf\xbf</script>\0")
        return [f"{folder}/ssd.img", evil, f"{folder}/disk1.img"]

    def test_texts_of_disks_stay_texts(self):
        paths = self.hostile()
        plain = {tag for tag, _ in Page(self.pictures()[1]).elements}
        svg, page = self.pictures(paths=paths, code=4)
        document = xml.dom.minidom.parseString(svg)
        self.assertFalse(document.getElementsByTagName("i") or document.getElementsByTagName("b"))
        parsed = Page(page)
        self.assertEqual({tag for tag, _ in parsed.elements}, plain)
        model = json.loads(parsed.scripts[0])
        self.assertIn("</script><b onclick='1'>&\"]]> [2J", model["disks"][1]["path"])
        self.assertIn("3c693e1b", [pin["found"] for pin in model["findings"]])  # digits, not a text
        for output in page, svg, self.kab("map", *paths, code=4).decode():
            self.assertFalse(re.search("[\x00-\x09\x0b-\x1f\x7f-\x9f\uffff]", output))


class LoggedOrlo(Orlo):
    """The same with a third of the map blocks and runs in the write buffer: damage on the disk under them is none."""
    sample = ["--layout", "orlo-log", "--seed", "3"]
    test_damage_is_pinned = test_a_flood_of_components_is_bounded = test_texts_of_disks_stay_texts = None


@unittest.skipUnless(chromium.CHROMIUM, "Debian's chromium is not installed: the page is not opened in a browser")
class Browser(MapCase):
    """The page as it runs. KAB_SCREENSHOTS names a folder for pictures of it."""
    sample = Dedup.sample
    words = Dedup.words
    test_regions_cover_every_disk = test_findings_are_those_of_check = None
    test_pictures_parse_and_need_nothing_else = test_outputs_are_guarded = None

    def open(self, folder=None, code=0, paths=None, dark=False):
        self.pictures(folder, code, paths)
        page = chromium.Page(f"file://{self.work}/map.html", dark=dark)
        self.addCleanup(page.close)
        return page

    def assert_quiet(self, page):
        self.assertEqual(page.trouble, [])
        self.assertEqual([url for url in page.requests if not url.endswith("/map.html")], [])

    def view(self, page, disk):
        start, end = page.value(f"document.querySelector('#disk-{disk} .plot').dataset.view").split("-")
        return int(start), int(end)

    def shoot(self, page, name):
        if "KAB_SCREENSHOTS" in os.environ:
            page.screenshot(f"{os.environ['KAB_SCREENSHOTS']}/{name}.png")

    def test_zoom_by_wheel_buttons_and_keys(self):
        page = self.open()
        size = os.path.getsize(f"{self.folder}/disk0.img")
        self.assertEqual(self.view(page, 1), (0, size))
        page.click("#disk-1 .head button[aria-label^='Zoom in']")
        self.assertEqual(self.view(page, 1), (size // 4, size * 3 // 4))
        page.value("document.querySelector('#disk-1 .plot').focus()")
        page.key("+", 187, "+")
        start, end = self.view(page, 1)
        self.assertAlmostEqual(end - start, size / 4, delta=2)
        page.key("ArrowRight", 39)
        self.assertAlmostEqual(self.view(page, 1)[0], start + (end - start) / 4, delta=2)
        page.key("0", 48, "0")
        self.assertEqual(self.view(page, 1), (0, size))
        x, y = page.value("(() => { const b = document.querySelector('#disk-1 .plot').getBoundingClientRect();"
                          "return [b.x + b.width / 2, b.y + 60]; })()")
        page.mouse("mouseWheel", x, y, deltaX=0, deltaY=-100, modifiers=2)
        page.settle()
        start, end = self.view(page, 1)
        self.assertTrue(0 < start < end < size)
        page.mouse("mousePressed", x, y, button="left", clickCount=1)
        page.mouse("mouseMoved", x - 100, y, button="left", buttons=1)
        page.mouse("mouseReleased", x - 100, y, button="left")
        page.settle()
        self.assertGreater(self.view(page, 1)[0], start)
        self.assertIn("(0x", page.value("document.getElementById('tip').textContent"))
        self.assertEqual(self.view(page, 2), (0, size))  # each disk for itself
        page.click("#disk-1 .chips li:nth-child(5) button")
        region = self.model()["disks"][1]["regions"][4]
        start, end = self.view(page, 1)
        self.assertTrue(start <= region["offset"] and region["offset"] + region["length"] <= end)
        self.assert_quiet(page)

    def test_a_finding_leads_to_its_place_and_back(self):
        folder = self.copy()
        block = DATA + self.words(2)(116) * 4096
        flip(f"{folder}/disk2.img", block + 200)
        index, offset = next((i, pin["offset"]) for i, pin in enumerate(self.model(folder, 4)["findings"])
                             if pin["code"] == "DDP-BLOCK-HEADER" and block <= (pin["offset"] or 0) < block + 4096)
        page = self.open(folder, 4)
        row = f"tr[data-finding='{index}']"
        page.click(f"{row} button")
        start, end = self.view(page, 3)
        self.assertTrue(start <= offset <= end)
        self.assertLessEqual(end - start, 256 * 1024)
        self.assertEqual(page.value(f"document.querySelector(\"{row}\").getAttribute('aria-current')"), "true")
        focused = "document.activeElement.getAttribute('aria-label') ?? document.activeElement.tagName"
        self.assertIn(f"DDP-BLOCK-HEADER at {offset:,}, hash map", page.value(focused))
        page.wait("document.getElementById('status').textContent.includes('DDP-BLOCK-HEADER')")
        box = page.value("(() => { const b = document.activeElement.querySelector('path').getBoundingClientRect();"
                         "return [b.x + b.width / 2, innerHeight > b.y && b.y > 0]; })()")
        plot = page.value("(() => { const b = document.querySelector('#disk-3 .plot').getBoundingClientRect();"
                          "return [b.x, b.width]; })()")
        expected = plot[0] + 118 + (offset - start) / (end - start) * (plot[1] - 130)
        self.assertAlmostEqual(box[0], expected, delta=2)
        self.assertTrue(box[1], "the pin is not in sight")
        page.key("Escape", 27)
        self.assertTrue(page.value(f"document.activeElement.closest('tr')?.matches(\"{row}\")"))
        page.key("Enter", 13, "\r")
        self.assertIn("DDP-BLOCK-HEADER", page.value(focused))
        # The other way: a pin names its row.
        page.value("document.activeElement.blur(); select(0, {jump: false})")
        page.value("views[3].show(0, model.disks[3].size, false)")
        page.value(f"document.querySelector('#disk-3 .pin[data-findings~=\"{index}\"]').focus()")
        page.key("Enter", 13, "\r")
        self.assertEqual(page.value("document.querySelectorAll('tr[aria-current]').length"), 1)
        page.click(".filters label:nth-child(1) input")  # no damage
        self.assertEqual(page.value("document.querySelectorAll('#findings .pin-damage').length - 1"), 0)
        self.assertEqual(page.value("document.querySelectorAll('.plot .pin-damage').length"), 0)
        self.assert_quiet(page)

    def test_everything_has_a_name_and_can_be_reached(self):
        page = self.open()
        nameless = page.value("[...document.querySelectorAll('[role=img],[role=button],[role=group],button')]"
                              ".filter((e) => !(e.getAttribute('aria-label') ?? e.textContent).trim()).length")
        self.assertEqual(nameless, 0)
        order = []
        for _ in range(8):
            page.key("Tab", 9)
            order.append(page.value("document.activeElement.getAttribute('aria-label') ?? document.activeElement.textContent"))
        self.assertEqual(order[0], "Skip to the findings")
        self.assertTrue(order[1].startswith("Zoom in: SSD"), order)  # what is disabled is left out
        self.assertTrue(order[2].startswith("SSD, "), order)
        self.assert_quiet(page)

    def test_both_colour_schemes_can_be_read(self):
        """Texts keep a contrast of 4.5 to their ground."""
        contrast = """(() => {
          const light = (text) => {
            const [r, g, b] = text.match(/[\\d.]+/g).slice(0, 3).map((v) => v / 255)
              .map((v) => v <= 0.03928 ? v / 12.92 : ((v + 0.055) / 1.055) ** 2.4);
            return 0.2126 * r + 0.7152 * g + 0.0722 * b;
          };
          const ratio = (a, b) => (Math.max(a, b) + 0.05) / (Math.min(a, b) + 0.05);
          const style = (selector, property) => light(getComputedStyle(document.querySelector(selector))[property]);
          const panel = style('.disk', 'backgroundColor');
          return ['h2', '.facts', '.view', '#findings td', '#findings th'].map((s) => ratio(style(s, 'color'), panel))
            .concat(ratio(style('.plot .muted', 'fill'), panel), ratio(style('.pin-info', 'color'), panel),
                    ratio(style('#verdict', 'color'), style('#verdict', 'backgroundColor')));
        })()"""
        grounds = set()
        for dark in False, True:
            page = self.open(dark=dark)
            self.shoot(page, "dark" if dark else "light")
            self.assertGreater(min(page.value(contrast)), 4.5)
            grounds.add(page.value("getComputedStyle(document.documentElement).backgroundColor"))
            self.assert_quiet(page)
        self.assertEqual(len(grounds), 2)

    def test_hostile_texts_run_nothing(self):
        other = Orlo("hostile")
        Orlo.setUpClass()
        self.addCleanup(Orlo.tearDownClass)
        other.setUp()
        self.addCleanup(other.tearDown)
        page = self.open(paths=other.hostile(), code=4)
        self.assertEqual(page.value("document.querySelectorAll('b:not(#tip b), i').length"), 0)
        self.assertIn("</script><b", page.value("document.querySelector('#disk-1 .facts').textContent"))
        self.assert_quiet(page)


if __name__ == "__main__":
    unittest.main()
