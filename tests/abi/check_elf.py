#!/usr/bin/env python3
"""Holds the library file to the facts that its users rely on.

usage: check_elf.py --list            names of the facts
       check_elf.py FACT LIBRARY      exit status 1 and the reason on standard error when broken

A fact is a function below: it takes the path of the library and yields what is wrong with it.
"""

import bisect
import os
import re
import struct
import subprocess
import sys

SONAME = "libzdepl.so.1"
SYMBOL_VERSION = "LIBZDEPL_1"
SYMBOL_LIST = os.path.join(os.path.dirname(os.path.abspath(__file__)), "exported_symbols.txt")
FACTS = {}


def fact(function):
    FACTS[function.__name__] = function
    return function


def output_of(*command):
    environment = dict(os.environ, LC_ALL="C")
    return subprocess.run(
        command, check=True, capture_output=True, text=True, env=environment
    ).stdout


def dynamic_entries(library):
    """(tag, value) of the dynamic section."""
    entries = re.findall(r"^ 0x\w+ \((\w+)\)\s+(.*)$", output_of("readelf", "-dW", library), re.M)
    if not entries:
        sys.exit(f"{library} has no dynamic section")
    return entries


def values_of(library, tag):
    return [value for name, value in dynamic_entries(library) if name == tag]


def segments(library):
    """(type, flags) of the program headers; flags like "R E"."""
    pattern = r"^  ([A-Z_]+)(?: +0x\w+){5} (.{3}) 0x"
    return re.findall(pattern, output_of("readelf", "-lW", library), re.M)


def dynamic_symbols(library, defined):
    """(type letter, name with version) of the symbols that the library offers or asks for."""
    which = "--defined-only" if defined else "--undefined-only"
    lines = output_of("nm", "-D", which, library).splitlines()
    return [tuple(line.split()[-2:]) for line in lines]


def exported_names(library):
    """Without the symbol that stands for the version itself."""
    return {name.split("@")[0] for kind, name in dynamic_symbols(library, True) if kind != "A"}


def functions(library):
    """(address, size, name) of every function in the file, exported or not."""
    pattern = r"^ *\d+: (\w+) +(\w+) FUNC +\w+ +\w+ +\d+ (\S+)"
    found = re.findall(pattern, output_of("readelf", "-sW", library), re.M)
    return sorted({(int(address, 16), int(size, 0), name) for address, size, name in found})


@fact
def NeedsLibcAlone(library):
    needed = [re.sub(r".*\[(.*)\]", r"\1", value) for value in values_of(library, "NEEDED")]
    for name in needed:
        if name != "libc.so.6" and not name.startswith("ld-linux"):
            yield f"needs {name}"
    if "libc.so.6" not in needed:
        yield "does not name libc.so.6"


@fact
def CarriesItsSoname(library):
    names = values_of(library, "SONAME")
    if names != [f"Library soname: [{SONAME}]"]:
        yield f"SONAME is {names}"


@fact
def HasNoSearchPath(library):
    for tag in ("RPATH", "RUNPATH"):
        for value in values_of(library, tag):
            yield f"{tag} {value}"


@fact
def BindsAtLoadTime(library):
    if not any("BIND_NOW" in value for value in values_of(library, "FLAGS")):
        yield "BIND_NOW is not set"


@fact
def RelocatedDataIsReadOnly(library):
    if "GNU_RELRO" not in [kind for kind, _ in segments(library)]:
        yield "there is no GNU_RELRO segment"
    # With immediate binding the linker puts all of the offset table into .got, inside that segment.
    if re.search(r"\] \.got\.plt ", output_of("readelf", "-SW", library)):
        yield "a writable .got.plt is left"


@fact
def RelativeRelocationsArePacked(library):
    if not values_of(library, "RELR"):
        yield "there is no DT_RELR"
    loose = output_of("readelf", "-rW", library).count("R_X86_64_RELATIVE")
    if loose:
        yield f"{loose} relative relocations are not packed"


def words_of_data(library):
    """The 8-byte words of the initialised data, as the file has them."""
    pattern = r"\] (\.data\S*) +PROGBITS +\w+ (\w+) (\w+)"
    with open(library, "rb") as file:
        image = file.read()
    for _, offset, size in re.findall(pattern, output_of("readelf", "-SW", library)):
        start, length = int(offset, 16), int(size, 16) // 8
        yield from struct.unpack_from(f"<{length}Q", image, start)


