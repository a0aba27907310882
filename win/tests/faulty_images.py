#!/usr/bin/env python3
"""The image checker rejects what is not a loadable WDM driver, and only for the reason
that is wrong: each case damages one property of a copy of the built driver (keeping
the checksum right unless the checksum is the damage) and expects exactly that check
to fail. A user-mode program built by the same compiler must fail the kernel checks.

usage: faulty_images.py DRIVER.sys USER_PROGRAM.exe
"""
import os
import struct
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
PE_DIR = os.path.join(os.path.dirname(HERE), "pe")
sys.path.insert(0, PE_DIR)
import peimage  # noqa: E402

CHECKER = os.path.join(PE_DIR, "check_sys.py")
IDENTIFICATION = b"KORVA-VERSION-KORVA ruvo_mi_x64.sys v4.42.3 debug\0"
IMPORTS_CHECK = "imports only from ntoskrnl.exe, HAL.dll, USBD.SYS"
STRING_CHECK = "identification string in read-only data"

DRIVER_PATH = None
USER_PROGRAM_PATH = None


def run_checker(data):
    with tempfile.NamedTemporaryFile(suffix=".sys", delete=False) as image_file:
        image_file.write(data)
        path = image_file.name
    try:
        result = subprocess.run([sys.executable, CHECKER, path], capture_output=True,
                                text=True, check=False)
    finally:
        os.unlink(path)
    return result.returncode, result.stdout + result.stderr


def failed_checks(output):
    return {line[len("FAIL: "):].split(": ", 1)[0]
            for line in output.splitlines() if line.startswith("FAIL: ")}


# ---------------------------------------------------------------- damage, one property each
def opt(image, field):
    return image.optional_header_offset + field


def set_u16(data, offset, value):
    struct.pack_into("<H", data, offset, value)


def set_u32(data, offset, value):
    struct.pack_into("<I", data, offset, value)


def set_u64(data, offset, value):
    struct.pack_into("<Q", data, offset, value)


def add_section_flags(image, data, predicate, flags):
    for section in image.sections:
        if predicate(section):
            set_u32(data, section.header_offset + peimage.SECTION_CHARACTERISTICS,
                    section.characteristics | flags)


def directory_offset(image, index):
    return opt(image, peimage.OPT_DATA_DIRECTORIES) + 8 * index


def holds_identification(image, section):
    return IDENTIFICATION in image.section_data(section)


def rename_import(image, data):
    # Same length, so nothing else in the import table moves.
    idata = next(s for s in image.sections if image.section_data(s).find(b"ntoskrnl.exe\0") >= 0)
    at = idata.raw_offset + image.section_data(idata).find(b"ntoskrnl.exe\0")
    data[at:at + 12] = b"kernel32.dll"


def alter_identification(image, data):
    at = bytes(data).find(IDENTIFICATION)
    version = IDENTIFICATION.find(b"4.42.3")
    data[at + version:at + version + 6] = b"4.42.4"


