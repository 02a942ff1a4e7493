#!/usr/bin/env python3
"""Writes the synthetic endpoint's per-table plan as C++ from tables.toml.

tables.toml says, for each event table, how common its events are, which
story makes them and which rule fills each column. This script reads the
schema with the schema generator's own reader and checks (generate_tables.py),
then checks the plan against it: every table, column, story, option and rule
named must exist, every option must be one the table's story reads, and every
column of every table must get a rule fit for its type. Any fault fails the
build with a message naming the entry. It writes, into the build tree:

  SyntheticPlan.h    the stories, options and rules as C++ enumerations
  SyntheticPlan.cpp  one plan per table, in the schema's order

Standard library only (tomllib: Python 3.11).
"""

import argparse
import re
import sys
import tomllib

sys.dont_write_bytecode = True  # the build leaves nothing in the source tree

SECTIONS = {"vocabulary", "weights", "stories", "options", "columns", "columns_in"}
NUMBER_KINDS = {"date_time", "uint32", "uint64"}


class PlanError(Exception):
    pass


def enumerator(name):
    return "k" + "".join(part[:1].upper() + part[1:] for part in name.split("_"))


def cpp_string(text):
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


class Patterns:
    """Table names where "*" stands for any run of characters."""

    def __init__(self, tables, where):
        self.tables = tables
        self.where = where

    def matches(self, pattern):
        if not re.fullmatch(r"[a-z0-9_*]+", pattern):
            raise PlanError("%s: \"%s\" is not a table name or pattern" % (self.where, pattern))
        regex = re.compile("^" + ".*".join(map(re.escape, pattern.split("*"))) + "$")
        found = [t for t in self.tables if regex.match(t)]
        if not found:
            raise PlanError("%s: \"%s\" matches no table of the schema" % (self.where, pattern))
        return found

    def longest(self, entries):
        """Table name -> the value of the longest pattern that matches it."""
        chosen = {}
        for pattern, value in entries.items():
            for table in self.matches(pattern):
                if table not in chosen or len(pattern) > len(chosen[table][0]):
                    chosen[table] = (pattern, value)
        return {table: value for table, (_, value) in chosen.items()}


def check_vocabulary(vocabulary):
    stories = vocabulary.get("stories", {})
    rules = vocabulary.get("rules", {})
    if not stories or set(rules) != {"number", "text"}:
        raise PlanError("vocabulary: needs stories and rules.number and rules.text")
    for story, options in stories.items():
        if not isinstance(options, list):
            raise PlanError("vocabulary.stories.%s: a list of the options it reads" % story)
    for kind in ("number", "text"):
        if len(set(rules[kind])) != len(rules[kind]) or "generic" not in rules[kind]:
            raise PlanError("vocabulary.rules.%s: names once each, \"generic\" among them" % kind)
    return stories, {kind: set(names) for kind, names in rules.items()}


def check_rule_name(where, rule, rules):
    if rule not in rules["number"] and rule not in rules["text"]:
        raise PlanError("%s: unknown rule \"%s\"" % (where, rule))


def build_plan(schema_tables, data):
    unknown = set(data) - SECTIONS
    if unknown:
        raise PlanError("unknown sections: %s" % ", ".join(sorted(unknown)))
    stories, rules = check_vocabulary(data.get("vocabulary", {}))
    names = [t["name"] for t in schema_tables]
    columns_of = {t["name"]: t["columns"] for t in schema_tables}

    weights = Patterns(names, "weights").longest(data.get("weights", {}))
    story_of = Patterns(names, "stories").longest(data.get("stories", {}))
    for table in names:
        if table not in weights or table not in story_of:
            raise PlanError("%s has no weight or no story (a \"*\" entry gives a default)" % table)
        if not isinstance(weights[table], (int, float)) or weights[table] <= 0:
            raise PlanError("weights: %s must be a number above 0" % table)
        if story_of[table] not in stories:
            raise PlanError("stories: %s has the unknown story \"%s\"" % (table, story_of[table]))

    # Options: a list gives a yes to the tables it matches; a table of
    # patterns gives each table the text of its longest match.
    flags = {table: [] for table in names}
    values = {}
    readers = {option for read in stories.values() for option in read}
    for option, entries in data.get("options", {}).items():
        where = "options." + option
        if option not in readers:
            raise PlanError("%s: no story reads it" % where)
        if isinstance(entries, list):
            chosen = {t: True for p in entries for t in Patterns(names, where).matches(p)}
            for table in chosen:
                flags[table].append(option)
        else:
            chosen = Patterns(names, where).longest(entries)
            values[option] = chosen
        for table in chosen:
            if option not in stories[story_of[table]]:
                raise PlanError("%s: %s tells its story \"%s\", which does not read it"
                                % (where, table, story_of[table]))

    # Column rules: by name, or by name in the tables of a pattern.
    every_column = {c["name"] for t in schema_tables for c in t["columns"]}
    by_name = data.get("columns", {})
    for column, rule in by_name.items():
        if column not in every_column:
            raise PlanError("columns: no table has a column \"%s\"" % column)
        check_rule_name("columns." + column, rule, rules)
    overrides = {}
    for pattern, entries in data.get("columns_in", {}).items():
        where = "columns_in.\"%s\"" % pattern
        matched = Patterns(names, where).matches(pattern)
        for column, rule in entries.items():
            check_rule_name("%s.%s" % (where, column), rule, rules)
            if not any(column in [c["name"] for c in columns_of[t]] for t in matched):
                raise PlanError("%s: none of its tables has a column \"%s\"" % (where, column))
        for table in matched:
            overrides.setdefault(table, []).append((pattern, entries))

    plans = []
    for table in names:
        rule_of = []
        for column in columns_of[table]:
            candidates = [(p, e[column["name"]]) for p, e in overrides.get(table, [])
                          if column["name"] in e]
            rule = max(candidates, key=lambda c: len(c[0]))[1] if candidates else \
                by_name.get(column["name"])
            if rule is None:
                raise PlanError("%s.%s has no rule" % (table, column["name"]))
            kind = "number" if column["kind"] in NUMBER_KINDS else "text"
            if rule not in rules[kind]:
                raise PlanError("%s.%s is a %s column: \"%s\" is not a rule for %ss"
                                % (table, column["name"], kind, rule, kind))
            rule_of.append((kind, rule))
        plans.append({"name": table, "weight": float(weights[table]), "story": story_of[table],
                      "flags": flags[table], "rules": rule_of,
                      "values": {o: v.get(table, "") for o, v in values.items()}})
    value_options = sorted(values)
    flag_options = sorted(readers - set(values))
    return plans, stories, rules, flag_options, value_options


