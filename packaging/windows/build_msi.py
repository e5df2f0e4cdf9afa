#!/usr/bin/env python3
"""Builds the installation package from stewardry.wxs with wixl.

    build_msi.py BIN VERSION OUTPUT

BIN is the folder of the built programs, VERSION has four numbers. The same programs and version give
the same bytes: every identifier is derived from names and the version, and the times are those of
SOURCE_DATE_EPOCH (by default the time of the newest commit)."""
import hashlib
import os
import pathlib
import shutil
import struct
import subprocess
import sys
import tempfile
import time
import uuid

SOURCE = pathlib.Path(__file__).resolve().parent
FAMILY = uuid.UUID("5b9d7f0e-2f5c-4f0a-9a57-3c1b6d2e8f41")  # of all identifiers of the package
PROGRAMS = ("quillonsvc.exe", "stewardry.exe", "KVM_Agent.exe", "stewardry-setup.exe")


# The custom actions: name, type, source, target, place in the sequence, condition. A remote address
# is that of the command line, else that of the installation before, else any. The other actions run
# stewardry-setup.exe, which is in the Binary table, with the rights of the system. Each change stands behind the rollback action that takes it back. Deleted logs
# cannot come back, so they go when the removal has succeeded. A service that cannot start, for
# example without the mailbox driver, is no failed installation.
SET, PROGRAM, IGNORED, DEFERRED, ROLLBACK, COMMIT, SYSTEM = (
    51, 2, 64, 1024, 256, 512, 2048)
CHANGE = PROGRAM | DEFERRED | SYSTEM
APPLY = 'apply "[#quillonsvc.exe]" "[REMOTEIP]"'
ACTIONS = (
    ("KeepRemoteIp", SET, "REMOTEIP", "[SAVEDREMOTEIP]", 51, "NOT REMOTEIP AND SAVEDREMOTEIP"),
    ("AnyRemoteIp", SET, "REMOTEIP", "any", 52, "NOT REMOTEIP"),
    ("RemoveRollback", CHANGE | ROLLBACK | IGNORED, "Setup", APPLY, 1901, 'REMOVE="ALL"'),
    ("Remove", CHANGE | IGNORED, "Setup", "remove", 1902, 'REMOVE="ALL"'),
    ("ApplyRollback", CHANGE | ROLLBACK | IGNORED, "Setup", "remove", 5801, "NOT Installed"),
    ("Apply", CHANGE, "Setup", APPLY, 5802, 'NOT (REMOVE="ALL")'),
    ("StartService", CHANGE | IGNORED, "Setup", "start", 5901, 'NOT (REMOVE="ALL") AND START=1'),
    ("Purge", CHANGE | COMMIT | IGNORED, "Setup", "purge", 6590,
     'REMOVE="ALL" AND PURGE=1 AND NOT UPGRADINGPRODUCTCODE'))


# What wixl gets wrong or has no element for. The old version is removed within the installation, so
# that a failure brings it back.
CORRECTIONS = (
    "UPDATE `Component` SET `Attributes` = 256",  # msidbComponentAttributes64bit
    "UPDATE `RegLocator` SET `Type` = 18",  # a raw value of the 64-bit registry
    "UPDATE `RemoveFile` SET `DirProperty` = 'CompanyFolder'",
    "UPDATE `InstallExecuteSequence` SET `Sequence` = 1501 WHERE `Action` = 'RemoveExistingProducts'",
    "UPDATE `Property` SET `Value` = "
    "'WIX_DOWNGRADE_DETECTED;WIX_UPGRADE_DETECTED;START;REMOTEIP;PURGE' "
    "WHERE `Property` = 'SecureCustomProperties'",
)


def complete(package, code):
    statements = list(CORRECTIONS)
    for name, kind, source, target, place, condition in ACTIONS:
        statements.append("INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES "
                          "('%s', %d, '%s', '%s')" % (name, kind, source, target))
        statements.append("INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) "
                          "VALUES ('%s', '%s', %d)" % (name, condition, place))
    for words in (["-s", "Installation Database", "Corvane", "x64;1033", "{%s}" % code],
                  ["-q", *statements]):
        subprocess.run(["msibuild", package, *words], check=True)


def set_times(package, seconds):
    """Replaces the two times of the summary, which wixl takes from the clock."""
    kind = struct.pack("<I", 0x40)  # VT_FILETIME
    wanted = struct.pack("<Q", (seconds + 11644473600) * 10**7)
    content = pathlib.Path(package).read_bytes()
    now = (time.time() + 11644473600) * 10**7
    at = content.find(kind)
    while at >= 0:
        found, = struct.unpack_from("<Q", content.ljust(at + 12, b"\0"), at + 4)
        if abs(found - now) < 86400 * 10**7:
            content = content[:at + 4] + wanted + content[at + 12:]
        at = content.find(kind, at + 1)
    pathlib.Path(package).write_bytes(content)


def identifier(*names):
    return str(uuid.uuid5(FAMILY, " ".join(names))).upper()


def epoch():
    if "SOURCE_DATE_EPOCH" in os.environ:
        return os.environ["SOURCE_DATE_EPOCH"]
    return subprocess.run(["git", "log", "-1", "--format=%ct"], cwd=SOURCE, check=True,
                          capture_output=True, text=True).stdout.strip()


def main(folder, version, output):
    # Windows Installer compares three numbers and takes at most 65535 for the third; the fourth of
    # ours, the build, becomes its third.
    major, minor, patch, build = version.split(".")
    product = "%s.%s.%d" % (major, minor, int(patch) * 1000 + int(build))
    digest = hashlib.sha256()
    for name in PROGRAMS:
        digest.update(pathlib.Path(folder, name).read_bytes())
    variables = {
        "Bin": ".", "FullVersion": version, "ProductVersion": product,
        "UpgradeCode": identifier("upgrade"), "ProductCode": identifier("product", version),
        # Two packages of different bytes must have different codes.
        "PackageCode": identifier("package", version, digest.hexdigest(),
                                  (SOURCE / "stewardry.wxs").read_text()),
        "ServiceGuid": identifier("service"), "ToolGuid": identifier("tool"),
        "AgentGuid": identifier("agent")}
    with tempfile.TemporaryDirectory() as place:
        seconds = int(epoch())
        for name in PROGRAMS:
            shutil.copy(os.path.join(folder, name), place)
            os.utime(os.path.join(place, name), (seconds, seconds))
        words = ["wixl", "-a", "x64", "-o", "result.msi", str(SOURCE / "stewardry.wxs")]
        for name, value in variables.items():
            words += ["-D", "%s=%s" % (name, value)]
        subprocess.run(words, cwd=place, check=True,
                       env=dict(os.environ, SOURCE_DATE_EPOCH=str(seconds), TZ="UTC"))
        complete(os.path.join(place, "result.msi"), variables["PackageCode"])
        set_times(os.path.join(place, "result.msi"), seconds)
        shutil.move(os.path.join(place, "result.msi"), output)


if __name__ == "__main__":
    main(*sys.argv[1:])
