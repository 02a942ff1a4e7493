#!/usr/bin/env python3
"""Writes the per-table C++ of the event tables from tarn_osquery_schema.proto.

The proto is the one list of tables and columns. This script adds what the
proto cannot say: each table's event type id and name, the record version a
table accepts, and which string columns hold addresses or lists. From that it
writes, into the build tree:

  TablesData.cpp   column descriptors, table descriptors, name and id lookups
  Matchers.cpp     one constraint matcher per table and their dispatch array
  Converters.cpp   one record-to-row converter per table and their array
  Builders.cpp     one row-to-record builder per table (tests and tools)
  RowPrototype.h/.cpp   each table's row message by type id, for reflection
  schema_roundtrip_test.cpp   a round trip of every table through the above

Record layout (all tables): the 24-byte header holds date_time at offset 16;
then one slot per further column in field-number order: uint32 4 bytes, uint64
8 bytes, text and address a u16 offset, text and number lists a u16 count and
a u16 offset.

Accepted record versions: every table accepts exactly one version, 1 unless
ACCEPTED_VERSIONS (in event_types.py, with the type ids) says otherwise. The
layout is the same for every version.

Any violation of the schema's rules (names, order, types, field numbers, the
id registry) fails the build with a message naming the message and field.

Standard library only.
"""

import argparse
import os
import re
import sys

sys.dont_write_bytecode = True  # the build leaves nothing in the source tree
from event_types import ACCEPTED_VERSIONS, EVENT_TYPES  # noqa: E402

# String columns that are not plain texts, by name.
ADDRESS_COLUMNS = {
    "local_ip", "remote_ip", "source_ip", "target_ip", "requester_ip", "ip_address",
    "source_addr",
}
NUMBER_LIST_COLUMNS = {"notification_severities", "command_line_indexes"}
TEXT_LIST_COLUMNS = {
    "gateway_macs", "extra_keys", "extra_values", "attachements_md5_hashes",
    "attachements_content_type", "attachements_names", "attachment_ur_is", "actions_taken",
    "notification_types", "notification_engines", "notification_names", "sha1_thumbprints",
    "sha256_thumbprints", "command_lines", "new_command_lines", "target_paths",
    "new_target_processes", "attribute_names", "attribute_values", "groups", "capabilities",
    "devices", "dns", "ips", "mounts", "networks", "volumes", "sid_history", "claims",
    "device_claims",
}

# Columns shared by the tables about a process action: (number, type) by name.
PROCESS_COLUMNS = {"pid_time_stamp": (2, "uint64"), "puid": (3, "uint64"), "pid": (4, "uint32")}

MIN_TYPE_ID = 2
MAX_TYPE_ID = 407
HEADER_SIZE = 24
TIME_STAMP_OFFSET = 16
MAX_RECORD_SIZE = 0xFFFF

# Column kind: (C++ enumerator, slot bytes).
KINDS = {
    "date_time": ("kDateTime", 0),
    "uint32": ("kUInt32", 4),
    "uint64": ("kUInt64", 8),
    "text": ("kText", 2),
    "address": ("kAddress", 2),
    "text_list": ("kTextList", 4),
    "number_list": ("kNumberList", 4),
}

# Field names that protoc suffixes with "_" in C++ accessors.
CPP_KEYWORDS = {
    "alignas", "alignof", "and", "and_eq", "asm", "auto", "bitand", "bitor", "bool", "break",
    "case", "catch", "char", "class", "compl", "const", "constexpr", "const_cast", "continue",
    "decltype", "default", "delete", "do", "double", "dynamic_cast", "else", "enum",
    "explicit", "export", "extern", "false", "float", "for", "friend", "goto", "if", "inline",
    "int", "long", "mutable", "namespace", "new", "noexcept", "not", "not_eq", "nullptr",
    "operator", "or", "or_eq", "private", "protected", "public", "register",
    "reinterpret_cast", "return", "short", "signed", "sizeof", "static", "static_assert",
    "static_cast", "struct", "switch", "template", "this", "thread_local", "throw", "true",
    "try", "typedef", "typeid", "typename", "union", "unsigned", "using", "virtual", "void",
    "volatile", "wchar_t", "while", "xor", "xor_eq", "char8_t", "char16_t", "char32_t",
    "concept", "consteval", "constinit", "co_await", "co_return", "co_yield", "requires",
}


