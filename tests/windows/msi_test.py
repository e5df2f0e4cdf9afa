# The installation package under Wine: installation, DASH through the installed service, upgrade over
# the running one, refused downgrade, repair, removal, and an installation that fails.
#
# Not shown here: Wine's netsh adds no firewall rule, and Wine keeps no access lists of folders.
import json
import os
import pathlib
import re
import subprocess
import sys

import wine_lab
from wine_lab import SOURCES, WineLabTest, prefix

from stewardry_lab import BOUND, curl, until

VERSION = os.environ["STEWARDRY_VERSION"]
NEWER = VERSION.rpartition(".")[0] + ".999"
NETWORK = "192.0.2.0/24,LocalSubnet"
HOME = r"C:\Program Files\Corvane\Stewardry"
SERVICE = r"HKLM\System\CurrentControlSet\Services\QuillonSvc"
EVENTS = r"HKLM\System\CurrentControlSet\Services\EventLog\Application\QuillonSvc"
SETTINGS = r"HKLM\Software\Corvane\Stewardry"
RESTART = "01000000" + "88130000"  # restart the service, after 5000 ms
REGISTRY = {  # of each key: value, type and data
    SERVICE: {
        "ImagePath": ("EXPAND_SZ", '"%s\\quillonsvc.exe"' % HOME), "DisplayName": ("SZ", "QuillonSvc"),
        "Description": ("SZ", "Corvane Stewardy Service"), "ObjectName": ("SZ", "LocalSystem"),
        "Type": ("DWORD", "0x10"), "Start": ("DWORD", "0x2"), "ErrorControl": ("DWORD", "0x1"),
        "DependOnService": ("MULTI_SZ", r"Tcpip\0Tavrin-MailBoxDrv"),
        "FailureActions": ("BINARY", "805101000000000000000000" "03000000" "14000000" + RESTART * 3),
        "FailureActionsOnNonCrashFailures": ("DWORD", "0x1"),
        "PreshutdownTimeout": ("DWORD", "0x7d0"), "ServiceSidType": ("DWORD", "0x1"),
        "RequiredPrivileges": ("MULTI_SZ", r"SeTcbPrivilege\0SeAssignPrimaryTokenPrivilege\0"
                               r"SeIncreaseQuotaPrivilege\0SeShutdownPrivilege\0"
                               "SeChangeNotifyPrivilege")},
    EVENTS: {"EventMessageFile": ("SZ", HOME + r"\quillonsvc.exe"), "TypesSupported": ("DWORD", "0x7")},
    SETTINGS: {"RemoteIP": ("SZ", NETWORK)}}
FILES = {"quillonsvc.exe", "stewardry.exe", "KVM_Agent.exe"}


def registered(key):
    text, code = prefix().run("reg", "query", key)
    found = re.findall(r"^ +(\w+) +REG_(\w+) +(.*)$", text, re.M)
    return {name: (kind, data) for name, kind, data in found} if code == 0 else None


def build(version, path):
    subprocess.run([sys.executable, "-B", SOURCES / "packaging/windows/build_msi.py",
                    os.environ["STEWARDRY_WINDOWS_BIN"], version, path], check=True)
    return path


def setUpModule():
    prefix().run("winecfg", "/v", "win10")  # a fresh prefix of Wine 8 is Windows 7


