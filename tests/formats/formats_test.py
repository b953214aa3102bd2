#!/usr/bin/env python3
"""docs/formats.md and kab-dump(5) say what the sources say.

formats_test.py DOCUMENT --man PAGE --source SOURCE --compiler CXX
    compiles and runs every table against its header, compares every drawing with its table
formats_test.py DOCUMENT --update
    draws anew

A table stands behind a marker: struct (members and their offsets), offsets (constants that are offsets), bits (of a
packed record) or values (constants), then the header, the type or namespace, and the size in bytes where it has one.
"""

import argparse
import hashlib
import pathlib
import re
import struct
import subprocess
import sys
import tempfile
import zlib

MARKER = re.compile(r"<!-- (struct|offsets|bits|values) (\S+) (\S+)(?: (\d+))? -->\n")
DRAWING = re.compile(r"```\n.*?```\n\n", re.DOTALL)
MAN_TABLE = re.compile(r'\.\\" struct (\S+) (\S+) (\d+)\n\.TS\n(?:.*\n){4}((?:\d.*\n)+)\.TE\n')
WIDTH = 118
# How the bytes of a packed record become its fields.
DECODE = {
    "kab::ssdlog::PackedExtent": "kab::Load<kab::ssdlog::PackedExtent>(bytes)",
    "kab::ddp::Record": "kab::ddp::Unpack(bytes)",
}


class Table:
    def __init__(self, kind, header, name, size, rows):
        self.kind, self.header, self.name, self.size, self.rows = kind, header, name, int(size or 0), rows

    def cells(self):
        """What is drawn: (start, end, label), rising; holes are filled with dots."""
        if self.kind == "bits":
            spans = [(*map(int, bits.split("-")), f"{field.strip('`')} {part}") for bits, field, part in self.rows]
            return [(first, last + 1, label) for first, last, label in spans]
        cells, at = [], 0
        for row in self.rows:
            start, length, field = int(row[0]), int(row[1]), row[2].strip("`")
            if start > at:
                cells.append((at, start, "..."))
            at = start + length
            cells.append((start, at, field))
        if at < self.size:
            cells.append((at, self.size, "..."))
        return cells

    def drawing(self):
        lines, ruler, boxes = [], "", ""
        cells = self.cells()
        for start, end, label in cells:
            width = max(len(label) + 3, len(str(start)) + 1)
            if boxes and len(boxes) + width + len(str(end)) > WIDTH:
                lines += [ruler.rstrip(), boxes + "|", ""]
                ruler = boxes = ""
            ruler += str(start).ljust(width)
            boxes += f"| {label} ".ljust(width)
        lines += [ruler + str(cells[-1][1]), boxes + "|"]
        return "```\n" + "\n".join(lines) + "\n```\n\n"

    def checks(self):
        for row in self.rows:
            field = row[0].strip("`") if self.kind == "values" else row[1 if self.kind == "bits" else 2].strip("`")
            name = field if field.isupper() else f"{self.name}::{field}"
            if self.kind == "values":
                yield f"static_assert(uint64_t{{{name}}} == {row[1]}U);"
            elif self.kind == "offsets":
                yield f"static_assert({name} == {row[0]});"
            elif self.kind == "struct":
                yield f"static_assert(offsetof({self.name}, {field}) == {row[0]} && sizeof({name}) == {row[1]});"
        if self.kind in ("struct", "bits") and self.name != "kab::ddp::Record":
            yield f"static_assert(sizeof({self.name}) == {self.size});"

    def bit_checks(self):
        """A record of zeros but for one row's bits has those bits in the row's field and zeros in the others."""
        fields = sorted({field.strip("`") for _, field, _ in self.rows})
        for bits, named, part in self.rows:
            first, last = map(int, bits.split("-"))
            low, high = map(int, part.split("-"))
            yield f"{{ uint8_t bytes[{self.size}] = {{}};"
            yield f"  for (int i = {first}; i <= {last}; i++) bytes[i / 8] |= static_cast<uint8_t>(1U << (i % 8));"
            yield f"  const auto record = {DECODE[self.name]};"
            for field in fields:
                mask = (1 << (high + 1)) - (1 << low) if field == named.strip("`") else 0
                yield f'  Expect(record.{field}, {mask:#x}U, "{self.name} bits {bits}: {field}");'
            yield "}"


def parse(text):
    tables = []
    for marker in MARKER.finditer(text):
        rest = text[marker.end() :]
        if rest.startswith("```"):
            rest = DRAWING.sub("", rest, count=1)
        lines = rest.split("\n\n")[0].strip().split("\n")
        rows = [[cell.strip() for cell in line.strip("|").split("|")] for line in lines[2:]]
        tables.append(Table(*marker.groups(), rows))
    return tables


def parse_man(text):
    for header, name, size, lines in MAN_TABLE.findall(text):
        yield Table("struct", header, name, size, [line.split(";") for line in lines.splitlines()])


