#!/usr/bin/env python3
"""Writes the seed corpora under fuzz/corpus/: a few small, valid inputs per
fuzzer, from which the mutations start. Run again after changing an input
layout; the files are committed so a run needs no generator. Inputs that
once found a bug sit beside the seeds (store_fuzz/overcounted_block) and are
kept as they are: CTest replays every corpus file."""

import lzma
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def write(target, name, data):
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


def record(type_id, version, fixed_size, slots=b"", variable=b"", time_ms=1_724_000_000_000):
    """An event record: header, fixed part (slots, zero-padded) and variable part."""
    fixed = slots.ljust(fixed_size - 24, b"\0")
    size = 24 + len(fixed) + len(variable)
    return struct.pack("<IIHHIQ", type_id, 0, version, size, 0, time_ms) + fixed + variable


def process_create():
    # edr_process_create (107): pid at 40, path text at 80, command line at 82.
    slots = bytearray(132 - 24)
    struct.pack_into("<I", slots, 40 - 24, 4242)
    struct.pack_into("<HH", slots, 80 - 24, 132, 132 + 13)
    return record(107, 1, 132, bytes(slots), b"/usr/bin/tar\0tar -xf a,b\0")


def computer_object_changed():
    # edr_computer_object_changed (250): a text list at 26 (count, offset).
    slots = bytearray(44 - 24)
    struct.pack_into("<HH", slots, 26 - 24, 2, 44)
    texts = b"cn\0a,\"b\"\0"
    return record(250, 1, 44, bytes(slots), struct.pack("<HH", 48, 51) + texts)


def naming_context_removed():
    # edr_ad_naming_context_removed (249): an address at 28 (flag, bytes).
    slots = bytearray(32 - 24)
    struct.pack_into("<H", slots, 28 - 24, 32)
    return record(249, 1, 32, bytes(slots), b"\x01" + bytes(range(16)))


RECORDS = [process_create(), computer_object_changed(), naming_context_removed()]


def raw_block(records, seconds):
    body = b"".join(records)
    table = b""
    offset = 0
    for rec, second in zip(records, seconds):
        table += struct.pack("<II", offset, second)
        offset += len(rec)
    return body, body + table


# ---- index_fuzz: "storage.index.db" -----------------------------------------

def index_file(records, timestamp=1_724_000_000, count=None):
    count = len(records) if count is None else count
    head = b"ETRN" + struct.pack("<HIQ", 2, count, timestamp) + bytes(16)
    body = b""
    for offset, day, version, events, start, end in records:
        body += struct.pack("<IHBQ", offset, day, version, events | start << 25 | end << 42)
    return head + body


write("index_fuzz", "empty", index_file([]))
write("index_fuzz", "three_days", index_file([
    (20, 9000, 2, 3, 10, 500), (700, 9000, 2, 1, 600, 600), (20, 9000, 1, 9, 0, 86399),
    (20, 9001, 2, 40, 100, 90), (20, 9005, 0, 1, 1, 1)]))
write("index_fuzz", "bad_records", index_file([
    (20, 7, 2, 0, 1, 2), (20, 7, 3, 1, 1, 2), (20, 7, 2, 5, 86400, 3), (20, 8, 2, 2, 3, 4)]))

# ---- final_fuzz: "storage.final.db" ------------------------------------------


def final_file(records, seconds, day, magic=b"ETRN"):
    body, raw = raw_block(records, seconds)
    head = magic + struct.pack("<I", 2) + bytes(24)
    head += struct.pack("<IIIH", len(body), len(records), len(raw), day)
    return head + bytes(b ^ 0xFF for b in raw)


write("final_fuzz", "three_events", final_file(RECORDS, [5, 5, 86399], 9001))
write("final_fuzz", "one_event", final_file(RECORDS[:1], [0], 0))
write("final_fuzz", "incomplete", final_file(RECORDS[1:], [7, 8], 12, magic=bytes(4)))

# ---- store_fuzz: [flags] then sections [kind, where, ...] -------------------
# kinds: 0 built block (u16 table offset, u16 length, raw), 1 verbatim bytes
# (u16 length, bytes), 2 index record (15 bytes), 3 shutdown file (u16
# length, bytes), 4 day-file header (20 bytes). `where`: day in bits 0-1,
# 2 minus the version in 2-3, bit 6: a new file gets no header, bit 7: not
# indexed. Indexed sections other than an
# honest built block carry u32 count, u24 start and u24 end seconds.


def built(where, records, seconds, extra=b""):
    body, raw = raw_block(records, seconds)
    return bytes([0, where]) + struct.pack("<HH", len(body), len(raw)) + raw + extra


def fields(count, start, end):
    return struct.pack("<I", count) + struct.pack("<I", start)[:3] + struct.pack("<I", end)[:3]


# Flags: 1 honest index, clock day in bits 1-3, 0x10 two days kept, 0x60 append.
write("store_fuzz", "two_days", bytes([0x01 | (3 << 1)]) +
      built(0, RECORDS, [10, 20, 30]) + built(0, RECORDS[:2], [40, 41]) + built(1, RECORDS[2:], [5]))
write("store_fuzz", "append_after_torn_tail", bytes([0x61 | (1 << 1)]) +
      built(0, RECORDS, [1, 2, 3]) + bytes([1, 0x80]) + struct.pack("<H", 7) + b"\x30\0\0\0\x10\0\0")
_, raw = raw_block(RECORDS[:2], [100, 200])
xz = bytes(b ^ 0xFF for b in lzma.compress(raw, format=lzma.FORMAT_XZ, check=lzma.CHECK_CRC32))
verbatim = struct.pack("<III", len(xz), len(raw), len(raw) - 16) + xz
write("store_fuzz", "fuzzed_counts_and_final", bytes([0x00 | (2 << 1)]) +
      built(0, RECORDS, [9, 9, 9], fields(3, 9, 9)) +
      bytes([1, 1]) + struct.pack("<H", len(verbatim)) + verbatim + fields(2, 100, 200) +
      bytes([3, 0]) + struct.pack("<H", len(final_file(RECORDS[:1], [50], 9002))) +
      final_file(RECORDS[:1], [50], 9002))

# ---- osquery_fuzz: table, flags, u16 constraints, u8 columns, record -------


def query(table_index, constraints, columns, rec, flags=0):
    c = constraints.encode()
    k = columns.encode()
    return bytes([table_index, flags]) + struct.pack("<H", len(c)) + c + bytes([len(k)]) + k + rec


write("osquery_fuzz", "process_create", query(94, (
    '{"path": {"affinity": "text", "list": [{"op": 65, "expr": "%/TAR"}]},'
    ' "pid": {"affinity": "bigint", "list": [{"op": 32, "expr": "4000"}]}}'),
    "pid,path,date_time", RECORDS[0]))
write("osquery_fuzz", "text_list", query(4, (
    '{"attribute_names": {"affinity": "text", "list": [{"op": 2, "expr": "cn,\\"a,\\"\\"b\\"\\"\\""}]}}'),
    "", RECORDS[1], flags=0x80))
write("osquery_fuzz", "address", query(0, (
    '{"source_addr": {"affinity": "text", "list": [{"op": 4, "expr": "::1"}]},'
    ' "x": {"affinity": "double", "list": [{"op": 16, "expr": "1e3"}]}}'),
    "source_addr", RECORDS[2], flags=0x40))
