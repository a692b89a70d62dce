#!/usr/bin/env python3
"""Holds the #include lines of the library to its layers.

usage: scripts/check_layers.py SOURCE_FOLDER [GENERATED_FOLDER]

A unit is a path below src/ without its extension; name.h and name.cpp (or .S, .l) are one unit,
and so is name_part.inc, a generated piece of name.cpp.
A unit includes units of its own layer and of the layers below it, and no units include each other
in a circle. A unit that is not in the table is an error: add it to its layer here, and to the
picture in ARCHITECTURE.md when it is a new part of it.
"""

import os
import re
import sys

# Lowest first: (name of the layer, its units).
LAYERS = (
    ("base", """
        common/zd_base  common/zd_env  common/list  common/zd_type
        common/alloc/allocator  common/alloc/alloc_mutex  common/alloc/region_assert
        common/zdmsg/zdmsg_record  common/zdmsg/zdmsg_field
        client/common/client_assert  client/common/client_try
        zdextproc
    """),
    ("catalogue and heap", """
        common/ec  common/zd_err_info
        common/alloc/system_clialloc
    """),
    ("system services", """
        common/zd_getenv  common/zd_fcntl  common/zd_gettime  common/zd_gettime_core
        common/zd_signal  common/zd_svc_log  common/zd_util_file  common/zd_util_sys
        common/str_util
        client/common/client_callstack
    """),
    ("dumps", """
        common/zd_dump  common/zd_dumpdata
    """),
    ("memory", """
        common/listc
        common/alloc/region_record  common/alloc/alloc_alg  common/alloc/clialloc_dbginfo
        common/alloc/region_clialloc  common/alloc/region_clialloc_check
        common/alloc/alloc_tracedump
    """),
    ("errors", """
        common/zd_err_inst  common/zd_err_stack  common/zd_err
    """),
    ("services and SQL", """
        common/zd_sock_io  common/zd_sock_io_core
        common/zd_network  common/zd_network_fifo  common/zd_network_socket
        client/common/client_util  client/common/client_scan  client/common/client_daemon
        client/common/log/client_log
        common/literal  common/literal_scan
        common/literal_scanner  common/literal_sjis_scanner  common/lit_cnv
    """),
    ("wire", """
        common/zdmsg/zdmsg  common/zdmsg/zdmsg_meta_gen  common/zdmsg/zdmsg_setter_gen
        common/zdmsg/zdmsg_names_gen  common/zdmsg/zdmsg_validate  common/zdmsg/zdmsg_wire
        common/xid_internal
    """),
    ("agent", """
        client/zdepa/epa_type  client/zdepa/dlc_x64_system_v
        client/zdepa/epa_context_mgr  client/zdepa/epa_option  client/zdepa/epa_log
        client/zdepa/epa_msg  client/zdepa/epa_dl_call  client/zdepa/epa_usr_util
        client/zdepa/epa_proc  client/zdepa/epa_init
    """),
)

# Headers that the build writes, or that lie outside src/: they need not be found on disk.
ELSEWHERE = {
    "common/ec", "common/zd_err_info", "common/zdmsg/zdmsg_meta_gen",
    "common/zdmsg/zdmsg_setter_gen", "common/zdmsg/zdmsg_names_gen", "zdextproc",
}


LAYER_OF = {unit: level for level, (_, units) in enumerate(LAYERS) for unit in units.split()}
INCLUDE = re.compile(r'\s*#\s*include\s*"([^"]+)"')
EXTENSIONS = (".h", ".cpp", ".c", ".S", ".l")


def layer_name(level):
    return LAYERS[level][0]


def source_files(folder):
    for where, folders, names in os.walk(folder):
        folders[:] = sorted(f for f in folders if f != "CMakeFiles")
        for name in sorted(names):
            if name.endswith(EXTENSIONS):
                yield os.path.relpath(os.path.join(where, name), folder)


def unit_of(path):
    name, extension = os.path.splitext(path)
    if extension == ".inc":
        name = name.rpartition("_")[0]
    return name


def includes_of(path):
    """(line number, included path) for each quoted #include of the file."""
    with open(path, encoding="utf-8") as file:
        for number, line in enumerate(file, 1):
            found = INCLUDE.match(line)
            if found:
                yield number, found.group(1)


def check_include(folders, unit, included):
    """What is wrong with one #include, or None."""
    target = unit_of(included)
    if target not in LAYER_OF:
        return f'"{included}" is in no layer (add it to LAYERS in scripts/check_layers.py)'
    on_disk = any(os.path.exists(os.path.join(folder, included)) for folder in folders)
    if not on_disk and target not in ELSEWHERE:
        return f'"{included}" is not there (paths are relative to src/)'
    if LAYER_OF[target] > LAYER_OF[unit]:
        return (f'"{included}" is of the layer "{layer_name(LAYER_OF[target])}", above '
                f'"{layer_name(LAYER_OF[unit])}"')
    return None


def find_circle(edges):
    """A list of names that include each other in a circle, or None. edges: name -> set."""
    done, way = set(), []

    def visit(name):
        if name in way:
            return way[way.index(name):] + [name]
        if name in done:
            return None
        way.append(name)
        for target in sorted(edges.get(name, ())):
            circle = visit(target)
            if circle:
                return circle
        way.pop()
        done.add(name)
        return None

    for name in sorted(edges):
        circle = visit(name)
        if circle:
            return circle
    return None


def check(folders):
    """Yields every finding as file:line: reason."""
    unit_edges, header_edges = {}, {}
    for folder in folders:
        for path in source_files(folder):
            shown, unit = os.path.join(folder, path), unit_of(path)
            if unit not in LAYER_OF:
                yield f"{shown}:1: unit is in no layer (add it to LAYERS in {__file__})"
                continue
            for number, included in includes_of(os.path.join(folder, path)):
                wrong = check_include(folders, unit, included)
                if wrong:
                    yield f"{shown}:{number}: {wrong}"
                    continue
                if path.endswith(".h"):
                    header_edges.setdefault(path, set()).add(included)
                if unit_of(included) != unit:
                    unit_edges.setdefault(unit, set()).add(unit_of(included))
    for what, edges in (("units", unit_edges), ("headers", header_edges)):
        circle = find_circle(edges)
        if circle:
            yield f"{what} include each other in a circle: " + " -> ".join(circle)


def main():
    folders = sys.argv[1:]
    if not folders or any(not os.path.isdir(folder) for folder in folders):
        print(__doc__, file=sys.stderr)
        return 2
    count = 0
    for finding in check(folders):
        print(finding, file=sys.stderr)
        count += 1
    return 1 if count else 0


if __name__ == "__main__":
    sys.exit(main())
