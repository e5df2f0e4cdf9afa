#!/usr/bin/env python3
"""What the house rules measure, read from the sources alone: the arrows between the folders,
platform words outside the platform side, the lengths of functions and files. Prints a short report;
exits with 1 where a rule is broken."""
import os
import re
import statistics
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
CODE = ("service", "sock", "base", "platform", "lab")
CHECKS = ("tests", "bench")
LONGEST_FUNCTION, LONGEST_FILE = 80, 600

# Whom a room may include, beside itself. Tests and benchmarks may include all.
ROOMS = ("host", "gateway", "kvm", "inventory", "actions", "mailbox", "diagnostics")
ARROWS = {
    "service/host": ["service/" + room for room in ROOMS] + ["sock", "platform"],
    "service/gateway": ["service/actions", "service/inventory", "service/mailbox",
                        "service/diagnostics", "sock", "platform"],
    "service/kvm": ["service/gateway", "service/inventory", "service/mailbox",
                    "service/diagnostics", "sock", "platform"],
    "service/inventory": ["service/mailbox", "service/diagnostics", "platform"],
    "service/actions": ["service/mailbox", "service/diagnostics", "platform"],
    "service/mailbox": ["service/diagnostics", "platform"],
    "service/diagnostics": ["platform"],
    "base": ["sock", "platform"],
    "sock": ["platform"],
    "lab": ["base", "sock", "platform"],
    "platform": [],
}
PLATFORM_WORD = re.compile(
    r"\b(?:_WIN32|_WIN64|WIN32|_MSC_VER|__MINGW\w+|__linux__|__unix__|__GLIBC__)\b|"
    r"#\s*include\s*<(?:windows|winsock2|ws2tcpip|unistd|pthread|poll|fcntl|dirent|signal|netdb|"
    r"sys/\w+|netinet/\w+|arpa/\w+|linux/\w+)\.h>")
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.M)


def sources():
    for folder in CODE + CHECKS:
        for path, folders, names in os.walk(os.path.join(ROOT, folder)):
            folders.sort()
            for name in sorted(names):
                if name.endswith((".cpp", ".h", ".c")):
                    yield os.path.relpath(os.path.join(path, name), ROOT)


def room_of(path):
    parts = path.split("/")
    return "/".join(parts[:2]) if parts[0] == "service" and len(parts) > 2 else parts[0]


def blank(text):
    """The text with comments, literals and preprocessor lines blanked; lines and offsets stay."""
    pattern = re.compile(
        r'//[^\n]*|/\*.*?\*/|R"(?P<tag>[^()\s]{0,16})\(.*?\)(?P=tag)"|"(?:\\.|[^"\\\n])*"|'
        r"(?<![0-9a-fA-F])'(?:\\.|[^'\\\n])+'|^[ \t]*#(?:\\\n|[^\n])*", re.S | re.M)
    return pattern.sub(lambda found: re.sub(r"[^\n]", " ", found[0]), text)


def closing(text, at):
    """The offset of the brace that closes the one at `at`."""
    depth = 0
    for i in range(at, len(text)):
        if text[i] == "{":
            depth += 1
        elif text[i] == "}":
            depth -= 1
            if depth == 0:
                return i
    return len(text) - 1


def functions(text):
    """(line, number of lines) of each function, from its head's first line to its last brace. Only
    namespaces and classes are looked into, so a lambda counts to the function around it."""
    text = blank(text)
    at = head = 0
    while at < len(text):
        char = text[at]
        if char in ";}":
            head = at + 1
        elif char == "{":
            head += re.match(r"(?:\s*\b(?:public|private|protected)\s*:)*", text[head:at]).end()
            words = text[head:at]
            end = closing(text, at)
            behind = text[end + 1:].lstrip()[:1]
            container = re.match(r"\s*(?:template\s*<.*>\s*)?(?:inline\s+)?(?:typedef\s+)?"
                                 r"(?:namespace|class|struct|union|extern\s*$)(?!.*[=)]\s*$)",
                                 words, re.S)
            if container and "(" not in re.sub(r"alignas\s*\(\w+\)", "", words):
                head = at + 1
            elif behind in (",", "{") and "(" in words:
                at = end  # a member's initializer: the function's body is still to come
            else:
                if "(" in words and not re.search(r"(?<![=!<>])=\s*(?:\[.*)?$", words, re.S):
                    first = head + len(words) - len(words.lstrip())
                    line = text.count("\n", 0, first) + 1
                    yield line, text.count("\n", first, end) + 1
                at, head = end, end + 1
        at += 1


def check_arrows(path, text, faults):
    room = room_of(path)
    if room in CHECKS:
        return 0
    if room not in ARROWS:
        faults.append("%s: the room %s has no row in the table of arrows" % (path, room))
        return 0
    count = 0
    for target in INCLUDE.findall(text):
        there = room_of(target)
        if "/" not in target or there == room:
            continue  # a header beside its file, chosen by the build
        count += 1
        if there not in ARROWS[room]:
            faults.append("%s: the arrow to %s points up" % (path, target))
        elif room != "lab" and target.count("/") > 1 and there == "platform":
            faults.append("%s: reaches behind the contract, to %s" % (path, target))
    return count


def percentile(values, share):
    return sorted(values)[min(int(len(values) * share), len(values) - 1)]


def main():
    faults, lengths, lines, arrows, words = [], {}, {}, 0, 0
    for path in sources():
        with open(os.path.join(ROOT, path), encoding="utf-8") as file:
            text = file.read()
        lines[path] = text.count("\n")
        if lines[path] > LONGEST_FILE:
            faults.append("%s: %d lines" % (path, lines[path]))
        for line, length in functions(text):
            lengths["%s:%d" % (path, line)] = length
            if length > LONGEST_FUNCTION:
                faults.append("%s:%d: a function of %d lines" % (path, line, length))
        arrows += check_arrows(path, text, faults)
        if path.split("/")[0] in ("service", "sock", "base"):
            for word in PLATFORM_WORD.findall(text):
                words += 1
                faults.append("%s: platform word %s" % (path, word))
    if not lengths:
        sys.exit("house: no source was found")
    for folders, name in ((CODE, "code"), (CHECKS, "tests and benchmarks")):
        own = [length for where, length in lengths.items() if where.split("/")[0] in folders]
        files = [count for path, count in lines.items() if path.split("/")[0] in folders]
        if own:
            print("  %-21s %4d functions: median %d lines, 90th percentile %d, longest %d; "
                  "%d files, longest %d, %d lines in all"
                  % (name, len(own), statistics.median(own), percentile(own, 0.9), max(own),
                     len(files), max(files), sum(files)))
    code, tests = (sum(count for path, count in lines.items() if path.split("/")[0] in folders)
                   for folders in (CODE, ("tests",)))
    print("  %.2f lines of C++ tests to a line of code; %d includes between rooms; "
          "%d platform words outside platform/ and lab/" % (tests / code, arrows, words))
    for fault in faults:
        print("  BROKEN  " + fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