class SchemaError(Exception):
    pass


def fnv1a(text):
    h = 0x811C9DC5
    for byte in text.encode("utf-8"):
        h ^= byte
        h = (h * 0x01000193) & 0xFFFFFFFF
    return h


def snake_case(camel):
    s = re.sub(r"([A-Z]+)([A-Z][a-z])", r"\1_\2", camel)
    s = re.sub(r"([a-z0-9])([A-Z])", r"\1_\2", s)
    return s.lower()


def column_kind(field_type, name):
    if name == "date_time":
        return "date_time"
    if field_type != "string":
        return field_type
    if name in ADDRESS_COLUMNS:
        return "address"
    if name in NUMBER_LIST_COLUMNS:
        return "number_list"
    if name in TEXT_LIST_COLUMNS:
        return "text_list"
    return "text"


# ---------------------------------------------------------------------------
# Reading the proto. The schema uses a small part of proto3 on purpose, so the
# reader accepts only that: a syntax line and flat messages of scalar fields.

TOKEN = re.compile(r'\s*(?:(//[^\n]*)|(/\*.*?\*/)|("[^"\n]*")|([A-Za-z_][A-Za-z0-9_.]*)'
                   r'|(\d+)|(\S))', re.S)


def tokenize(text):
    tokens = []
    pos = 0
    while pos < len(text):
        m = TOKEN.match(text, pos)
        if m is None or m.end() == pos:
            break
        pos = m.end()
        if m.group(1) or m.group(2):
            continue
        tokens.append(next(g for g in m.groups()[2:] if g is not None))
    return tokens


class Reader:
    def __init__(self, tokens):
        self.tokens = tokens
        self.pos = 0

    def peek(self):
        return self.tokens[self.pos] if self.pos < len(self.tokens) else None

    def take(self, expected=None, what=None):
        token = self.peek()
        if token is None or (expected is not None and token != expected):
            raise SchemaError("expected %s, found %r" % (what or repr(expected), token))
        self.pos += 1
        return token


def parse_proto(text):
    r = Reader(tokenize(text))
    r.take("syntax")
    r.take("=")
    if r.take(what="syntax string") != '"proto3"':
        raise SchemaError('the schema must be syntax = "proto3"')
    r.take(";")
    messages = []
    while r.peek() is not None:
        keyword = r.take(what="'message'")
        if keyword != "message":
            raise SchemaError("only messages may follow the syntax line, found %r" % keyword)
        name = r.take(what="message name")
        r.take("{")
        fields = []
        while r.peek() != "}":
            field_type = r.take(what="field type")
            if field_type not in ("uint32", "uint64", "string"):
                raise SchemaError("%s: type %r is not uint32, uint64 or string"
                                  % (name, field_type))
            field_name = r.take(what="field name")
            if not re.fullmatch(r"[a-z][a-z0-9_]*", field_name):
                raise SchemaError("%s: field name %r is not lower snake case" % (name, field_name))
            r.take("=")
            number = r.take(what="field number")
            if not number.isdigit():
                raise SchemaError("%s.%s: field number %r" % (name, field_name, number))
            r.take(";")
            fields.append((int(number), field_type, field_name))
        r.take("}")
        messages.append((name, fields))
    return messages


# ---------------------------------------------------------------------------
# Checking the schema and laying out the records.

def build_tables(messages):
    by_snake = {}
    for type_id, event_type in EVENT_TYPES:
        if not MIN_TYPE_ID <= type_id <= MAX_TYPE_ID:
            raise SchemaError("event type %s has id %d outside %d..%d"
                              % (event_type, type_id, MIN_TYPE_ID, MAX_TYPE_ID))
        table = "edr_" + snake_case(event_type)
        if table in by_snake:
            raise SchemaError("event types %s and %s give one table name %s"
                              % (by_snake[table][1], event_type, table))
        by_snake[table] = (type_id, event_type)
    ids = [t for t, _ in EVENT_TYPES]
    if len(set(ids)) != len(ids):
        raise SchemaError("two event types share an id")
    for type_id in ACCEPTED_VERSIONS:
        if type_id not in ids:
            raise SchemaError("accepted version given for id %d, which has no table" % type_id)

    tables = []
    seen = set()
    for name, fields in messages:
        if name not in by_snake:
            raise SchemaError("message %s is not edr_ + the snake case name of an event type"
                              % name)
        if name in seen:
            raise SchemaError("message %s is declared twice" % name)
        seen.add(name)
        type_id, event_type = by_snake[name]
        tables.append(layout_table(name, type_id, event_type, fields))
    missing = sorted(set(by_snake) - seen)
    if missing:
        raise SchemaError("event types without a message: %s" % ", ".join(missing))

    order = [t["event_type"] for t in tables]
    for before, after in zip(order, order[1:]):
        if before >= after:
            raise SchemaError("messages are not in ascending order of event type name: %s, %s"
                              % (before, after))
    hashes = {}
    for t in tables:
        if t["hash"] in hashes:
            raise SchemaError("tables %s and %s share a name hash" % (hashes[t["hash"]], t["name"]))
        hashes[t["hash"]] = t["name"]
    return tables


