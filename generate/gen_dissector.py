#!/usr/bin/env python3
"""Writes the Wireshark dissector of the protocol.

usage: gen_dissector.py DESCRIPTION OUTPUT_FILE

The output is generate/dissector.lua, which knows how messages are read, with the description
(src/common/zdmsg/messages.txt) in its words put in the place that it marks.
"""

import os
import sys

import zdmsg_description
import zdmsg_error_stack

ENGINE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "dissector.lua")
PLACE = "@description@\n"


def lua_kind(field):
    if field.kind == "fixed":
        return "fixed(%d)" % field.size
    if field.kind == "array":
        return 'array("%s")' % field.element.name
    return field.kind


def declaration(record):
    if record.is_message:
        head = 'message(%d, "%s", {' % (record.number, record.name)
    else:
        head = 'record("%s", {' % record.name
    if not record.fields:
        return [head + "})"]
    lines = [head]
    lines += ['    { "%s", %s },' % (field.name, lua_kind(field)) for field in record.fields]
    return lines + ["})"]


def stack_members(name, prefix, members):
    lines = ['error_stack.%s = stack_members("%s", {' % (name, prefix)]
    for member in members:
        lines.append(
            '    { %d, %d, "%s", "%s" },' % (member.offset, member.size, member.kind, member.name)
        )
    return lines + ["})"]


def error_stack():
    lines = ["error_stack.fields.%s = true" % name for name in zdmsg_error_stack.FIELD_NAMES]
    lines.append("error_stack.header_size = %d" % zdmsg_error_stack.HEADER_SIZE)
    lines += stack_members("header", "zdmsg.error_stack.", zdmsg_error_stack.HEADER)
    lines.append("error_stack.record_size = %d" % zdmsg_error_stack.RECORD_SIZE)
    return lines + stack_members("record", "zdmsg.error.", zdmsg_error_stack.RECORD)


def dissector(source, description, engine):
    lines = []
    for record in description.records + description.messages:
        lines += declaration(record) + [""]
    lines += error_stack()
    opening = "-- The messages of the Zerdal database, for Wireshark and tshark.\n"
    opening += "-- Generated from %s by gen_dissector.py: edits made here are lost.\n--\n" % source
    return opening + engine.replace(PLACE, "\n".join(lines) + "\n")


def main(arguments):
    if len(arguments) != 2:
        sys.exit("usage: gen_dissector.py DESCRIPTION OUTPUT_FILE")
    path, output = arguments
    try:
        description = zdmsg_description.read(path)
        with open(ENGINE, encoding="ascii") as file:
            engine = file.read()
    except (OSError, UnicodeDecodeError, zdmsg_description.DescriptionError) as error:
        sys.exit("gen_dissector.py: %s" % error)
    if engine.count(PLACE) != 1:
        sys.exit("gen_dissector.py: %s: the place for the description is not marked once" % ENGINE)
    with open(output, "w", encoding="ascii") as file:
        file.write(dissector(os.path.basename(path), description, engine))


if __name__ == "__main__":
    main(sys.argv[1:])
