#!/usr/bin/env python3
"""Runs clang-tidy over the sources of every tree; .clang-tidy says which checks, and why. Prints each
finding once and exits with 1 if there is one.

The compile commands are those of the presets that are configured: release for the programs and the
benchmarks, asan for the tests, windows for what only Windows compiles. clang does not understand all
options of the other compilers, so each source gets an entry in a database of its own under
build/tidy.

A source takes two to six seconds. So those are checked that were changed within four hours, or that
include a header that was; STEWARDRY_TIDY_SINCE names another time, in git's words, and
STEWARDRY_TIDY=all takes every source. When more than a hundred sources are to be checked, the path
analysis (clang-analyzer-*), half of the time, is left to STEWARDRY_TIDY=all."""
import concurrent.futures
import json
import os
import re
import shlex
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
PRESETS = ("release", "asan", "windows")  # the first that compiles a source decides
TREES = ("service", "sock", "cim", "text", "platform", "lablink", "lab", "tools", "tests", "bench")
MANY = 100
GCC_ONLY = ("-fpch-preprocess", "-Winvalid-pch", "-mno-stack-arg-probe", "-Wno-maybe-uninitialized",
            "-Wno-restrict")


def git(*arguments):
    return subprocess.run(["git", *arguments], cwd=ROOT, check=True, capture_output=True,
                          text=True).stdout.split("\n")[:-1]


def includes_of_cross_compiler(compiler):
    """The system include folders of the cross compiler, which clang cannot find by itself."""
    shown = subprocess.run([compiler, "-xc++", "-E", "-v", os.devnull], check=True,
                           capture_output=True, text=True).stderr
    listed = shown.split("#include <...> search starts here:\n")[1].split("End of search list")[0]
    folders = [os.path.normpath(line.strip()) for line in listed.splitlines()]
    # The compiler's own intrinsics (.../12-posix/include) are GCC's; clang brings its own.
    return [folder for folder in folders if not re.search(r"lib/gcc/[^/]+/[^/]+/include(-fixed)?$",
                                                          folder)]


def command_for_clang(entry, windows):
    """The arguments of a compile command as clang takes them."""
    given = shlex.split(entry["command"])
    while os.path.basename(given[0]) in ("ccache", "distcc"):
        given.pop(0)
    arguments = ["clang++"] + [argument for argument in given[1:]
                               if argument not in GCC_ONLY and "cmake_pch" not in argument
                               and argument != "-include"]
    arguments.append("-Wno-sign-conversion")  # GCC's -Wconversion leaves it out in C++
    if windows:
        arguments[1:1] = ["--target=x86_64-w64-windows-gnu", "-nostdinc++",
                           "-Wno-unknown-attributes"]
        for folder in includes_of_cross_compiler(given[0]):
            arguments += ["-isystem", folder]
    return arguments


def write_database(presets):
    """Writes build/tidy/compile_commands.json. Returns the sources in it, relative to the root."""
    entries = {}
    for preset in presets:
        path = os.path.join(ROOT, "build", preset, "compile_commands.json")
        if not os.path.exists(path):
            print("  no compile commands of preset %s: it is not configured" % preset)
            continue
        with open(path, encoding="utf-8") as file:
            for entry in json.load(file):
                source = os.path.relpath(entry["file"], ROOT)
                if source.split("/")[0] in TREES and source.endswith(".cpp"):
                    entries.setdefault(source, {
                        "directory": entry["directory"], "file": entry["file"],
                        "arguments": command_for_clang(entry, preset == "windows")})
    folder = os.path.join(ROOT, "build", "tidy")
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, "compile_commands.json"), "w", encoding="utf-8") as file:
        json.dump(list(entries.values()), file, indent=1)
    return sorted(entries)


def changed(sources):
    """Those of the sources that were changed lately, or that include a header that was."""
    since = os.environ.get("STEWARDRY_TIDY_SINCE", "4 hours ago")
    base = git("rev-list", "-1", "--before=" + since, "HEAD")
    base = base[0] if base else git("hash-object", "-t", "tree", os.devnull)[0]
    files = set(git("diff", "--name-only", base, "--", *TREES))
    headers = {name for name in files if name.endswith(".h")}

    def concerned(source):
        with open(os.path.join(ROOT, source), encoding="utf-8") as file:
            return source in files or not headers.isdisjoint(
                re.findall(r'^#include "([^"]+)"', file.read(), re.M))
    # A database may name a source that has been renamed since the preset was built.
    present = [source for source in sources if os.path.exists(os.path.join(ROOT, source))]
    return [source for source in present if concerned(source)]


def check(source, analysis):
    command = ["clang-tidy", "-quiet", "-p", os.path.join(ROOT, "build", "tidy")]
    if not analysis:
        command.append("-checks=-clang-analyzer-*")
    done = subprocess.run(command + [source], cwd=ROOT, capture_output=True, text=True,
                          errors="replace")
    found = re.findall(r"^\S.*?(?:error|warning): .*$", re.sub(r"\x1b\[[0-9;]*m", "", done.stdout),
                       re.M)
    return found or (["%s: clang-tidy ended with %d: %s" % (source, done.returncode,
                                                            done.stderr.strip()[-300:])]
                     if done.returncode else [])


def main():
    everything = os.environ.get("STEWARDRY_TIDY") == "all"
    sources = write_database(PRESETS)
    if not sources:
        sys.exit("tidy: no preset is configured")
    sources = sources if everything else changed(sources)
    analysis = everything or len(sources) <= MANY
    print("  %d sources%s" % (len(sources), "" if analysis else ", without the path analysis"))
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        findings = pool.map(lambda source: check(source, analysis), sources)
        found = sorted({line.replace(ROOT + "/", "") for lines in findings for line in lines})
    for line in found:
        print("  BROKEN  " + line)
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