def layout_table(name, type_id, event_type, fields):
    fields = sorted(fields)
    numbers = [n for n, _, _ in fields]
    if len(set(numbers)) != len(numbers):
        raise SchemaError("%s: two fields share a number" % name)
    names = [f for _, _, f in fields]
    if len(set(names)) != len(names):
        raise SchemaError("%s: two fields share a name" % name)
    if not fields or fields[0] != (1, "uint64", "date_time"):
        raise SchemaError("%s: field 1 must be uint64 date_time" % name)
    if numbers != list(range(1, len(numbers) + 1)):
        raise SchemaError("%s: field numbers must run 1, 2, 3, ... without gaps" % name)
    for number, field_type, field_name in fields:
        if field_name in PROCESS_COLUMNS and "pid_time_stamp" in names:
            if PROCESS_COLUMNS[field_name] != (number, field_type):
                raise SchemaError("%s.%s: a process table has it as field %d %s"
                                  % ((name, field_name) + PROCESS_COLUMNS[field_name]))

    columns = []
    slot = HEADER_SIZE
    column_hashes = {}
    for number, field_type, field_name in fields:
        kind = column_kind(field_type, field_name)
        h = fnv1a(field_name)
        if h in column_hashes:
            raise SchemaError("%s: columns %s and %s share a name hash"
                              % (name, column_hashes[h], field_name))
        if h == fnv1a("*"):
            raise SchemaError("%s.%s: the name hash is that of \"*\"" % (name, field_name))
        column_hashes[h] = field_name
        if kind == "date_time":
            offset = TIME_STAMP_OFFSET
        else:
            offset = slot
            slot += KINDS[kind][1]
        accessor = field_name + "_" if field_name in CPP_KEYWORDS else field_name
        columns.append({"name": field_name, "hash": h, "kind": kind, "slot": offset,
                        "field": number, "accessor": accessor})
    if slot > MAX_RECORD_SIZE:
        raise SchemaError("%s: the fixed part does not fit in a record" % name)
    return {"name": name, "type_id": type_id, "event_type": event_type, "hash": fnv1a(name),
            "version": ACCEPTED_VERSIONS.get(type_id, 1), "fixed_size": slot,
            "columns": columns}


# ---------------------------------------------------------------------------
# Writing the C++.

BANNER = "// Generated by generate_tables.py from tarn_osquery_schema.proto. Do not edit.\n"


def hex32(value):
    return "0x%08Xu" % value


def cpp_string(text):
    out = []
    for byte in text.encode("utf-8"):
        c = chr(byte)
        if c in '"\\':
            out.append("\\" + c)
        elif 0x20 <= byte < 0x7F:
            out.append(c)
        else:
            out.append("\\%03o" % byte)
    return '"' + "".join(out) + '"'