BANNER = "// Generated by generate_plan.py from tables.toml and the schema. Do not edit.\n"


def write_header(stories, rules, vocabulary_rules, flag_options, value_options):
    out = [BANNER, "#pragma once\n\n#include <cstdint>\n#include <span>\n#include <string_view>\n\n",
           "namespace Tarn::Tool::Plan {\n\n"]
    out.append("enum class Story : uint8_t {\n")
    out += ["  %s,\n" % enumerator(s) for s in stories]
    out.append("};\n\n")
    for kind, type_name in (("number", "NumberRule"), ("text", "TextRule")):
        out.append("enum class %s : uint8_t {\n" % type_name)
        out += ["  %s,\n" % enumerator(r) for r in vocabulary_rules[kind]]
        out.append("};\n\n")
    out.append("// The yes-or-no options of a story.\nenum Option : uint16_t {\n")
    out += ["  %s = 1u << %d,\n" % (enumerator(o), i) for i, o in enumerate(flag_options)]
    out.append("};\n\n")
    out.append("struct Table {\n  std::string_view name;\n  double weight;  // relative to the "
               "other tables'\n  Story story;\n  uint16_t options;  // Option bits\n")
    out += ["  std::string_view %s;\n" % o for o in value_options]
    out.append("  // By field number - 1: a NumberRule or a TextRule, as the column's type.\n"
               "  std::span<const uint8_t> rules;\n};\n\n")
    out.append("// Every table of the schema, in its order.\nstd::span<const Table> Tables();\n\n")
    out.append("}  // namespace Tarn::Tool::Plan\n")
    return "".join(out)


def write_source(plans, value_options):
    out = [BANNER, '#include "generated/SyntheticPlan.h"\n\nnamespace Tarn::Tool::Plan {\n'
           "namespace {\n\n"]
    for plan in plans:
        out.append("constexpr uint8_t kRules_%s[] = {\n" % plan["name"])
        for kind, rule in plan["rules"]:
            type_name = "NumberRule" if kind == "number" else "TextRule"
            out.append("    uint8_t(%s::%s),\n" % (type_name, enumerator(rule)))
        out.append("};\n")
    out.append("\nconstexpr Table kTables[] = {\n")
    for plan in plans:
        options = " | ".join(enumerator(f) for f in sorted(plan["flags"])) or "0"
        fields = [cpp_string(plan["name"]), repr(plan["weight"]),
                  "Story::" + enumerator(plan["story"]), "uint16_t(%s)" % options]
        fields += [cpp_string(plan["values"][o]) for o in value_options]
        fields.append("kRules_" + plan["name"])
        out.append("    {%s},\n" % ", ".join(fields))
    out.append("};\n\n}  // namespace\n\nstd::span<const Table> Tables() { return kTables; }\n\n"
               "}  // namespace Tarn::Tool::Plan\n")
    return "".join(out)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--schema-dir", required=True, help="where generate_tables.py lies")
    parser.add_argument("--proto", required=True)
    parser.add_argument("--tables", required=True, help="tables.toml")
    parser.add_argument("--out", required=True, help="directory for the generated files")
    args = parser.parse_args()
    sys.path.insert(0, args.schema_dir)
    from generate_tables import SchemaError, build_tables, parse_proto, write_files  # noqa: E402
    try:
        with open(args.proto, encoding="utf-8") as f:
            schema_tables = build_tables(parse_proto(f.read()))
    except SchemaError as error:
        print("%s: %s" % (args.proto, error), file=sys.stderr)
        return 1
    try:
        with open(args.tables, "rb") as f:
            data = tomllib.load(f)
        plans, stories, rules, flag_options, value_options = build_plan(schema_tables, data)
    except (PlanError, tomllib.TOMLDecodeError) as error:
        print("%s: %s" % (args.tables, error), file=sys.stderr)
        return 1
    vocabulary_rules = data["vocabulary"]["rules"]
    write_files(args.out, {
        "SyntheticPlan.h": write_header(stories, rules, vocabulary_rules, flag_options,
                                        value_options),
        "SyntheticPlan.cpp": write_source(plans, value_options),
    })
    return 0


if __name__ == "__main__":
    sys.exit(main())
