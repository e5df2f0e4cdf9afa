#!/usr/bin/env python3
"""The rules that can be read from the sources alone: the arrows between the folders (includes and
forward declarations), platform words outside the platform side, twins of the platform contract,
state in headers, lengths of functions and files, identifiers that documents name, and words that
comments avoid. Prints a short report; exits with 1 where a rule is broken."""
import collections
import os
import re
import statistics
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
CODE = ("service", "sock", "cim", "text", "platform", "lablink", "lab", "tools")
CHECKS = ("tests", "bench")
LONGEST_FUNCTION, LONGEST_FILE = 80, 500

# The rooms, each with those that it may include beside itself. A room is a folder; tests and
# benchmarks may include all. The order is that of the layers: no row names a room below it.
ARROWS = {
    "text": "",
    "lablink": "",
    "platform": "",
    "platform/linux/runtime": "platform text",
    "platform/linux/lab": "platform/linux/runtime platform lablink text",
    "platform/linux/hostfacts": "platform/linux/lab platform/linux/runtime platform text",
    "platform/linux": "platform/linux/hostfacts platform/linux/lab platform/linux/runtime platform "
                      "text",
    "platform/windows/runtime": "platform text",
    "platform/windows": "platform/windows/runtime platform text",
    "sock": "platform text",
    "cim/memory": "sock platform text",
    "cim/text": "cim/memory sock platform text",
    "cim/log": "cim/text cim/memory sock platform text",
    "cim/value": "cim/log cim/text cim/memory sock platform text",
    "cim/instance": "cim/value cim/log cim/text cim/memory sock platform text",
    "cim/packing": "cim/instance cim/value cim/log cim/text cim/memory sock platform text",
    "cim/message": "cim/packing cim/instance cim/value cim/log cim/text cim/memory sock platform "
                   "text",
    "service/diagnostics": "platform text",
    "service/mailbox": "service/diagnostics platform text",
    "service/inventory": "service/mailbox service/diagnostics platform text",
    "service/actions": "service/mailbox service/diagnostics platform text",
    "service/gateway": "service/actions service/inventory service/mailbox service/diagnostics sock "
                       "platform text",
    "service/kvm": "service/gateway service/inventory service/mailbox service/diagnostics sock "
                   "platform text",
    "service/standby": "service/inventory service/mailbox service/diagnostics platform text",
    "service/host": "service/standby service/kvm service/gateway service/actions service/inventory "
                    "service/mailbox service/diagnostics sock platform text",
    "lab/local": "text",
    "lab/agent": "lab/local text",
    "lab/scm": "lab/local text",
    "lab/tray": "lab/local text",
    "lab/viewer": "text",
    "lab/driver": "lablink",
    "lab/cim": "cim/message cim/packing cim/instance cim/value cim/log cim/text cim/memory sock "
               "platform text",
    "lab/firmware/core": "lablink lab/local text",
    "lab/mof": "cim/instance cim/value cim/log cim/text cim/memory sock platform text",
    "lab/firmware/model": "lab/firmware/core lab/mof cim/packing cim/instance cim/value cim/log "
                          "cim/text cim/memory sock platform text",
    "lab/firmware/wsman": "lab/firmware/model lab/firmware/core cim/instance cim/value cim/log "
                          "cim/text cim/memory sock platform text",
    "lab/firmware/dash": "lab/firmware/wsman lab/firmware/model lab/firmware/core cim/text text",
    "lab/firmware/kvm": "lab/firmware/core text",
    "lab/firmware": "lab/firmware/kvm lab/firmware/dash lab/firmware/wsman lab/firmware/model "
                    "lab/firmware/core text",
    "lab/firmware/prompt": "lab/firmware lab/firmware/kvm lab/firmware/dash lab/firmware/wsman "
                           "lab/firmware/model lab/firmware/core lab/local text",
    "tools/setup": "service/diagnostics platform text",
    "tools/logs": "service/diagnostics platform text",
    "tools/facts": "tools/logs lab/local service/mailbox service/diagnostics platform text",
    "tools/diagnosis": "tools/facts tools/logs platform text",
    "tools/archive": "tools/diagnosis tools/facts tools/logs platform text",
    "tools/stewardry": "tools/archive tools/diagnosis tools/facts tools/logs service/diagnostics "
                       "platform text",
}
# Forward declarations of a type above that are meant: the value's union holds a pointer to an
# instance, and nothing in the room follows it.
OPAQUE = {("cim/value/values.h", "Instance")}
PLATFORM_WORD = re.compile(
    r"\b(?:_WIN32|_WIN64|WIN32|_MSC_VER|__MINGW\w+|__linux__|__unix__|__GLIBC__)\b|"
    r"#\s*include\s*<(?:windows|winsock2|ws2tcpip|unistd|pthread|poll|fcntl|dirent|signal|netdb|"
    r"sys/\w+|netinet/\w+|arpa/\w+|linux/\w+)\.h>")
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.M)
FORWARD = re.compile(r"^(?:struct|class|enum class) (\w+)(?: : [\w:]+)?;", re.M)
DEFINED = re.compile(r"^(?:struct|class|enum class|enum)(?: alignas\(\w+\))? (\w+)[^;{]*\{", re.M)
MUTABLE_EXTERN = re.compile(r"^\s*extern (?!\"C|const |constexpr |template )[^;(]*;", re.M)
COMMENT = re.compile(r"//[^\n]*")
# What plain technical English says otherwise; texts that are fixed aren't comments.
AVOIDED = re.compile(r"\b(?:knock\w*|affairs?|anew|lets? go|letting go|ha(?:s|ve)n't got|told|tells?|"
                     r"the news|side door|front door|the road|two roads)\b", re.I)


