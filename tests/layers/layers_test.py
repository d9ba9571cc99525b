#!/usr/bin/env python3
"""The library's layers hold: a layer's own sources, compiled with the exact flags the build uses
for them, cannot include a header of a layer at its own level or above, and the programs on top
reach no layer's internal headers except the ones they are allowed.

    layers_test.py SOURCE_DIR BUILD_DIR

The levels, bottom first (docs/architecture.md): platform; common; automation; net, crypto,
archive and db side by side; admin; sched.
"""
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile

LEVELS = {
    "platform": 0,
    "common": 1,
    "automation": 2,
    "net": 3, "crypto": 3, "archive": 3, "db": 3,
    "admin": 4,
    "sched": 5,
}

# Internal headers a program may include, each for a reason given in docs/architecture.md.
PROGRAM_INTERNALS = {
    "pelmora/admin/internal/built_in_secrets.h",
}

source_dir = pathlib.Path(sys.argv[1]).resolve()
build_dir = pathlib.Path(sys.argv[2]).resolve()
failures = []


def compile_flags(layer):
    """The compiler and the include and definition flags the build uses for the layer's sources."""
    commands = json.loads((build_dir / "compile_commands.json").read_text())
    for entry in commands:
        file = pathlib.Path(entry["file"])
        if f"/pelmora/{layer}/" in str(file) and not file.name.endswith("_test.cc") \
                and f"pelmora_{layer}.dir" in entry.get("output", entry["command"]):
            args = shlex.split(entry["command"])
            kept, i = [args[0]], 1
            while i < len(args):
                arg = args[i]
                if arg in ("-I", "-isystem", "-D", "-include"):
                    kept += [arg, args[i + 1]]
                    i += 2
                    continue
                if arg.startswith(("-I", "-isystem", "-D", "-std=")):
                    kept.append(arg)
                i += 1
            return kept
    failures.append(f"no compile command for a source of layer {layer}")
    return None


def compiles(flags, header, scratch):
    probe = pathlib.Path(scratch) / "probe.cc"
    probe.write_text(f'#include "{header}"\n')
    result = subprocess.run(flags + ["-fsyntax-only", str(probe)], capture_output=True, text=True)
    return result.returncode == 0, result.stderr


def first_header(layer):
    return f"pelmora/{layer}/" + sorted(p.name for p in (source_dir / "pelmora" / layer).glob("*.h"))[0]


with tempfile.TemporaryDirectory() as scratch:
    for layer, level in LEVELS.items():
        flags = compile_flags(layer)
        if flags is None:
            continue
        ok, errors = compiles(flags, first_header(layer), scratch)
        if not ok:
            failures.append(f"{layer}: its own header {first_header(layer)} does not compile:\n{errors}")
        for other, other_level in LEVELS.items():
            if other == layer or other_level < level:
                continue
            ok, _ = compiles(flags, first_header(other), scratch)
            if ok:
                failures.append(f"{layer} can include {first_header(other)} (a layer not below it)")

# The programs and the binding use the installed interface, not a layer's internals.
include = re.compile(r'^#include\s+"(pelmora/[a-z_]+/internal/[^"]+)"', re.M)
for folder in ("tools", "pelmorad", "python"):
    for path in sorted((source_dir / folder).rglob("*")):
        if path.suffix not in (".cc", ".h") or path.name.endswith("_test.cc"):
            continue
        for header in include.findall(path.read_text(errors="replace")):
            if header not in PROGRAM_INTERNALS:
                failures.append(f"{path.relative_to(source_dir)} includes {header}")

for failure in failures:
    print(failure, file=sys.stderr)
print(f"{len(LEVELS)} layers checked, {len(failures)} failures")
sys.exit(1 if failures else 0)
