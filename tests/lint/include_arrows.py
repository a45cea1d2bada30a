"""Who may include whom: fails on every #include that the table below does not allow.

usage: include_arrows.py PROJECT_DIRECTORY
"""

import pathlib
import re
import sys

# Files by the start of their path, and what they may include besides the standard library, the
# system and the library's <nfslib/...>: "common/" is a folder, "rpc/rpc_program.h" one header. The first row
# that fits a file counts.
ARROWS = [
    ("include/nfslib/", []),
    ("src/common/", ["common/"]),
    ("src/fs/", ["common/", "fs/"]),
    # Transports and calls meet in interface headers only.
    ("src/network/", ["common/", "network/", "rpc/rpc_request_processor.h"]),
    ("src/rpc/mount_program", ["common/", "fs/", "rpc/mount_program.h", "rpc/rpc_program.h",
                               "server/nfs_service.h"]),
    ("src/rpc/", ["common/", "rpc/", "network/tcp_connection_handler.h",
                  "network/udp_connection_handler.h"]),
    ("src/server/nfs_service", ["common/", "fs/", "server/nfs_service.h"]),
    # The versions of the protocol know nothing of each other.
    ("src/nfs3/", ["common/", "fs/", "nfs3/", "rpc/rpc_program.h", "server/nfs_service.h"]),
    ("src/nfs4/", ["common/", "fs/", "nfs4/", "rpc/rpc_program.h", "server/nfs_service.h"]),
    ("src/server/", ["common/", "fs/", "network/", "nfs3/", "nfs4/", "rpc/", "server/"]),
    # What a host's author writes sees the public headers and nothing else of the library.
    ("hosts/include/", []),
    ("hosts/memory/", ["memory/", "hosts/", "nfslib/hosts/memory_file_system.h"]),
    ("hosts/posix/", ["posix/", "hosts/", "nfslib/hosts/posix_file_system.h"]),
    ("hosts/archive/", ["archive/", "read_only/", "hosts/", "nfslib/hosts/archive_file_system.h"]),
    ("hosts/read_only/", ["read_only/", "hosts/", "nfslib/hosts/read_only_file_system.h"]),
    ("hosts/", ["hosts/"]),
    ("tools/nfslib/", ["tools/nfslib/", "nfslib/hosts/"]),
    ("examples/", ["examples/", "nfslib/hosts/"]),
]

# What the table has to refuse, so that a slip in it is found.
FORBIDDEN = [
    ("include/nfslib/log.h", '"common/log.h"'),
    ("include/nfslib/log.h", "<sys/types.h>"),
    ("src/common/log.cpp", '"fs/nfs_file_system.h"'),
    ("src/common/log.cpp", "<fs/nfs_file_system.h>"),
    ("src/fs/nfs_path.cpp", '"server/nfs_service.h"'),
    ("src/network/server.cpp", '"rpc/rpc_server.h"'),
    ("src/nfs3/nfs3_program.h", '"nfs4/nfs4_program.h"'),
    ("src/nfs3/procedures/read_link.cpp", '"server/nfs_server_impl.h"'),
    ("src/server/nfs_service.h", '"nfs3/nfs3_program.h"'),
    ("hosts/posix/tree.cpp", '"memory/tree.h"'),
    ("hosts/posix/tree.cpp", "<nfslib/hosts/memory_file_system.h>"),
    ("hosts/include/nfslib/hosts/posix_file_system.h", '"posix/tree.h"'),
    ("src/server/nfs_service.h", "<nfslib/hosts/posix_file_system.h>"),
    ("tools/nfslib/main.cpp", '"common/log.h"'),
    ("tools/nfslib/main.cpp", '"posix/tree.h"'),
    ("tools/nfslib/main.cpp", '"../../src/common/log.h"'),
    ("examples/generated_files.cpp", '"nfslib/log.h"'),
]


def problem(file, include, ours):
    """What is wrong with `include`, written with its quotes or brackets, in `file`; or None.

    `ours` are the headers of src/, as they are included.
    """
    target = include[1:-1]
    allowed = next((targets for start, targets in ARROWS if file.startswith(start)), None)
    if allowed is None:
        return "no row of the table speaks of this file: add one"
    if ".." in target.split("/"):
        return "name headers from the top of their folder, without '..'"
    if include[0] == "<":
        if target.startswith("nfslib/hosts/"):
            return refusal(target, allowed)
        if target.startswith("nfslib/"):
            return None
        if target in ours:
            return "write our own headers in quotes"
        if file.startswith(("include/", "hosts/include/")) and ("/" in target or "." in target):
            return "public headers include the standard library and <nfslib/...> only"
        return None
    if target.startswith("nfslib/"):
        return "write public headers in angle brackets"
    if "/" not in target:  # beside the file that includes it, or what all hosts share
        target = ("hosts" if file.startswith("hosts/") else file.rpartition("/")[0]) + "/" + target
    return refusal(target, allowed)


def refusal(target, allowed):
    """What is wrong with a target that none of the `allowed` folders and headers holds; or None."""
    if any(target == a or (a.endswith("/") and target.startswith(a)) for a in allowed):
        return None
    return "this folder may include " + (", ".join(allowed) or "public headers only")


def main():
    root = pathlib.Path(sys.argv[1])
    ours = {path.relative_to(root / "src").as_posix() for path in (root / "src").rglob("*.h")}
    complaints = [
        f"{file}: {include} ought to be refused" for file, include in FORBIDDEN
        if problem(file, include, ours) is None
    ]
    arrows = 0
    for folder in ("include", "src", "hosts", "tools", "examples"):
        for path in sorted((root / folder).rglob("*")):
            if path.suffix not in (".h", ".cpp"):
                continue
            file = path.relative_to(root).as_posix()
            for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
                match = re.match(r'\s*#\s*include\s*(<[^>]*>|"[^"]*")', line)
                if not match:
                    continue
                arrows += 1
                if why := problem(file, match[1], ours):
                    complaints.append(f"{file}:{number}: {match[1]}: {why}")
    if arrows < 100:
        complaints.append(f"only {arrows} includes found below {root}: is this the project?")
    print("\n".join(complaints) or f"{arrows} includes, all allowed")
    return bool(complaints)


if __name__ == "__main__":
    sys.exit(main())
