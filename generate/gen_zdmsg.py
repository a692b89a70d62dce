#!/usr/bin/env python3
"""Writes everything typed about messages: records, field tables, names, setters.

usage: gen_zdmsg.py DESCRIPTION OUTPUT_DIR

Writes zdmsg_meta_gen, zdmsg_setter_gen and zdmsg_names_gen, each as .h and .cpp, into OUTPUT_DIR.
What the description means is in its own opening comment (src/common/zdmsg/messages.txt).
"""

import os
import sys

import zdmsg_description

WIDTH = 100

DESCRIPTOR_KINDS = {
    "int": "INT",
    "text": "STR",
    "bytes": "STR",
    "column": "COL",
    "fixed": "FIXED",
    "array": "ARRAY",
}


def c_type(record):
    return "zdmsg_%s_t" % record.name


def c_table(record):
    return "_zdmsg_%s_fields" % record.name


def c_constant(record):
    return "ZDMSG_" + record.name.upper()


def wrapped(head, parts, tail):
    """head + comma-separated parts + tail, with what is too long for one line below the first
    part, or, where even that does not fit, indented on lines of its own."""
    parts = [part + "," for part in parts[:-1]] + [parts[-1] + tail]
    if len(head + parts[0]) > WIDTH:
        lines, indent = [head], " " * (len(head) - len(head.lstrip()) + 4)
        lines.append(indent + parts[0])
    else:
        lines, indent = [head + parts[0]], " " * len(head)
    for part in parts[1:]:
        if len(lines[-1]) + 1 + len(part) <= WIDTH:
            lines[-1] += " " + part
        else:
            lines.append(indent + part)
    return lines


def opening(source, purpose):
    return ["// Generated from %s by gen_zdmsg.py: edits made here are lost." % source] + [
        "// " + line for line in purpose
    ]


def comments(record):
    lines = []
    if record.heading:
        lines += ["// ---- " + record.heading[0]]
        lines += ["// " + line for line in record.heading[1:]] + [""]
    return lines + ["// " + line for line in record.comment]


# ---- zdmsg_meta_gen.h


def member(field):
    if field.kind == "int":
        return ["    int32_t %s;" % field.name]
    if field.kind == "fixed":
        return ["    char %s[%d];" % (field.name, field.size)]
    if field.kind == "column":
        return ["    zdmsg_col_t %s;" % field.name]
    if field.kind == "array":
        return [
            "    struct {",
            "        int32_t array_cnt;",
            "        %s *data;" % c_type(field.element),
            "    } %s;" % field.name,
        ]
    return ["    zdmsg_str_t %s;" % field.name]


def layout(record):
    """The offset of every field and the size of the record, as the processor's ABI lays them."""
    end, alignment = (32, 8) if record.is_message else (0, 1)
    offsets = []
    for field in record.fields:
        if field.kind == "fixed":
            size, align = field.size, 1
        elif field.kind == "int":
            size, align = 4, 4
        else:
            size, align = 16, 8
        end = (end + align - 1) // align * align
        offsets.append(end)
        end += size
        alignment = max(alignment, align)
    return offsets, (end + alignment - 1) // alignment * alignment


def pins(record):
    offsets, size = layout(record)
    reason = '"%s is part of the ABI");' % c_type(record)
    lines = wrapped("static_assert(", ["sizeof(%s) == %d" % (c_type(record), size), reason], "")
    for field, offset in zip(record.fields, offsets):
        check = "offsetof(%s, %s) == %d" % (c_type(record), field.name, offset)
        lines += wrapped("static_assert(", [check, reason], "")
    return lines


def record_declaration(record):
    lines = comments(record)
    tag = c_type(record)[:-2] + "_s"
    lines += ["typedef struct %s %s;" % (tag, c_type(record)), "struct %s {" % tag]
    if record.is_message:
        lines.append("    zdmsg_t base;")
    for field in record.fields:
        lines += member(field)
    lines.append("};")
    if record.fields:
        size = len(record.fields)
        lines.append("ZD_API extern const zdmsg_field_t %s[%d];" % (c_table(record), size))
    if record.pinned:
        lines += pins(record)
    return lines + [""]


def enumeration(tag, records):
    lines = ["enum %s {" % tag]
    lines += ["    %s = %d," % (c_constant(record), record.number) for record in records]
    lines[-1] = lines[-1].rstrip(",")
    return lines + ["};", ""]