def sources():
    for folder in CODE + CHECKS:
        for path, folders, names in os.walk(os.path.join(ROOT, folder)):
            folders.sort()
            for name in sorted(names):
                if name.endswith((".cpp", ".h", ".c")):
                    yield os.path.relpath(os.path.join(path, name), ROOT)


def room_of(path):
    return path.split("/")[0] if path.startswith(CHECKS) else os.path.dirname(path)


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


def check_table(faults):
    """The table itself: a room named by another stands above it, so it has no cycle."""
    above = set()
    for room, allowed in ARROWS.items():
        for target in allowed.split():
            if target not in above:
                faults.append("table of arrows: %s names %s, which stands below it" % (room, target))
        above.add(room)


def check_arrows(path, text, homes, faults):
    """The includes and forward declarations of a file. Returns how many lead to another room."""
    room = room_of(path)
    if room in CHECKS:
        return 0
    if room not in ARROWS:
        faults.append("%s: the room %s has no row in the table of arrows" % (path, room))
        return 0
    allowed, count = ARROWS[room].split(), 0
    for target in INCLUDE.findall(text):
        there = room_of(target)
        if "/" not in target or there == room:
            continue  # a header beside its file, chosen by the build
        count += 1
        if there not in allowed:
            faults.append("%s: the arrow to %s points up" % (path, target))
    for name in FORWARD.findall(text):
        rooms = homes.get(name, {room})
        if room not in rooms and not rooms.intersection(allowed) and (path, name) not in OPAQUE:
            faults.append("%s: declares %s, which %s defines, above it"
                          % (path, name, " and ".join(sorted(rooms))))
    return count


def check_twins(faults):
    """Each header of the platform contract has one source of its name on either side; what stands
    beside the twins lies in folders of its own. handle.h has nothing but inline parts."""
    def stems(folder, suffix):
        return {name[:-len(suffix)] for name in os.listdir(os.path.join(ROOT, folder))
                if name.endswith(suffix)}
    contract = stems("platform", ".h") - {"handle"}
    for side in ("platform/linux", "platform/windows"):
        for name in sorted(contract ^ stems(side, ".cpp")):
            faults.append("%s: %s stands on one side alone, contract or twin" % (side, name))
        for name in sorted(stems(side, ".h") - {"platform_traits"}):
            faults.append("%s/%s.h: private headers lie in folders below" % (side, name))


def check_state(externs, faults):
    """What a room shares is one record: a header declares no second mutable variable."""
    for room, found in sorted(externs.items()):
        if len(found) > 1:
            faults.append("%s: %d mutable variables in headers (%s)"
                          % (room, len(found), ", ".join(found)))


# Identifiers in documents that no source has: examples, a call of Windows, a prefix.
FOREIGN = frozenset("CamelCase lowerCamel ImpersonateNamedPipeClient ORRIN_TAVRIN_CMD_".split())


