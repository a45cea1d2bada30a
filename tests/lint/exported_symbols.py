"""The built library exports what its public headers mark with NFSLIB_EXPORT, and nothing else.

usage: exported_symbols.py [--update] PUBLIC_HEADERS_DIRECTORY LIBRARY LIST

LIST has the symbols that programs may have been linked with, one a line: what is missing in it or in
the library is an error, since either changes what releases promise. --update writes it anew; a
symbol that goes, or changes, takes another major version.
"""

import argparse
import pathlib
import re
import subprocess
import sys

OPERATORS = {"/": "dv", "<<": "ls"}  # as the C++ ABI spells them


def declared(headers):
    """The names of the classes and of the functions that the headers export."""
    classes, functions = set(), set()
    for path in sorted(headers.glob("*.h")):
        text = re.sub(r"//.*", "", path.read_text(encoding="utf-8"))
        for rest in re.findall(r"\bNFSLIB_EXPORT\b(?!\s*(?:\n|__attribute__))\s*([^;{]*)", text):
            before = rest.partition("(")[0]
            if operator := re.search(r"operator\s*(\S+?)$", before):
                functions.add(OPERATORS[operator[1]])
            elif "(" in rest:
                functions.add(re.sub(r"<.*>$", "", before.split()[-1]))
            else:
                classes.add(rest.split()[0])
    return classes, functions


def problem(symbol, classes, functions):
    """Why the mangled `symbol` ought not to be exported; or None."""
    match = re.match(r"_Z(T[VIST])?N[VK]*6nfslib(?:7utility)?(.*)", symbol)
    if not match:
        return "not in namespace nfslib"
    names, rest = [], match[2]
    while length := re.match(r"\d+", rest):
        end = length.end() + int(length[0])
        names.append(rest[length.end():end])
        rest = rest[end:]
    if not names:
        return None if rest[:2] in functions else "an operator that no public header exports"
    if names[0] in functions and len(names) == 1:
        return None
    if names[0] not in classes:
        return f"{names[0]} is exported by no public header"
    # One level below a class are its members; a nested class is not public by its outer one.
    if len(names) > 2 or (len(names) == 2 and (match[1] or re.match(r"[CD]\d", rest))):
        return f"belongs to {'::'.join(names[:2])}, which no public header exports"
    return None


def difference(library, listed):
    """Complaints about what the library and the committed list do not have in common."""
    return [
        f"{symbol}: {what}" for symbols, what in (
            (library - listed, "exported, but not in the list"),
            (listed - library, "in the list, but not exported: programs that use it would break"))
        for symbol in sorted(symbols)
    ]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--update", action="store_true")
    parser.add_argument("headers", type=pathlib.Path)
    parser.add_argument("library")
    parser.add_argument("list", type=pathlib.Path)
    arguments = parser.parse_args()
    classes, functions = declared(arguments.headers)
    lines = subprocess.run(["nm", "-D", "--defined-only", arguments.library], check=True, text=True,
                           stdout=subprocess.PIPE).stdout.splitlines()
    symbols = {line.split()[-1].partition("@")[0] for line in lines}
    complaints = [
        f"{symbol}: {why}" for symbol in sorted(symbols)
        if (why := problem(symbol, classes, functions))
    ]
    exported = " ".join(symbols)
    complaints += [
        f"{name} is declared with NFSLIB_EXPORT, but the library does not have it"
        for name in sorted(classes | functions)
        if f"{len(name)}{name}" not in exported and name not in OPERATORS.values()
    ]
    if len(classes) < 8 or len(functions) < 5:
        complaints.append(f"too little found in the headers: {classes} {functions}")
    if arguments.update and not complaints:
        arguments.list.write_text("\n".join(sorted(symbols)) + "\n", encoding="ascii")
    complaints += difference(symbols, set(arguments.list.read_text(encoding="ascii").split()))
    print("\n".join(complaints) or f"{len(symbols)} symbols, all public and in the list")
    return bool(complaints)


if __name__ == "__main__":
    sys.exit(main())