def meta_header(source, description):
    lines = opening(
        source,
        [
            "",
            "The numbers, typed records and field tables of all messages and of the records nested",
            "in them. A typed record refers to memory that its user owns: strings and elements are",
            "never copied into it.",
        ],
    )
    lines = [line.rstrip() for line in lines]
    lines += [
        "",
        "#ifndef ZDMSG_META_GEN_H",
        "#define ZDMSG_META_GEN_H",
        "",
        '#include "common/zdmsg/zdmsg_field.h"',
        '#include "common/zdmsg/zdmsg_record.h"',
        "",
        "#define ZDMSG_TYPE_CNT %d" % len(description.messages),
        "#define ZDMSG_STRUCT_CNT %d" % len(description.records),
        "",
        "// What zdmsg_t.type holds.",
    ]
    lines += enumeration("zdmsg_type_e", description.messages)
    lines.append("// What the type_or_len of an array's descriptor holds.")
    lines += enumeration("zdmsg_struct_type_e", description.records)
    lines += ["ZD_BEGIN_DECLS", ""]
    for record in description.records + description.messages:
        lines += record_declaration(record)
    lines += [
        "ZD_API extern const zdmsg_meta_t _zdmsg_meta[ZDMSG_TYPE_CNT];",
        "ZD_API extern const zdmsg_struct_meta_t _zdmsg_struct_meta[ZDMSG_STRUCT_CNT];",
        "",
        "// The size of the typed record of msg_type in memory. An unknown type fails an",
        "// assertion.",
        "ZD_API size_t zdmsg_get_msg_sizeof(int msg_type);",
        "",
        "// The largest of those sizes: a record that can take any received message.",
        "ZD_API size_t zdmsg_get_max_msg_size(void);",
        "",
        '// "ZDMSG_" and the name in upper case; "INVALID" for a number that is no message type.',
        "ZD_API const char *zdmsg_type_to_string(int msg_type);",
        "",
        "ZD_END_DECLS",
        "",
        "#endif",
    ]
    return lines


# ---- zdmsg_meta_gen.cpp


def descriptor(record, field):
    kind = "ZDMSG_FIELD_" + DESCRIPTOR_KINDS[field.kind]
    if field.kind == "fixed":
        detail = str(field.size)
    elif field.kind == "array":
        detail = c_constant(field.element)
    else:
        detail = "0"
    parts = [kind, "offsetof(%s, %s)" % (c_type(record), field.name), detail]
    return wrapped("    {", parts, "},")


def table(record):
    if not record.fields:
        return []
    lines = ["const zdmsg_field_t %s[] = {" % c_table(record)]
    for field in record.fields:
        lines += descriptor(record, field)
    return lines + ["};", ""]


def meta_source(source, description):
    lines = opening(source, ["The field tables, and what is looked up by message type."])
    lines += [
        "",
        '#include "common/zdmsg/zdmsg_meta_gen.h"',
        "",
        '#include "client/common/client_assert.h"',
        "",
    ]
    for record in description.records + description.messages:
        lines += table(record)
    lines.append("const zdmsg_struct_meta_t _zdmsg_struct_meta[ZDMSG_STRUCT_CNT] = {")
    for record in description.records:
        parts = [str(len(record.fields)), c_table(record), "sizeof(%s)" % c_type(record)]
        lines += wrapped("    {", parts, "},")
    lines += ["};", "", "const zdmsg_meta_t _zdmsg_meta[ZDMSG_TYPE_CNT] = {"]
    for message in description.messages:
        fields = c_table(message) if message.fields else "nullptr"
        lines += wrapped("    {", [str(len(message.fields)), fields], "},")
    lines += ["};", "", "namespace {", ""]
    lines.append("constexpr const char *kNames[ZDMSG_TYPE_CNT] = {")
    lines += ['    "%s",' % c_constant(message) for message in description.messages]
    lines += ["};", "", "constexpr size_t kSizes[ZDMSG_TYPE_CNT] = {"]
    lines += ["    sizeof(%s)," % c_type(message) for message in description.messages]
    lines += [
        "};",
        "",
        "constexpr size_t largest_size() {",
        "    size_t largest = 0;",
        "    for (const size_t size : kSizes)",
        "        largest = size > largest ? size : largest;",
        "    return largest;",
        "}",
        "",
        "constexpr bool is_message_type(int msg_type) {",
        "    return msg_type >= 0 && msg_type < ZDMSG_TYPE_CNT;",
        "}",
        "",
        "} // namespace",
        "",
        "size_t zdmsg_get_msg_sizeof(int msg_type) {",
        "    if (!is_message_type(msg_type))",
        '        zd_assert_fail("0", "common/zdmsg/zdmsg_meta_gen", __LINE__);',
        "    return kSizes[msg_type];",
        "}",
        "",
        "size_t zdmsg_get_max_msg_size(void) {",
        "    constexpr size_t kLargest = largest_size();",
        "    return kLargest;",
        "}",
        "",
        "const char *zdmsg_type_to_string(int msg_type) {",
        '    return is_message_type(msg_type) ? kNames[msg_type] : "INVALID";',
        "}",
    ]
    return lines