class Package(WineLabTest):
    def _open(self):
        super()._open()
        self.package = build(VERSION, self.path("a.msi"))
        self.home = pathlib.Path(prefix().folder, *HOME.split("\\")[1:])

    def _close(self):
        for package in pathlib.Path(self.folder).glob("[ab].msi"):
            self.msiexec("/x", str(package), "PURGE=1")
        super()._close()

    def msiexec(self, *words):
        words = ["Z:" + word.replace("/", "\\") if word.endswith(".msi") else word for word in words]
        return prefix().run("msiexec", *words, "/qn")[1]

    def files(self):
        return {file.name for file in self.home.iterdir()}

    def assert_nothing_left(self):
        until(lambda: registered(SERVICE) is None, "the service's removal")
        self.assertEqual((registered(EVENTS), registered(SETTINGS)), (None, None))
        self.assertFalse(self.home.exists())  # Wine leaves the empty folder above it

    def test_it_installs_upgrades_repairs_and_removes_the_service(self):
        self.orrin = self.start_orrin()
        self.assertEqual(self.msiexec("/i", self.package, "REMOTEIP=" + NETWORK), 0)
        for key, values in REGISTRY.items():
            found = registered(key)
            for name, value in values.items():
                self.assertEqual(found.get(name), value, name)
        self.assertEqual(self.files(), FILES)
        self.logged(BOUND)
        self.assertEqual(json.loads(curl("/"))["serviceVersion"], VERSION)
        status, code = prefix().run(str(self.home / "stewardry.exe"), "status", "--json")
        self.assertEqual((json.loads(status)["verdict"], code), ("healthy", 0), status)

        newer = build(NEWER, self.path("b.msi"))
        self.assertEqual(self.msiexec("/i", newer), 0)
        self.logged(BOUND, 2)  # stopped, replaced, started; the log went on
        self.assertEqual(registered(SETTINGS), REGISTRY[SETTINGS])
        self.assertNotEqual(self.msiexec("/i", self.package), 0)  # a downgrade
        (self.home / "stewardry.exe").unlink()
        # Wine's /fa takes a product code only; this is what it means.
        self.assertEqual(self.msiexec("/i", newer, "REINSTALL=ALL", "REINSTALLMODE=amus"), 0)
        self.assertEqual(self.files(), FILES)

        self.assertEqual(self.msiexec("/x", newer), 0)
        self.assert_nothing_left()
        self.assertTrue(os.path.exists(self.log_path()))

    def test_a_removal_with_purge_removes_the_logs(self):
        self.assertEqual(self.msiexec("/i", self.package, "START=0", "ADDLOCAL=Main"), 0)
        self.assertEqual(self.files(), FILES - {"KVM_Agent.exe"})
        self.assertTrue(os.path.isdir(self.logs))
        self.assertEqual(self.msiexec("/x", self.package, "PURGE=1"), 0)
        self.assert_nothing_left()
        self.assertFalse(os.path.exists(self.logs))

    def test_an_installation_that_fails_leaves_nothing(self):
        self.assertNotEqual(self.msiexec("/i", self.package, "REMOTEIP=here&there"), 0)
        self.assert_nothing_left()

    def test_the_package_is_valid_and_reproducible(self):
        again = build(VERSION, self.path("again.msi"))
        self.assertTrue(pathlib.Path(again).read_bytes() == pathlib.Path(self.package).read_bytes())
        export = lambda table: subprocess.run(  # noqa: E731
            ["msiinfo", "export", self.package, table], check=True, capture_output=True,
            text=True).stdout.splitlines()[3:]
        rows = {table: [line.split("\t") for line in export(table)]
                for table in ("Property", "Component", "CustomAction", "InstallExecuteSequence")}
        properties = dict(row[:2] for row in rows["Property"])
        self.assertLessEqual({"ProductCode", "UpgradeCode", "Manufacturer", "ALLUSERS"}, set(properties))
        self.assertLessEqual({"START", "REMOTEIP", "PURGE"},
                             set(properties["SecureCustomProperties"].split(";")))
        codes = [row[1] for row in rows["Component"]]
        self.assertEqual((len(set(codes)), {row[3] for row in rows["Component"]}), (3, {"256"}))
        places = [row[2] for row in rows["InstallExecuteSequence"]]
        self.assertEqual(len(set(places)), len(places))
        scheduled = {row[0] for row in rows["InstallExecuteSequence"]}
        self.assertLessEqual({row[0] for row in rows["CustomAction"]}, scheduled)


if __name__ == "__main__":
    wine_lab.run()