def write_tables_data(tables):
    out = [BANNER, '#include "osquery/Generated.h"\n\n',
           "namespace Tarn::Storage::OSQuery {\nnamespace {\n\n"]
    for t in tables:
        out.append("constexpr ColumnInfo kColumns_%s[] = {\n" % t["name"])
        for c in t["columns"]:
            out.append('    {"%s", %s, %d, %d, ColumnKind::%s},\n'
                       % (c["name"], hex32(c["hash"]), c["slot"], c["field"], KINDS[c["kind"]][0]))
        out.append("};\n\n")
    out.append("}  // namespace\n\n")
    out.append("const TableInfo kTables[] = {\n")
    for t in tables:
        out.append('    {"%s", "%s", %s, %d, %d, %d, %d, kColumns_%s},\n'
                   % (t["name"], t["event_type"], hex32(t["hash"]), t["type_id"], t["version"],
                      t["fixed_size"], len(t["columns"]), t["name"]))
    out.append("};\n\nconst uint32_t kTableCount = %d;\n\n" % len(tables))

    slots = [0] * (MAX_TYPE_ID - MIN_TYPE_ID + 1)
    for index, t in enumerate(tables):
        slots[t["type_id"] - MIN_TYPE_ID] = index + 1
    out.append("const uint8_t kTableSlotById[%d] = {\n" % len(slots))
    for i in range(0, len(slots), 20):
        out.append("    " + ", ".join(str(v) for v in slots[i:i + 20]) + ",\n")
    out.append("};\n\n")

    out.append("uint32_t TableIdByName(std::string_view name) {\n  uint32_t index;\n"
               "  switch (NameHash(name)) {\n")
    for index, t in enumerate(tables):
        out.append("    case %s: index = %d; break;\n" % (hex32(t["hash"]), index))
    out.append("    default: return 0;\n  }\n"
               "  // A name of another table may share the hash; this one is looked up once.\n"
               "  return name == kTables[index].name ? kTables[index].type_id : 0;\n}\n\n")

    out.append("const char* EventTypeName(uint32_t type_id) {\n  switch (type_id) {\n")
    for t in sorted(tables, key=lambda t: t["type_id"]):
        out.append('    case %d: return "%s";\n' % (t["type_id"], t["event_type"]))
    out.append("    default: return nullptr;\n  }\n}\n\n}  // namespace Tarn::Storage::OSQuery\n")
    return "".join(out)


MATCH_CALLS = {
    "date_time": "PassDateTime(c)",
    "uint32": "MatchNumberColumn(r.UInt32(%(slot)d), c)",
    "uint64": "MatchNumberColumn(r.UInt64(%(slot)d), c)",
    "text": "MatchTextColumn(r.Text(%(slot)d), c)",
    "address": "MatchAddressColumn(r, %(slot)d, c)",
    "text_list": "MatchTextListColumn(r, %(slot)d, c)",
    "number_list": "MatchNumberListColumn(r, %(slot)d, c)",
}


def write_matchers(tables):
    out = [BANNER, '#include "osquery/Generated.h"\n#include "osquery/MatchColumns.h"\n\n',
           "namespace Tarn::Storage::OSQuery {\nnamespace {\n\n"]
    for t in tables:
        out.append("bool Match_%s(const Events::EventReader& r, const ConstraintsList& list) {\n"
                   % t["name"])
        if len(t["columns"]) == 1:
            out.append("  (void)r;\n")
        out.append("  for (const Constraint& c : list.Items()) {\n    bool pass;\n"
                   "    switch (c.column_hash) {\n")
        for c in t["columns"]:
            out.append("      case %s: pass = %s; break;  // %s\n"
                       % (hex32(c["hash"]), MATCH_CALLS[c["kind"]] % c, c["name"]))
        out.append("      default: pass = PassUnknownColumn(c); break;\n    }\n"
                   "    if (!pass) return false;\n  }\n  return true;\n}\n\n")
    out.append("}  // namespace\n\nconst MatchFn kMatchers[] = {\n")
    for t in tables:
        out.append("    Match_%s,\n" % t["name"])
    out.append("};\n\n}  // namespace Tarn::Storage::OSQuery\n")
    return "".join(out)


ROW_VALUES = {
    "text": "RowText(r, %(slot)d)",
    "address": "RowAddress(r, %(slot)d)",
    "text_list": "RowTextList(r, %(slot)d)",
    "number_list": "RowNumberList(r, %(slot)d)",
}