# ---- zdmsg_setter_gen


def parameters(record):
    parts = ["%s *zdmsg" % c_type(record)]
    for field in record.fields:
        names = field.setter_parameters()
        for count in names[:-1]:
            parts.append("int " + count)
        if field.kind == "int":
            parts.append("int " + field.name)
        elif field.kind == "array":
            parts.append("%s *%s" % (c_type(field.element), field.name))
        else:
            parts.append("const char *" + field.name)
    return parts


def setter_name(record, form):
    return "zdmsg_%s_%s" % (record.name, form)


def setter_header(source, description):
    lines = opening(
        source,
        [
            "",
            "One pair of setters a message and a pair an element record. They store what they are",
            "given and copy nothing (but for fixed fields): the record refers to the caller's",
            "memory until it has been serialized.",
            "",
            "_set fills a record whose strings stay the caller's; _set2 one whose top-level",
            "strings zdmsg_free returns to its allocator, so they must have come from there. On",
            "element records both do the same: their strings are never released.",
            "",
            "A text may be NULL: an empty string. Bytes, columns and arrays are stored as given.",
            "Of a fixed field exactly its length is read. A NULL record fails an assertion. A",
            "message comes out with its type set and with body size and transaction number 0.",
        ],
    )
    lines = [line.rstrip() for line in lines]
    lines += [
        "",
        "#ifndef ZDMSG_SETTER_GEN_H",
        "#define ZDMSG_SETTER_GEN_H",
        "",
        '#include "common/zdmsg/zdmsg_meta_gen.h"',
        "",
        "ZD_BEGIN_DECLS",
        "",
    ]
    for record in description.records + description.messages:
        if record.heading:
            lines += ["// ---- " + record.heading[0], ""]
        for form in ("set", "set2"):
            head = "ZD_API void %s(" % setter_name(record, form)
            lines += wrapped(head, parameters(record), ");")
        lines.append("")
    return lines + ["ZD_END_DECLS", "", "#endif"]


def store(field):
    name = field.name
    if field.kind == "int":
        return ["    zdmsg->%s = %s;" % (name, name)]
    if field.kind == "text":
        return ["    zdmsg->%s = text(%s);" % (name, name)]
    if field.kind in ("bytes", "column"):
        return ["    zdmsg->%s = bytes(%s_len, %s);" % (name, name, name)]
    if field.kind == "array":
        return [
            "    zdmsg->%s.array_cnt = %s_array_cnt;" % (name, name),
            "    zdmsg->%s.data = %s;" % (name, name),
        ]
    condition = '"zdmsg->%s != NULL"' % name
    parts = ["zdmsg->" + name, name, str(field.size), condition, "__LINE__"]
    return wrapped("    copy_fixed(", parts, ");")


def measured_last(fields):
    """Measuring a text takes a call. What was stored before need not be kept across it."""
    return sorted(fields, key=lambda field: field.kind == "text")


def setter(record):
    lines = wrapped("void %s(" % setter_name(record, "set"), parameters(record), ") {")
    lines.append("    ZD_ASSERT(kUnit, zdmsg != NULL);")
    if record.is_message:
        lines.append("    start(&zdmsg->base, %s);" % c_constant(record))
    for field in measured_last(record.fields):
        lines += store(field)
    lines += ["}", ""]
    lines += wrapped("void %s(" % setter_name(record, "set2"), parameters(record), ") {")
    arguments = ["zdmsg"] + [name for field in record.fields for name in field.setter_parameters()]
    lines += wrapped("    %s(" % setter_name(record, "set"), arguments, ");")
    if record.is_message:
        lines.append("    zdmsg->base.str_auto_free = 1;")
    return lines + ["}", ""]


SETTER_HELPERS = """\
namespace {

constexpr const char *kUnit = "zdmsg_setter_gen";

void start(zdmsg_t *base, int type) {
    base->type = type;
    base->body_size = 0;
    base->str_auto_free = 0;
    base->tsn = 0;
}

// The record's pointers are not const, because a record that was decoded lets its user write.
zdmsg_str_t bytes(int len, const char *data) {
    return {len, const_cast<char *>(data)};
}

zdmsg_str_t text(const char *string) {
    return bytes(string != nullptr ? static_cast<int>(strlen(string)) : 0, string);
}

void copy_fixed(char *member, const char *from, size_t size, const char *condition, int line) {
    if (ZD_UNLIKELY(member == nullptr))
        zd_assert_fail(condition, kUnit, line);
    memcpy(member, from, size);
}

} // namespace
"""