@fact
def TablesNameExportedFunctionsBySymbol(library):
    # Bound to its own address, a table's function differs from what a program at a fixed address
    # has under the same name.
    exported = exported_names(library)
    addresses = {address: name.split("@")[0] for address, _, name in functions(library)
                 if name.split("@")[0] in exported}
    for word in sorted(addresses.keys() & set(words_of_data(library)) - {0}):
        yield f"{addresses[word]} is bound to its address (add it to src/libzdepl_tables.list)"


@fact
def CodeNeedsNoRelocation(library):
    if values_of(library, "TEXTREL"):
        yield "TEXTREL is set"
    for value in values_of(library, "FLAGS"):
        if "TEXTREL" in value:
            yield "TEXTREL is among the flags"


@fact
def StackIsNotExecutable(library):
    stacks = [flags for kind, flags in segments(library) if kind == "GNU_STACK"]
    if not stacks:
        yield "there is no GNU_STACK header, which means an executable stack"
    elif "E" in stacks[0]:
        yield "GNU_STACK asks for an executable stack"


@fact
def NoMemoryIsWritableAndExecutable(library):
    if "RWE" in [flags for kind, flags in segments(library) if kind == "LOAD"]:
        yield "a segment is both"


@fact
def NothingRunsAtLoadTime(library):
    for tag in ("INIT", "FINI", "INIT_ARRAY", "FINI_ARRAY", "PREINIT_ARRAY"):
        if values_of(library, tag):
            yield f"DT_{tag} is there"


@fact
def AsksOnlyForLibcTheHostAndSsl(library):
    for kind, name in dynamic_symbols(library, False):
        of_libc = "@GLIBC_" in name
        of_host = kind == "U" and name.startswith("env_")
        of_ssl = kind == "w" and name in ("SSL_read", "SSL_write")
        if not (of_libc or of_host or of_ssl):
            yield f"{kind} {name}"


@fact
def ExportedNamesAreTheListedOnes(library):
    with open(SYMBOL_LIST, encoding="ascii") as file:
        listed = set(file.read().split())
    exported = exported_names(library)
    for name in sorted(exported - listed):
        yield f"exported and not listed: {name}"
    for name in sorted(listed - exported):
        yield f"listed and not exported: {name}"
    if exported != listed:
        yield "if that is meant, run tests/abi/update_exported_symbols.sh"


@fact
def EveryExportedNameHasTheVersion(library):
    for kind, name in dynamic_symbols(library, True):
        if kind != "A" and not name.endswith(f"@@{SYMBOL_VERSION}"):
            yield name


@fact
def IsMarkedForControlFlowProtection(library):
    found = re.search(r"x86 feature: (.*)", output_of("readelf", "-nW", library))
    marks = found.group(1).split(", ") if found else []
    for mark in ("IBT", "SHSTK"):
        if mark not in marks:
            yield f"the {mark} mark is missing: an object was built without it"


@fact
def EveryFunctionCanBeUnwound(library):
    frames = output_of("readelf", "--debug-dump=frames", "-W", library)
    ranges = sorted(
        (int(start, 16), int(end, 16))
        for start, end in re.findall(r"FDE .*pc=(\w+)\.\.(\w+)", frames)
    )
    starts = [start for start, _ in ranges]
    for address, size, name in functions(library):
        place = bisect.bisect_right(starts, address) - 1
        if size == 0:
            yield f"{name} has no size"
        elif place < 0 or address + size > ranges[place][1]:
            yield f"{name} is not covered by .eh_frame"


@fact
def EveryCallerKeepsAFramePointer(library):
    listing = output_of("objdump", "-d", "--no-show-raw-insn", "-j", ".text", library)
    for block in listing.split("\n\n"):
        head = re.match(r"\n*\w+ <(.*)>:\n", block)
        # A cold part is jumped to with the frame of its function already built.
        if not head or head.group(1).endswith(".cold"):
            continue
        if re.search(r"\tcall ", block) and not re.search(r"\tmov +%rsp,%rbp", block):
            yield f"{head.group(1)} calls without a frame"


def main():
    arguments = sys.argv[1:]
    if arguments == ["--list"]:
        print("\n".join(FACTS))
        return 0
    if len(arguments) != 2 or arguments[0] not in FACTS:
        print(__doc__, file=sys.stderr)
        return 2
    wrong = list(FACTS[arguments[0]](arguments[1]))
    for reason in wrong:
        print(f"{arguments[0]}: {reason}", file=sys.stderr)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