def write_converters(tables):
    out = [BANNER, '#include "tarn_osquery_schema.pb.h"\n\n#include "osquery/Generated.h"\n'
           '#include "osquery/RowFields.h"\n\n',
           "namespace Tarn::Storage::OSQuery {\nnamespace {\n\nusing google::protobuf::Arena;\n"
           "using google::protobuf::Message;\n\n"]
    for index, t in enumerate(tables):
        out.append("Message* Convert_%s(Arena* arena, const Events::EventReader& r,\n"
                   "    const ColumnSelection& selection) {\n" % t["name"])
        out.append("  auto* row = Arena::CreateMessage<::%s>(arena);\n" % t["name"])
        out.append("  const SelectedColumns columns(selection, kTables[%d]);\n" % index)
        out.append("  for (uint32_t i = 0; i < columns.Count(); ++i) {\n"
                   "    switch (columns.Hash(i)) {\n")
        for c in t["columns"]:
            kind = c["kind"]
            out.append("      case %s:  // %s\n" % (hex32(c["hash"]), c["name"]))
            if kind in ("date_time", "uint64"):
                out.append("        row->set_%s(r.UInt64(%d));\n" % (c["accessor"], c["slot"]))
            elif kind == "uint32":
                out.append("        row->set_%s(r.UInt32(%d));\n" % (c["accessor"], c["slot"]))
            else:
                out.append("        if (auto v = %s; !v.empty()) row->set_%s(v.data(), v.size());\n"
                           % (ROW_VALUES[kind] % c, c["accessor"]))
            out.append("        break;\n")
        out.append("      default:\n        break;\n    }\n  }\n  return row;\n}\n\n")
    out.append("}  // namespace\n\nconst ConvertFn kConverters[] = {\n")
    for t in tables:
        out.append("    Convert_%s,\n" % t["name"])
    out.append("};\n\n}  // namespace Tarn::Storage::OSQuery\n")
    return "".join(out)


BUILD_CALLS = {
    "uint32": "b.AddUInt32(row.%(accessor)s())",
    "uint64": "b.AddUInt64(row.%(accessor)s())",
    "text": "b.AddText(row.%(accessor)s())",
    "address": "AddAddressColumn(b, row.%(accessor)s())",
    "text_list": "AddTextListColumn(b, row.%(accessor)s())",
    "number_list": "AddNumberListColumn(b, row.%(accessor)s())",
}


def write_builders(tables):
    out = [BANNER, '#include "tarn_osquery_schema.pb.h"\n\n#include "osquery/Generated.h"\n'
           '#include "osquery/RecordColumns.h"\n\n',
           "namespace Tarn::Storage::OSQuery {\nnamespace {\n\n"
           "using google::protobuf::Message;\n\n"]
    for t in tables:
        out.append("bool Build_%s(const Message& message, uint16_t version,\n"
                   "    Events::DynamicEventBuilder& b) {\n" % t["name"])
        out.append("  if (message.GetDescriptor() != ::%s::descriptor()) return false;\n"
                   % t["name"])
        out.append("  const auto& row = static_cast<const ::%s&>(message);\n" % t["name"])
        out.append("  bool ok = b.Begin(%d, version, row.date_time());\n" % t["type_id"])
        for c in t["columns"][1:]:
            out.append("  ok = ok && %s;\n" % (BUILD_CALLS[c["kind"]] % c))
        out.append("  return ok && b.Finish();\n}\n\n")
    out.append("}  // namespace\n\nconst BuildFn kBuilders[] = {\n")
    for t in tables:
        out.append("    Build_%s,\n" % t["name"])
    out.append("};\n\n}  // namespace Tarn::Storage::OSQuery\n")
    return "".join(out)


ROW_PROTOTYPE_HEADER = BANNER + """#pragma once

#include <cstdint>

namespace google::protobuf {
class Message;
}  // namespace google::protobuf

namespace Tarn::Storage::OSQuery {

// The default instance of the row message of `type_id`'s table, or null when
// the type has no table. Rows are made from it (New) and read through
// reflection, so that no other code names the generated classes or includes
// their header of several megabytes.
const google::protobuf::Message* RowPrototype(uint32_t type_id);

}  // namespace Tarn::Storage::OSQuery
"""


def write_row_prototypes(tables):
    out = [BANNER, '#include "generated/RowPrototype.h"\n\n'
           '#include "tarn_osquery_schema.pb.h"\n\nnamespace Tarn::Storage::OSQuery {\n\n'
           "const google::protobuf::Message* RowPrototype(uint32_t type_id) {\n"
           "  switch (type_id) {\n"]
    for t in sorted(tables, key=lambda t: t["type_id"]):
        out.append("    case %d: return &::%s::default_instance();\n" % (t["type_id"], t["name"]))
    out.append("    default: return nullptr;\n  }\n}\n\n}  // namespace Tarn::Storage::OSQuery\n")
    return "".join(out)


