# quillonsvc.exe as a file: its imports, its guards, its properties and its manifest.
import os
import re
import struct
import subprocess
import unittest

PROGRAM = os.path.join(os.environ["STEWARDRY_WINDOWS_BIN"], "quillonsvc.exe")
VERSION = os.environ["STEWARDRY_VERSION"]
# Loaded after the search has been restricted. platform/windows/CMakeLists.txt has their functions.
DELAYED = ["advapi32", "iphlpapi", "ole32", "oleaut32", "powrprof", "setupapi", "shell32", "user32",
           "userenv", "winhttp", "wininet", "wlanapi", "ws2_32"]
STRINGS = {"CompanyName": "Corvane", "FileDescription": "Quillon Stewardry Service",
           "FileVersion": VERSION, "InternalName": "quillonsvc",
           "OriginalFilename": "quillonsvc.exe", "ProductName": "Quillon Stewardry Service",
           "ProductVersion": VERSION}


def setUpModule():
    global _headers, _bytes
    _headers = subprocess.run(["x86_64-w64-mingw32-objdump", "-p", "-t", PROGRAM], check=True,
                              capture_output=True, text=True).stdout
    with open(PROGRAM, "rb") as file:
        _bytes = file.read()


class Executable(unittest.TestCase):
    def test_only_system_dlls_are_loaded_before_the_search_is_restricted(self):
        # Both always come from the system folder.
        self.assertEqual(re.findall(r"DLL Name: (\S+)", _headers), ["KERNEL32.dll", "msvcrt.dll"])

    def test_each_other_dll_is_loaded_at_its_first_use(self):
        found = re.findall(r" __DELAY_IMPORT_DESCRIPTOR_libdelay_(\w+)_a$", _headers, re.M)
        self.assertEqual(sorted(found), DELAYED)

    def test_the_image_moves_and_its_data_cannot_be_run(self):
        for guard in ("HIGH_ENTROPY_VA", "DYNAMIC_BASE", "NX_COMPAT"):
            self.assertRegex(_headers, r"\n\s+%s\n" % guard)
        # Without relocations the image would stay at its base whatever the flags say.
        size = re.search(r"Entry 5 \w+ (\w+) Base Relocation Directory", _headers)[1]
        self.assertGreater(int(size, 16), 0)

    def test_functions_with_buffers_check_their_stack(self):
        # Each check ends in a call of this function.
        linux = os.path.join(os.environ["STEWARDRY_BIN"], "quillonsvc")
        for tool, path in (("x86_64-w64-mingw32-objdump", PROGRAM), ("objdump", linux)):
            code = subprocess.run([tool, "-d", path], check=True, capture_output=True,
                                  text=True).stdout
            self.assertGreater(code.count("<__stack_chk_fail"), 100, path)

    def test_the_properties_name_the_program_and_its_version(self):
        number = [int(part) for part in VERSION.split(".")]
        words = (number[0] << 16 | number[1], number[2] << 16 | number[3])
        fixed = _bytes.index(struct.pack("<I", 0xFEEF04BD))  # VS_FIXEDFILEINFO
        self.assertEqual(struct.unpack_from("<4I", _bytes, fixed + 8), words * 2)
        # A string is its key and its value, each zero-terminated, the value on a 4-byte boundary.
        strings = re.sub("\0+", "\0", _bytes[fixed + 52:].decode("utf-16-le", "replace"))
        for key, value in STRINGS.items():
            self.assertIn("%s\0%s\0" % (key, value), strings)

    def test_the_manifest_requests_no_elevation_and_names_windows_10(self):
        self.assertIn(b'<requestedExecutionLevel level="asInvoker" uiAccess="false"/>', _bytes)
        self.assertIn(b'<supportedOS Id="{8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a}"/>', _bytes)
        self.assertNotIn(b"activeCodePage", _bytes)


if __name__ == "__main__":
    unittest.main(verbosity=2)