def redraw(text):
    bare = re.sub(r"(<!-- (?:struct|offsets|bits) [^\n]*-->\n)```\n.*?```\n\n", r"\1", text, flags=re.DOTALL)

    def draw(marker):
        table = parse(bare[marker.start() :])[0]
        return marker.group(0) + ("" if table.kind == "values" else table.drawing())

    return MARKER.sub(draw, bare)


def missing(tables, source):
    """Members of on-disk structs that no table names. Bytes that nothing reads are called unread and other."""
    told = {table.name: {row[2].strip("`") for row in table.rows} for table in tables if table.kind == "struct"}
    packed = {table.name for table in tables if table.kind == "bits"}
    for header in sorted(source.glob("src/**/*_format.h")) + [source / "src/orlo/map_block.h"]:
        text = re.sub(r"//[^\n]*", "", header.read_text())
        namespace = re.search(r"namespace (kab::\w+) ", text)
        for name, body in re.findall(r"struct (\w+) \{\n(.*?)\n\};", text, flags=re.DOTALL):
            full = f"{namespace.group(1)}::{name}" if namespace else name
            if full in packed or not re.search(r"\b(le16|le32|le64|uint8_t|BlkHdr|Header) \w", body):
                continue
            members = re.findall(r"^  [\w:]+ ((?:\w+(?:\[[^\]]*\])*(?:, )?)+);", body, flags=re.MULTILINE)
            names = {re.sub(r"\[.*", "", member) for line in members for member in line.split(", ")}
            names = {member for member in names if not re.fullmatch(r"(unread|other)\d+", member)}
            for member in sorted(names - told.get(full, set())):
                yield f"{full}::{member}"


def program(tables):
    lines = [f'#include "{header}"' for header in sorted({table.header for table in tables})]
    lines += ["#include <cstdio>", "#include <cstdlib>", "namespace {"]
    lines += [
        "void Expect(uint64_t found, uint64_t expected, const char* what) {",
        "  if (found == expected) return;",
        '  std::printf("%s is %#lx, not %#lx\\n", what, found, expected);',
        "  std::exit(1);",
        "}",
        "}  // namespace",
    ]
    lines += [check for table in tables for check in table.checks()]
    lines.append("int main() {")
    lines += [check for table in tables if table.kind == "bits" for check in table.bit_checks()]
    lines += ["  return 0;", "}"]
    return "\n".join(lines) + "\n"


def example_fails(page, folder):
    """The page's own reader, run on a dump made by hand."""
    stream = struct.pack("<QI", 3145728, 5) + b"bytes"
    digest = hashlib.sha256(stream)
    header = struct.pack("<IIQQQQ", 0xCC0000CC, 1, 1, 1 << 25, len(stream), 0) + digest.digest()
    pathlib.Path(folder, "disk0.kabdump").write_bytes(header.ljust(4096, b"\0") + zlib.compress(stream))
    example = re.search(r"\.EX\n(python3.*?)\.EE", page, flags=re.DOTALL).group(1)
    command = example.replace("\\(aq", "'").replace("\\-", "-")
    run = subprocess.run(["sh", "-c", command], cwd=folder, capture_output=True, text=True, check=False)
    if run.stdout.split()[:1] == [digest.hexdigest()]:
        return False
    print(f"the page's example says {run.stdout!r} {run.stderr!r}")
    return True


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("document", type=pathlib.Path)
    parser.add_argument("--update", action="store_true")
    parser.add_argument("--man", type=pathlib.Path)
    parser.add_argument("--source", type=pathlib.Path)
    parser.add_argument("--compiler")
    args = parser.parse_args()
    text = args.document.read_text()
    if args.update:
        args.document.write_text(redraw(text))
        return 0

    tables = parse(text)
    failed = False
    if len(tables) < 30:
        print(f"{args.document} has only {len(tables)} tables that can be read")
        failed = True
    page = list(parse_man(args.man.read_text()))
    if {table.name for table in page} != {"kab::dump::Header", "kab::dump::RecordHead"}:
        print(f"{args.man} lacks a table that can be read")
        failed = True
    for told in page:
        drawn = next(table for table in tables if table.name == told.name)
        if [row[:3] for row in told.rows] != [[at, length, name.strip("`")] for at, length, name, _ in drawn.rows]:
            print(f"{args.man} and {args.document} differ on {told.name}")
            failed = True
    for name in missing(tables, args.source):
        print(f"{args.document} does not have {name}")
        failed = True
    if redraw(text) != text:
        print(f"a drawing differs from its table: {sys.argv[0]} {args.document} --update")
        failed = True
    with tempfile.TemporaryDirectory() as folder:
        failed |= example_fails(args.man.read_text(), folder)
        file = pathlib.Path(folder, "formats.cc")
        file.write_text(program(tables + page))
        built = f"{folder}/formats"
        includes = [f"-I{args.source}/src", f"-I{args.source}/include"]
        if subprocess.run([args.compiler, "-std=c++20", *includes, str(file), "-o", built], check=False).returncode:
            failed = True
        elif subprocess.run([built], check=False).returncode:
            failed = True
    return int(failed)


if __name__ == "__main__":
    sys.exit(main())
