"""quillonsvc.exe as a file: what Windows loads for it and when, what it shows of it, and which
guards it switches on. Read from the file's own tables; nothing is run.

A new function of Windows' gets its row in platform/windows/CMakeLists.txt, and its name here: what
the service asks of Windows doesn't grow unseen.
"""
import os
import re
import struct
import unittest

PROGRAM = os.path.join(os.environ["STEWARDRY_WINDOWS_BIN"], "quillonsvc.exe")
VERSION = os.environ["STEWARDRY_VERSION"]

# Loaded before the program's first instruction; both always come from the system folder.
AT_LOAD = ["KERNEL32.dll", "msvcrt.dll"]
# Loaded once the search has been narrowed.
DELAYED = {
    "advapi32.dll": "AdjustTokenPrivileges ChangeServiceConfig2A CloseServiceHandle "
                    "CreateProcessAsUserA CreateServiceA DeregisterEventSource DuplicateTokenEx "
                    "InitiateSystemShutdownExA LookupPrivilegeValueA OpenProcessToken "
                    "OpenSCManagerA RegisterEventSourceA RegisterServiceCtrlHandlerExA "
                    "ReportEventA SetServiceStatus SetTokenInformation "
                    "StartServiceCtrlDispatcherA",
    "iphlpapi.dll": "CancelMibChangeNotify2 ConvertLengthToIpv4Mask GetAdaptersAddresses "
                    "GetAdaptersInfo GetIfTable GetIpAddrTable NotifyIpInterfaceChange",
    "ole32.dll": "CoCreateInstance CoInitializeEx CoInitializeSecurity CoSetProxyBlanket "
                 "CoUninitialize",
    "oleaut32.dll": "SafeArrayGetDim SafeArrayGetElement SafeArrayGetLBound SafeArrayGetUBound "
                    "SysAllocString SysFreeString SysStringLen VariantClear VariantInit",
    "powrprof.dll": "SetSuspendState",
    "setupapi.dll": "SetupDiDestroyDeviceInfoList SetupDiEnumDeviceInterfaces "
                    "SetupDiGetClassDevsA SetupDiGetDeviceInterfaceDetailA",
    "shell32.dll": "SHGetFolderPathA",
    "user32.dll": "GetAsyncKeyState GetKeyState GetSystemMetrics MapVirtualKeyA "
                  "RegisterPowerSettingNotification ToAscii VkKeyScanA",
    "userenv.dll": "CreateEnvironmentBlock DestroyEnvironmentBlock",
    "winhttp.dll": "WinHttpAddRequestHeaders WinHttpCloseHandle WinHttpConnect WinHttpOpen "
                   "WinHttpOpenRequest WinHttpSendRequest WinHttpSetOption WinHttpSetTimeouts",
    "wininet.dll": "InternetGetConnectedState",
    "wlanapi.dll": "WlanCloseHandle WlanEnumInterfaces WlanFreeMemory WlanGetProfile "
                   "WlanGetProfileList WlanOpenHandle WlanRegisterNotification",
    "ws2_32.dll": "WSACleanup WSACloseEvent WSACreateEvent WSAEnumNetworkEvents WSAEventSelect "
                  "WSAGetLastError WSAStartup accept bind closesocket connect freeaddrinfo "
                  "getaddrinfo gethostbyname gethostname inet_ntop ioctlsocket listen recv "
                  "recvfrom send sendto setsockopt shutdown socket",
}
STRINGS = {
    "CompanyName": "Corvane",
    "FileDescription": "Quillon Stewardry Service",
    "FileVersion": VERSION,
    "InternalName": "quillonsvc",
    "OriginalFilename": "quillonsvc.exe",
    "ProductName": "Quillon Stewardry Service",
    "ProductVersion": VERSION,
}
# IMAGE_DLLCHARACTERISTICS of winnt.h.
GUARDS = {"HIGH_ENTROPY_VA": 0x20, "DYNAMIC_BASE": 0x40, "NX_COMPAT": 0x100}
# Data directories, in the order of winnt.h.
IMPORTS, RESOURCES, RELOCATIONS = 1, 2, 5
MANIFEST, VERSION_INFO = 24, 16  # resource types of winuser.h