def check_documents(faults):
    """Every identifier and path in backticks exists. Returns how many there are."""
    listed = subprocess.run(["git", "ls-files"], cwd=ROOT, check=True, capture_output=True,
                            text=True).stdout.split("\n")[:-1]
    listed = [name for name in listed if os.path.exists(os.path.join(ROOT, name))]
    documents = [name for name in listed if name.endswith(".md")]
    words = set()
    for name in listed:
        if name not in documents and "/corpus/" not in name:
            with open(os.path.join(ROOT, name), encoding="utf-8", errors="replace") as file:
                words.update(re.findall(r"\w+", file.read()))
    paths = set(listed)
    paths |= {name[:at] for name in listed for at, char in enumerate(name) if char == "/"}
    known = words | FOREIGN | {os.path.basename(name) for name in listed}
    count = 0
    for document in documents:
        with open(os.path.join(ROOT, document), encoding="utf-8") as file:
            text = re.sub(r"^```.*?^```", "", file.read(), flags=re.S | re.M)
        for quoted in re.findall(r"`([^`\n]+)`", text):
            if re.fullmatch(r"(?:%s|docs|scripts|cmake)/[\w/.*{},-]*" % "|".join(CODE + CHECKS),
                            quoted) and not re.search(r"[*{}]", quoted):
                count += 1
                if quoted.rstrip("/") not in paths:
                    faults.append("%s: there is no %s" % (document, quoted))
                continue
            for name in re.findall(r"(?<![\w./-])[A-Za-z_]\w*", quoted):
                if not re.search(r"[a-z][A-Z]|_\w|^[gk][A-Z]", name):
                    continue  # a word of a command or of another's format
                count += 1
                if name not in known:
                    faults.append("%s: no source has the identifier %s" % (document, name))
    return count


def percentile(values, share):
    return sorted(values)[min(int(len(values) * share), len(values) - 1)]


def main():
    faults, lengths, lines, arrows, words = [], {}, {}, 0, 0
    texts = {}
    for path in sources():
        with open(os.path.join(ROOT, path), encoding="utf-8") as file:
            texts[path] = file.read()
    homes = collections.defaultdict(set)  # of each type: the rooms that define one of that name
    externs = collections.defaultdict(list)
    for path, text in texts.items():
        room = room_of(path)
        if room in CHECKS:
            continue
        for name in DEFINED.findall(text):
            homes[name].add(room)
        if path.endswith(".h"):
            externs[room] += [found.rsplit(None, 1)[-1][:-1]
                              for found in MUTABLE_EXTERN.findall(COMMENT.sub("", text))]
    asserts = avoided = 0
    for path, text in texts.items():
        lines[path] = text.count("\n")
        if lines[path] > LONGEST_FILE:
            faults.append("%s: %d lines" % (path, lines[path]))
        for line, length in functions(text):
            lengths["%s:%d" % (path, line)] = length
            if length > LONGEST_FUNCTION:
                faults.append("%s:%d: a function of %d lines" % (path, line, length))
        arrows += check_arrows(path, text, homes, faults)
        if path.split("/")[0] in ("service", "sock", "cim", "text", "lablink", "tools"):
            for word in PLATFORM_WORD.findall(text):
                words += 1
                faults.append("%s: platform word %s" % (path, word))
        if room_of(path) not in CHECKS:
            asserts += len(re.findall(r"(?<!static_)\bassert\(", text))
        comments = " ".join(found[2:].strip() for found in COMMENT.findall(text))
        for word in AVOIDED.findall(comments):
            avoided += 1
            faults.append("%s: a comment says \"%s\"" % (path, word))
    check_table(faults)
    check_twins(faults)
    check_state(externs, faults)
    identifiers = check_documents(faults)
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
    print("  %.2f lines of C++ tests to a line of code; %d includes between %d rooms; "
          "%d platform words outside platform/ and lab/" % (tests / code, arrows, len(ARROWS), words))
    print("  %d mutable variables in headers; %d asserts; %d identifiers and paths in documents"
          % (sum(map(len, externs.values())), asserts, identifiers))
    for fault in faults:
        print("  BROKEN  " + fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
