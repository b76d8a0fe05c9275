#!/usr/bin/env python3
"""Writes the hand-made inputs of the stream and the record target into corpus/, each under a name that tells what it
is. Run it in any folder; it changes nothing else there.

A stream input is a byte that says how to cut it, then the stream; with the high bit set, a script (StreamScript.h). A
record input is a byte, 1 if the description comes as a payload, its length in two bytes, the description, the record.
"""

import pathlib
import struct
import zlib

CORPUS = pathlib.Path(__file__).resolve().parent / "corpus"
SIGNED, UNSIGNED, FLOAT, STRUCTURE, END = 1, 2, 3, 0xFE, 0xFF


def item(tag, operand):
    return struct.pack(">BI", tag, operand)


def node(name, kind, offset, size, extents=(), root=b""):
    text = item(0x64, len(name)) + name + item(0x65, len(extents)) + struct.pack(f">{len(extents)}I", *extents)
    return text + item(0x66, offset) + item(0x67, size) + root + item(0x96, kind)


def record(name, size, *fields):
    return node(name, STRUCTURE, 0, size, root=item(0x68, size)) + b"".join(fields) + item(0x96, END)


def structure(name, offset, size, extents, *fields):
    return node(name, STRUCTURE, offset, size, extents) + b"".join(fields) + item(0x96, END)


def payload(items, announced=None):
    header = bytes.fromhex("dade030001000000") + struct.pack(">I", len(items) if announced is None else announced)
    return header + b"\x02" + zlib.compress(items, 9)


def diagnostics(slots):
    profiling = structure(b"profiling", 24, 24, (), node(b"runtimeMsecs", FLOAT, 24, 4),
                          node(b"maxRuntimeMsecs", FLOAT, 28, 4), node(b"cumRuntimeMsecs", FLOAT, 32, 8),
                          node(b"numCalls", UNSIGNED, 40, 4), node(b"avgRuntimeMsecs", FLOAT, 44, 4))
    package = structure(b"diags", 8, 40, (slots,), node(b"queue_ptr", UNSIGNED, 8, 4),
                        node(b"firstChannelID", SIGNED, 12, 4), node(b"waitedForQueue", SIGNED, 16, 4),
                        node(b"skipped", SIGNED, 20, 4), profiling)
    return record(b"LodestoneDiag", 8 + 40 * slots, node(b"queueLength", SIGNED, 0, 4),
                  node(b"numSkipped", SIGNED, 4, 4), package)


NUMBERS = record(b"N", 42, node(b"a", SIGNED, 0, 1), node(b"b", SIGNED, 1, 2), node(b"c", UNSIGNED, 4, 4),
                 node(b"d", SIGNED, 8, 8), node(b"e", FLOAT, 16, 4), node(b"f", FLOAT, 20, 8),
                 node(b"text", UNSIGNED, 28, 1, (6,)), node(b"m", SIGNED, 34, 2, (2, 2)))
NESTED = record(b'Q"\\', 64, structure(b"s", 0, 16, (2, 2), structure(b"t", 4, 4, (3,), node(b"x", UNSIGNED, 5, 1, (3,)))))
DEEP = record(b"D", 4, *[node(b"s", STRUCTURE, 0, 4)] * 31, *[item(0x96, END)] * 31)


def cycle(counter, *entries):
    return struct.pack("<iIi", 0, counter, len(entries)) + b"".join(entries)