def sample_value(t, index, c):
    """A value of the column that no other column of the table repeats."""
    kind, n = c["kind"], c["field"]
    if kind == "date_time":
        return 1700000000000 + index * 1000 + 7
    if kind == "uint32":
        return 0x80000000 + index * 64 + n
    if kind == "uint64":
        return 0x8000000000000000 + (index << 16) + n
    if kind == "text":
        return "%s-%d-\u00e9\u2713" % (c["name"], index)
    if kind == "address":
        if n % 2 == 0:
            return "10.%d.%d.1" % (index, n)
        return "2001:db8::%x:%x" % (index + 1, n)
    if kind == "text_list":
        return 'a%d,"b,%d",c"d,"e""f,g"' % (n, index)
    if kind == "number_list":
        return "%d,18446744073709551615,0,%d" % (index, n)
    raise SchemaError("no sample for kind %s" % kind)


def write_round_trip_test(tables):
    out = [BANNER, "#include <gtest/gtest.h>\n\n#include \"tarn_osquery_schema.pb.h\"\n"
           '#include "schema/round_trip.h"\n\n',
           "namespace Tarn::Storage::OSQuery {\nnamespace {\n\n"]
    for index, t in enumerate(tables):
        out.append("TEST(SchemaRoundTrip, %s) {\n  ::%s row;\n" % (t["name"], t["name"]))
        values = []
        for c in t["columns"]:
            v = sample_value(t, index, c)
            literal = "UINT64_C(%d)" % v if isinstance(v, int) else cpp_string(v)
            values.append((c, v, literal))
            out.append("  row.set_%s(%s);\n" % (c["accessor"], literal))
        out.append("  ::%s back;\n  std::vector<uint8_t> record;\n"
                   "  ASSERT_TRUE(RoundTrip(row, %d, %d, back, record));\n"
                   % (t["name"], t["type_id"], t["version"]))
        for c, v, literal in values:
            out.append("  EXPECT_EQ(back.%s(), %s);\n" % (c["accessor"], literal))
        for c, v, literal in values:
            text = cpp_string(str(v))
            out.append('  ExpectFilters(record, "%s", ColumnKind::%s, %s);\n'
                       % (c["name"], KINDS[c["kind"]][0], text))
        out.append("}\n\n")
    out.append("}  // namespace\n}  // namespace Tarn::Storage::OSQuery\n")
    return "".join(out)


def self_check():
    # The hashes and names the query side relies on.
    assert fnv1a("date_time") == 0xE7657533
    assert fnv1a("naming_context") == 0x175326B5
    assert fnv1a("edr_amsi_buffer") == 0xE5D93564
    assert fnv1a("*") == 0x2F0C9F3D
    assert snake_case("ADNamingContextRemoved") == "ad_naming_context_removed"
    assert snake_case("NetworkHTTPConnectWinRM") == "network_http_connect_win_rm"
    assert snake_case("WMINewBinding") == "wmi_new_binding"


OUTPUTS = {
    "TablesData.cpp": write_tables_data,
    "Matchers.cpp": write_matchers,
    "Converters.cpp": write_converters,
    "Builders.cpp": write_builders,
    "RowPrototype.h": lambda tables: ROW_PROTOTYPE_HEADER,
    "RowPrototype.cpp": write_row_prototypes,
    "schema_roundtrip_test.cpp": write_round_trip_test,
}


def write_files(directory, texts):
    """Writes each file name's text into `directory`, each file replaced whole."""
    os.makedirs(directory, exist_ok=True)
    for file_name, text in texts.items():
        path = os.path.join(directory, file_name)
        with open(path + ".tmp", "w", encoding="utf-8") as f:
            f.write(text)
        os.replace(path + ".tmp", path)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--proto", required=True)
    parser.add_argument("--out", required=True, help="directory for the generated files")
    parser.add_argument("--check", action="store_true", help="check the schema, write nothing")
    args = parser.parse_args()
    self_check()
    try:
        with open(args.proto, encoding="utf-8") as f:
            tables = build_tables(parse_proto(f.read()))
    except SchemaError as error:
        print("%s: %s" % (args.proto, error), file=sys.stderr)
        return 1
    if args.check:
        return 0
    write_files(args.out, {name: writer(tables) for name, writer in OUTPUTS.items()})
    return 0


if __name__ == "__main__":
    sys.exit(main())
