#!/usr/bin/env python3
"""Writes the protocol's reference, docs/protocol.md, which is kept in the tree for readers.

usage: gen_protocol.py DESCRIPTION OUTPUT_FILE

The output is generate/protocol.md, whose prose explains the wire, with what the description
(src/common/zdmsg/messages.txt) says put in the places that it marks.
"""

import os
import re
import sys

import zdmsg_description
import zdmsg_error_stack

PROSE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "protocol.md")


def heading(record):
    return "%d `%s`" % (record.number, record.name)


def anchor(record):
    """What a heading is called in a link."""
    return "#%d-%s" % (record.number, record.name)


def link(record):
    return "[`%s`](%s)" % (record.name, anchor(record))


def table(head, rows):
    return ["| %s |" % " | ".join(cells) for cells in [head, ["---"] * len(head)] + rows]


def kind(field):
    if field.kind == "array":
        return "array of " + link(field.element)
    if field.kind == "fixed":
        return "fixed %d" % field.size
    if zdmsg_error_stack.holds_error_stack(field):
        return "bytes: an [error stack](#the-serialized-error-stack)"
    return field.kind


def section(record, level):
    lines = ["#" * level + " " + heading(record), ""]
    if record.comment:
        lines += record.comment + [""]
    if record.fields:
        lines += table(["field", "kind"],
                       [["`%s`" % field.name, kind(field)] for field in record.fields])
    else:
        lines.append("No fields.")
    return lines + [""]


def users(description):
    """By element record: the records that hold arrays of it, by name."""
    found = {record.name: [] for record in description.records}
    for record in description.messages + description.records:
        for field in record.fields:
            if field.kind == "array" and record not in found[field.element.name]:
                found[field.element.name].append(record)
    return found


def index(description):
    rows = [
        [str(message.number), link(message), " ".join(message.comment)]
        for message in description.messages
    ]
    return table(["number", "message", "what it is for"], rows)


def messages(description):
    lines = []
    for message in description.messages:
        if message.heading:
            lines += ["### " + message.heading[0], ""]
            if message.heading[1:]:
                lines += message.heading[1:] + [""]
        lines += section(message, 4)
    return lines[:-1]


def records(description):
    lines = []
    used_by = users(description)
    for record in description.records:
        part = section(record, 3)
        if used_by[record.name]:
            part += ["In " + ", ".join(link(user) for user in used_by[record.name]) + ".", ""]
        lines += part
    return lines[:-1]


def members(entries):
    kinds = {"int": "int", "uint": "int, unsigned", "char": "character", "text": "characters"}
    return table(
        ["offset", "size", "name", "kind", "meaning"],
        [
            [str(entry.offset), str(entry.size), "`%s`" % entry.name, kinds[entry.kind],
             entry.meaning]
            for entry in entries
        ],
    )


def spoken_list(words):
    return words[0] if len(words) == 1 else ", ".join(words[:-1]) + " or " + words[-1]


def contents(description):
    sizes = {
        field.size
        for record in description.records + description.messages
        for field in record.fields
        if field.kind == "fixed"
    }
    return {
        "last_number": [str(len(description.messages) - 1)],
        "fixed_sizes": [spoken_list([str(size) for size in sorted(sizes)])],
        "error_fields": [spoken_list(["`%s`" % name for name in zdmsg_error_stack.FIELD_NAMES])],
        "error_header": members(zdmsg_error_stack.HEADER),
        "error_record": members(zdmsg_error_stack.RECORD),
        "index": index(description),
        "messages": messages(description),
        "records": records(description),
    }


def reference(source, description, prose):
    parts = contents(description)
    text = re.sub("@([a-z_]+)@", lambda place: "\n".join(parts.pop(place.group(1))), prose)
    notice = "<!-- Generated from %s and generate/protocol.md by gen_protocol.py: edits made here\n"
    return notice % source + "     are lost. -->\n\n" + text, parts


def main(arguments):
    if len(arguments) != 2:
        sys.exit("usage: gen_protocol.py DESCRIPTION OUTPUT_FILE")
    path, output = arguments
    try:
        description = zdmsg_description.read(path)
        with open(PROSE, encoding="ascii") as file:
            prose = file.read()
    except (OSError, UnicodeDecodeError, zdmsg_description.DescriptionError) as error:
        sys.exit("gen_protocol.py: %s" % error)
    try:
        text, unused = reference(os.path.basename(path), description, prose)
    except KeyError as error:
        sys.exit("gen_protocol.py: %s: nothing is known for the place %s" % (PROSE, error))
    if unused:
        sys.exit("gen_protocol.py: %s: no place for %s" % (PROSE, ", ".join(unused)))
    with open(output, "w", encoding="ascii") as file:
        file.write(text)


if __name__ == "__main__":
    main(sys.argv[1:])