class Executable:
    """A 64-bit PE file, read by the offsets of its format."""

    def __init__(self, path):
        with open(path, "rb") as file:
            self.bytes = file.read()
        coff = self.at("<I", 0x3C)[0] + 4
        _, count, _, self.symbols, self.symbol_count, optional = self.at("<HHIIIH", coff)
        header = coff + 20
        self.base, = self.at("<Q", header + 24)
        self.characteristics, = self.at("<H", header + 70)
        self.directories = [self.at("<II", header + 112 + 8 * i) for i in range(16)]
        # Of each section: size in memory, address, size in the file, place in the file.
        self.sections = [self.at("<IIII", header + optional + 40 * i + 8) for i in range(count)]

    def at(self, form, offset):
        return struct.unpack_from(form, self.bytes, offset)

    def place(self, address):
        """The offset in the file of what is loaded at `address`, counted from the image's base."""
        for size, start, held, offset in self.sections:
            if start <= address < start + min(size, held):
                return offset + address - start
        raise AssertionError("nothing of the file is loaded at 0x%x" % address)

    def text(self, offset):
        return self.bytes[offset:self.bytes.index(b"\0", offset)].decode()

    def names(self, address):
        """The functions that a table of names asks for."""
        offset = self.place(address)
        found = []
        while (entry := self.at("<Q", offset)[0]) != 0:
            found.append(self.text(self.place(entry) + 2))
            offset += 8
        return found

    def imports(self):
        """What the ordinary import table asks for: DLL -> functions."""
        offset = self.place(self.directories[IMPORTS][0])
        found = {}
        while (row := self.at("<5I", offset))[3] != 0:
            found[self.text(self.place(row[3]))] = self.names(row[0])
            offset += 20
        return found

    def delayed_imports(self):
        """What the delay-load descriptors ask for. GNU ld leaves their data directory empty, so they
        are found by their symbols."""
        strings = self.symbols + 18 * self.symbol_count
        found = {}
        step = 0
        while step < self.symbol_count:
            symbol = self.symbols + 18 * step
            zero, name, value, section = self.at("<IIIh", symbol)
            step += 1 + self.bytes[symbol + 17]
            if zero == 0 and section > 0 and self.text(strings + name).startswith(
                    "__DELAY_IMPORT_DESCRIPTOR_"):
                row = self.at("<8I", self.place(self.sections[section - 1][1] + value))
                found[self.text(self.place(row[1]))] = self.names(row[4])
        return found

    def resource(self, kind):
        """The one resource of a type, by its number."""
        root = self.place(self.directories[RESOURCES][0])
        node, wanted = root, kind
        while True:  # type, name, language
            named, numbered = self.at("<HH", node + 12)
            rows = [self.at("<II", node + 16 + 8 * i) for i in range(named + numbered)]
            down = [to for key, to in rows if wanted in (key, None)]
            if len(down) != 1:
                raise AssertionError("%d resources of type %d" % (len(down), kind))
            node, wanted = root + (down[0] & 0x7FFFFFFF), None
            if not down[0] & 0x80000000:
                address, size = self.at("<II", node)
                return self.bytes[self.place(address):][:size]


def setUpModule():
    global _program
    _program = Executable(PROGRAM)


class Imports(unittest.TestCase):
    def test_a_dll_is_loaded_before_the_search_is_narrowed(self):
        self.assertEqual(sorted(_program.imports()), AT_LOAD)

    def test_a_function_is_asked_of_windows_that_nobody_has_declared(self):
        self.maxDiff = None
        found = {dll: sorted(names) for dll, names in _program.delayed_imports().items()}
        self.assertEqual(found, {dll: names.split() for dll, names in DELAYED.items()})


class Guards(unittest.TestCase):
    def test_the_image_stays_at_a_known_place_or_its_data_can_be_run(self):
        off = [name for name, bit in GUARDS.items() if not _program.characteristics & bit]
        self.assertEqual(off, [])
        # Without a table of relocations it would stay at its base whatever the flags say.
        self.assertGreater(_program.directories[RELOCATIONS][1], 0)


class Resources(unittest.TestCase):
    def test_the_properties_tell_another_program_or_version(self):
        held = _program.resource(VERSION_INFO)
        number = [int(part) for part in VERSION.split(".")]
        high, low = number[0] << 16 | number[1], number[2] << 16 | number[3]
        fixed = held.index(struct.pack("<I", 0xFEEF04BD))  # VS_FIXEDFILEINFO
        self.assertEqual(struct.unpack_from("<4I", held, fixed + 8), (high, low, high, low))
        # A string is its key and its value, each ended by a zero, the value on a 4-byte boundary.
        words = re.sub("\0+", "\0", held[fixed + 52:].decode("utf-16-le", "replace"))
        for key, value in STRINGS.items():
            self.assertIn("%s\0%s\0" % (key, value), words)

    def test_windows_asks_for_elevation_or_plays_an_older_system(self):
        manifest = _program.resource(MANIFEST).decode()
        self.assertIn('<requestedExecutionLevel level="asInvoker" uiAccess="false"/>', manifest)
        self.assertIn('<supportedOS Id="{8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a}"/>', manifest)
        self.assertNotIn("activeCodePage", manifest)


if __name__ == "__main__":
    unittest.main(verbosity=2)