# (name, damage(image, data), failing checks, message fragment)
DAMAGE = [
    ("console subsystem",
     lambda i, d: set_u16(d, opt(i, peimage.OPT_SUBSYSTEM), 3),
     {"subsystem native"}, "subsystem is 3"),
    ("32-bit optional header",
     lambda i, d: set_u16(d, opt(i, peimage.OPT_MAGIC), peimage.PE32_MAGIC),
     {"PE32+ image"}, "magic is 0x10B"),
    ("i386 machine",
     lambda i, d: set_u16(d, i.optional_header_offset - peimage.FILE_HEADER_SIZE, 0x14C),
     {"machine AMD64"}, "machine is 0x14C"),
    ("entry point one byte into DriverEntry",
     lambda i, d: set_u32(d, opt(i, peimage.OPT_ENTRY_POINT), i.entry_point + 1),
     {"entry point is DriverEntry"}, "DriverEntry is at RVA"),
    ("no entry point",
     lambda i, d: set_u32(d, opt(i, peimage.OPT_ENTRY_POINT), 0),
     {"entry point set", "entry point is DriverEntry"}, "AddressOfEntryPoint is 0"),
    ("import from kernel32.dll", rename_import, {IMPORTS_CHECK}, "kernel32.dll: "),
    ("delay-load import table",
     lambda i, d: struct.pack_into("<II", d, directory_offset(i, peimage.DIR_DELAY_IMPORT),
                                   i.sections[0].virtual_address, 64),
     {"no delay-load imports"}, "64 bytes"),
    ("identification string of another version", alter_identification,
     {STRING_CHECK}, "is in no section"),
    ("identification string in writable data",
     lambda i, d: add_section_flags(i, d, lambda s: holds_identification(i, s),
                                    peimage.SCN_MEM_WRITE),
     {STRING_CHECK}, "RW-, not read-only data"),
    ("relocations stripped",
     lambda i, d: struct.pack_into("<II", d, directory_offset(i, peimage.DIR_BASERELOC), 0, 0),
     {"base relocations"}, "cannot be rebased"),
    ("WDM flag cleared",
     lambda i, d: set_u16(d, opt(i, peimage.OPT_DLL_CHARACTERISTICS),
                          i.dll_characteristics & ~peimage.DLLCHARACTERISTICS_WDM_DRIVER),
     {"WDM driver flag"}, "lacks 0x2000"),
    ("static constructor registered",
     lambda i, d: set_u64(d, i.rva_to_offset(i.symbol_rva("__CTOR_LIST__") + 8, "ctors"),
                          i.entry_point + i.image_base),
     {"no static constructors"}, "__CTOR_LIST__ holds"),
    ("thread-local storage directory",
     lambda i, d: struct.pack_into("<II", d, directory_offset(i, peimage.DIR_TLS),
                                   i.sections[0].virtual_address, 40),
     {"no thread-local storage"}, "TLS directory of 40 bytes"),
    ("writable code",
     lambda i, d: add_section_flags(i, d, lambda s: s.executable, peimage.SCN_MEM_WRITE),
     {"no writable code section"}, ".text"),
]


class FaultyImages(unittest.TestCase):
    def setUp(self):
        with open(DRIVER_PATH, "rb") as image_file:
            self.driver = image_file.read()
        self.image = peimage.PeImage(self.driver)

    def with_checksum(self, data):
        set_u32(data, self.image.checksum_field_offset(),
                peimage.PeImage(bytes(data)).compute_checksum())
        return bytes(data)

    def test_built_driver_passes_every_check(self):
        # Without this the cases below could pass against a checker that fails everything.
        status, output = run_checker(self.driver)
        self.assertEqual(status, 0, output)
        self.assertEqual(failed_checks(output), set(), output)

    def test_each_damage_fails_exactly_its_check(self):
        for name, damage, expected, fragment in DAMAGE:
            with self.subTest(name):
                data = bytearray(self.driver)
                damage(self.image, data)
                status, output = run_checker(self.with_checksum(data))
                self.assertEqual(status, 1, output)
                self.assertEqual(failed_checks(output), expected, output)
                self.assertIn(fragment, output)

    def test_changed_byte_breaks_checksum(self):
        # A byte of the DOS stub's message: nothing but the checksum covers it.
        data = bytearray(self.driver)
        at = data.find(b"This program cannot be run in DOS mode")
        self.assertGreater(at, 0)
        data[at] ^= 0x20
        status, output = run_checker(bytes(data))
        self.assertEqual(status, 1, output)
        self.assertEqual(failed_checks(output), {"image checksum"}, output)
        self.assertIn("the file sums to", output)

    def test_unreadable_files_are_reported_not_crashed_on(self):
        cases = [("truncated after the headers", self.driver[:0x200], "file too short"),
                 ("no MZ signature", b"ZM" + self.driver[2:], "no MZ signature"),
                 ("empty file", b"", "file too short")]
        for name, data, fragment in cases:
            with self.subTest(name):
                status, output = run_checker(data)
                self.assertEqual(status, 2, output)
                self.assertIn("is not a readable PE image", output)
                self.assertIn(fragment, output)
                self.assertNotIn("Traceback", output)

    def test_user_mode_program_fails_the_kernel_checks(self):
        with open(USER_PROGRAM_PATH, "rb") as image_file:
            status, output = run_checker(image_file.read())
        self.assertEqual(status, 1, output)
        # Its C runtime may add more (constructors, TLS); these five must be among them.
        self.assertLessEqual({"subsystem native", "WDM driver flag", "entry point is DriverEntry",
                              IMPORTS_CHECK, STRING_CHECK}, failed_checks(output), output)
        self.assertIn("KERNEL32.dll: ", output)


if __name__ == "__main__":
    if len(sys.argv) < 3:
        print(__doc__.strip().splitlines()[-1], file=sys.stderr)
        sys.exit(2)
    DRIVER_PATH, USER_PROGRAM_PATH = sys.argv[1], sys.argv[2]
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:], verbosity=2)