def setter_source(source, description):
    lines = opening(source, ["The setters. Texts come last: measuring them takes a call."])
    lines += [
        "",
        '#include "common/zdmsg/zdmsg_setter_gen.h"',
        "",
        "#include <string.h>",
        "",
        '#include "client/common/client_assert.h"',
        "",
    ]
    lines += SETTER_HELPERS.split("\n")
    for record in description.records + description.messages:
        lines += setter(record)
    return lines[:-1]


# ---- zdmsg_names_gen


NAMES_HEADER = """\

#ifndef ZDMSG_NAMES_GEN_H
#define ZDMSG_NAMES_GEN_H

#include "common/zd_base.h"

ZD_BEGIN_DECLS

// Field number field, counted from 0 in wire order, of a message or of an element record. It must
// be there: nothing is checked.
const char *zdmsg_field_name(int msg_type, int field);
const char *zdmsg_struct_field_name(int struct_type, int field);

// 1 when a string holds text, which ends before its first zero byte; 0 when it holds any bytes.
uchar zdmsg_field_is_text(int msg_type, int field);
uchar zdmsg_struct_field_is_text(int struct_type, int field);

ZD_END_DECLS

#endif"""

NAMES_LOOKUPS = """\

} // namespace

const char *zdmsg_field_name(int msg_type, int field) {
    return kNames + kFields[kMessages[msg_type] + field] % kText;
}

const char *zdmsg_struct_field_name(int struct_type, int field) {
    return kNames + kFields[kStructs[struct_type] + field] % kText;
}

uchar zdmsg_field_is_text(int msg_type, int field) {
    return kFields[kMessages[msg_type] + field] >= kText;
}

uchar zdmsg_struct_field_is_text(int struct_type, int field) {
    return kFields[kStructs[struct_type] + field] >= kText;
}"""

TEXT = 0x8000


def names_header(source):
    purpose = [
        "",
        "What the fields of messages and element records are called. The field tables, which every",
        "decoding walks, leave it out; reports and viewers want it. The library does not export",
        "these functions: a program of this tree that needs them compiles the same generated file.",
    ]
    lines = [line.rstrip() for line in opening(source, purpose)]
    return lines + NAMES_HEADER.split("\n")


def names_source(source, description):
    """One string of all names, each once; for every field its place in there; for every table
    its place among the fields."""
    places, end, first, fields = {}, 0, {}, []
    for record in description.records + description.messages:
        first[record.name] = len(fields)
        for field in record.fields:
            if field.name not in places:
                places[field.name] = end
                end += len(field.name) + 1
            fields.append(places[field.name] + (TEXT if field.kind == "text" else 0))
    if end >= TEXT or len(fields) > 0xFFFF:
        sys.exit("gen_zdmsg.py: %s: too many names for 15 bits, or fields for 16" % source)
    lines = opening(source, ["Names of fields, packed: no pointer, nothing to relocate."])
    lines += ["", '#include "common/zdmsg/zdmsg_names_gen.h"', "", "namespace {", ""]
    lines.append("constexpr char kNames[] = //")
    lines += ['    "%s\\0"' % name for name in places]
    lines[-1] += ";"
    lines += ["", "// Where a field's name begins; kText more when it is a text."]
    lines.append("constexpr int kText = 0x%x;" % TEXT)
    lines += numbers("kFields", fields)
    lines += ["", "// Where the fields of a table begin."]
    lines += numbers("kStructs", [first[record.name] for record in description.records])
    lines += numbers("kMessages", [first[record.name] for record in description.messages])
    return lines + NAMES_LOOKUPS.split("\n")


def numbers(name, values):
    head = "constexpr uint16_t %s[] = {" % name
    # An array has an element, also in a description without records.
    return wrapped(head, [str(value) for value in values or [0]], "};")


def write(folder, name, lines):
    with open(os.path.join(folder, name), "w", encoding="ascii") as file:
        file.write("\n".join(lines) + "\n")


def main(arguments):
    if len(arguments) != 2:
        sys.exit("usage: gen_zdmsg.py DESCRIPTION OUTPUT_DIR")
    path, folder = arguments
    try:
        description = zdmsg_description.read(path)
    except (OSError, zdmsg_description.DescriptionError) as error:
        sys.exit("gen_zdmsg.py: %s" % error)
    source = os.path.basename(path)
    files = {
        "zdmsg_meta_gen.h": meta_header(source, description),
        "zdmsg_meta_gen.cpp": meta_source(source, description),
        "zdmsg_setter_gen.h": setter_header(source, description),
        "zdmsg_setter_gen.cpp": setter_source(source, description),
        "zdmsg_names_gen.h": names_header(source),
        "zdmsg_names_gen.cpp": names_source(source, description),
    }
    os.makedirs(folder, exist_ok=True)
    for name, lines in files.items():
        write(folder, name, lines)


if __name__ == "__main__":
    main(sys.argv[1:])