def part(channel, buffer, parts=1, number=0):
    base = max(len(buffer) // parts, 1)
    begin = min(max(number, 0) * base, len(buffer))
    end = len(buffer) if number == parts - 1 or number < 0 else min(begin + base, len(buffer))
    return struct.pack("<5i", channel, parts, len(buffer), number, end - begin) + buffer[begin:end]


def header(channel, parts, total, number, size):
    return struct.pack("<5i", channel, parts, total, number, size)


BUFFER = bytes(range(10))
PAIR = part(10998, bytes(range(208))), part(10999, payload(diagnostics(5)).ljust(256, b"\0"))
STREAMS = {
    "once": cycle(1, part(7, BUFFER, 1, -1), part(8, b"", 1, -1)) + cycle(2, part(9, BUFFER), *PAIR),
    "parts": b"".join(cycle(5 + i, part(1, BUFFER, 3, i), part(2, BUFFER[:2], 4, i % 4)) for i in range(4)),
    "twin": cycle(1, part(1, BUFFER, 2), part(1, BUFFER, 2)) + cycle(2, part(1, BUFFER, 2, 1), part(1, BUFFER, 2, 1)),
    "lost": cycle(1, part(1, BUFFER, 3)) + cycle(2, part(2, b"x")) + cycle(9, part(1, BUFFER, 3, 2)),
    "orphan": cycle(0xFFFFFFFF, part(1, BUFFER, 3, 1)) + cycle(0, part(1, BUFFER, 3, 2)),
    "negative": cycle(1, header(3, 2, -5, 1, 0), header(4, 1, -(2**31), 0, 0)),
    "numbers": cycle(1, part(1, bytes(range(200, 242))), part(2, payload(NUMBERS))),
    "redescribed": cycle(1, part(2, payload(NUMBERS)), part(1, bytes(42))) + cycle(2, part(2, payload(NESTED)), part(1, bytes(64))),
    "redescribed-record": cycle(1, part(1, bytes(42)), part(2, payload(NUMBERS))) + cycle(2, part(2, payload(NESTED))),
    "version": struct.pack("<iIi", 1, 1, 1),
    "entries": struct.pack("<iIi", 0, 1, 2**20 + 1),
    "slicing": cycle(1, header(1, 3, 10, 2, 3)),
    "mixed": cycle(1, part(1, BUFFER), part(2, BUFFER, 1, -1)),
    "bomb": cycle(1, part(2, payload(bytes(400000), 400000))),
    "regression-part-announced": cycle(1, header(1, 1, 3000000, 0, 3000000), b"xyz"),
    "regression-whole-announced": cycle(1, header(1, 1000000, 3000000, 0, 3), b"xyz"),
    "regression-many-packages": cycle(1, part(10998, b"\1" * (8 + 40 * 257)), part(10999, payload(diagnostics(257)))),
    "regression-description-announced": cycle(1, part(2, payload(NUMBERS, 16000))),
}
SCRIPTS = {
    "script-pair": bytes((1, 0xE5, 0xC6, 1, 0xE5, 0xC6)),
    "script-parts": bytes((0, 0x0A, 9, 0, 0, 0x0A, 9, 1, 0x40, 3, 0x0A, 9, 1)),
    "script-tiny": bytes((0, 0x18, 2, 0, 0, 0x18, 2, 1, 0, 0x18, 2, 2, 0, 0x18, 2, 3)),
    "script-once": bytes((0x81, 0x01, 3, 0x02, 4, 0, 0x01, 5)),
    "script-described": bytes((1, 0x02, 16, 0xA3, 16, 2, 0x04, 0, 0x15, 4)) * 2,
}
RECORDS = {
    "numbers": (NUMBERS, bytes(range(28)) + b"text\0\0" + bytes(range(1, 9))),
    "nan": (NUMBERS, b"\xff" * 42),
    "nested": (NESTED, b"s[1][0].t[2].x[1]".ljust(64, b"\1")),
    "deep": (DEEP, b"abcd"),
    "too-deep": (record(b"D", 4, *[node(b"s", STRUCTURE, 0, 4)] * 32, *[item(0x96, END)] * 32), b""),
    "diagnostics": (diagnostics(5), bytes(range(208))),
    "diagnostics-other": (record(b"LodestoneDiag", 8, node(b"queueLength", FLOAT, 0, 8)), bytes(8)),
    "extents": (record(b"R", 64, node(b"x", SIGNED, 0, 8, (0xFFFFFFFF,) * 3)), b""),
    "overlap": (record(b"R", 64, node(b"x", SIGNED, 0, 8), node(b"y", SIGNED, 7, 1)), b""),
    "before": (record(b"R", 64, structure(b"s", 8, 8, (), node(b"x", SIGNED, 0, 8))), b""),
    "overlap-array": (record(b"R", 64, node(b"x", SIGNED, 0, 8, (2,)), node(b"y", SIGNED, 8, 1)), b""),
    "twice": (record(b"R", 64, node(b"x", SIGNED, 0, 8), node(b"x", SIGNED, 8, 1)), b""),
    "wraps": (record(b"R", 64, node(b"x", SIGNED, 0xFFFFFFFF, 8)), b""),
    "outside": (record(b"R", 64, node(b"x", SIGNED, 60, 8)), b""),
}
PAYLOADS = {
    "payload": (payload(NUMBERS), bytes(42)),
    "payload-bomb": (payload(bytes(1000000), 1000), b""),
    "payload-short": (payload(NUMBERS, 500), b""),
    "payload-cut": (payload(NUMBERS)[:60], b""),
}


def write(target, name, content):
    folder = CORPUS / target
    folder.mkdir(parents=True, exist_ok=True)
    (folder / name).write_bytes(content)


for number, (name, stream) in enumerate(STREAMS.items()):
    write("stream", name, bytes([number % 4]) + stream)
for number, (name, script) in enumerate(SCRIPTS.items()):
    write("stream", name, bytes([0x80 + number % 4]) + script)
for raw, inputs in (0, RECORDS), (1, PAYLOADS):
    for name, (description, content) in inputs.items():
        write("record", name, struct.pack("<BH", raw, len(description)) + description + content)
