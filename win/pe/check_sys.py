#!/usr/bin/env python3
"""Checks that a built image is a loadable Windows x64 WDM kernel driver.

Prints one line per check ("ok:" or "FAIL:" with what was found) and exits 1 if any
check failed, 2 if the file cannot be read as a PE image at all.

usage: check_sys.py IMAGE.sys
"""
import os
import struct
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import peimage  # noqa: E402

IDENTIFICATION = b"KORVA-VERSION-KORVA ruvo_mi_x64.sys v4.42.3 debug"
ENTRY_SYMBOL = "DriverEntry"
# A kernel driver may only bind to the kernel, the HAL and the USB driver library.
ALLOWED_IMPORTS = ("ntoskrnl.exe", "hal.dll", "usbd.sys")


class Report:
    def __init__(self):
        self.failures = 0

    def ok(self, check, detail):
        print("ok:   %s (%s)" % (check, detail))

    def fail(self, check, detail):
        self.failures += 1
        print("FAIL: %s: %s" % (check, detail))

    def expect(self, condition, check, good, bad):
        if condition:
            self.ok(check, good)
        else:
            self.fail(check, bad)


def check_format(image, report):
    report.expect(image.magic == peimage.PE32_PLUS_MAGIC, "PE32+ image",
                  "optional header magic 0x20B",
                  "optional header magic is 0x%X, expected 0x20B" % image.magic)
    report.expect(image.machine == peimage.MACHINE_AMD64, "machine AMD64",
                  "0x8664", "machine is 0x%X, expected 0x8664" % image.machine)
    return image.magic == peimage.PE32_PLUS_MAGIC


def check_kind(image, report):
    report.expect(image.subsystem == peimage.SUBSYSTEM_NATIVE, "subsystem native",
                  "1", "subsystem is %d, expected 1 (native)" % image.subsystem)
    report.expect(image.dll_characteristics & peimage.DLLCHARACTERISTICS_WDM_DRIVER,
                  "WDM driver flag", "DllCharacteristics 0x%04X" % image.dll_characteristics,
                  "DllCharacteristics 0x%04X lacks 0x2000" % image.dll_characteristics)
    # The kernel maps drivers wherever it has room.
    reloc_rva, reloc_size = image.directory(peimage.DIR_BASERELOC)
    report.expect(reloc_rva and reloc_size, "base relocations", "%d bytes" % reloc_size,
                  "the image has no base relocation table and cannot be rebased")


def check_entry(image, report):
    entry = image.entry_point
    section = image.section_of_rva(entry) if entry else None
    if not entry:
        report.fail("entry point set", "AddressOfEntryPoint is 0")
    elif section is None or not section.executable:
        report.fail("entry point set", "AddressOfEntryPoint 0x%X is not in a code section"
                    % entry)
    else:
        report.ok("entry point set", "RVA 0x%X in %s" % (entry, section.name))
    symbol = image.symbol_rva(ENTRY_SYMBOL)
    if symbol is None:
        report.fail("entry point is DriverEntry",
                    "no COFF symbol %s in the image (stripped?)" % ENTRY_SYMBOL)
    else:
        report.expect(symbol == entry, "entry point is DriverEntry", "RVA 0x%X" % entry,
                      "entry point RVA 0x%X, DriverEntry is at RVA 0x%X" % (entry, symbol))


def check_imports(image, report):
    imports = image.imports()
    foreign = [i for i in imports if i.dll.lower() not in ALLOWED_IMPORTS]
    names = ", ".join("%s (%d)" % (i.dll, len(i.functions)) for i in imports)
    if foreign:
        report.fail("imports only from ntoskrnl.exe, HAL.dll, USBD.SYS", "; ".join(
            "%s: %s" % (i.dll, ", ".join(i.functions[:5]) + (" ..." if len(i.functions) > 5
                                                             else "")) for i in foreign))
    elif not imports:
        report.fail("imports only from ntoskrnl.exe, HAL.dll, USBD.SYS",
                    "the image imports nothing, not even from ntoskrnl.exe")
    else:
        report.ok("imports only from ntoskrnl.exe, HAL.dll, USBD.SYS", names)
    delay_rva, delay_size = image.directory(peimage.DIR_DELAY_IMPORT)
    report.expect(not (delay_rva and delay_size), "no delay-load imports", "none",
                  "delay-load import table of %d bytes" % delay_size)


def check_sections(image, report):
    mixed = [s.name for s in image.sections if s.writable and s.executable]
    report.expect(not mixed, "no writable code section", "%d sections" % len(image.sections),
                  "writable and executable: " + ", ".join(mixed))


def function_list_entries(image, symbol):
    """Entries of a GNU ld constructor or destructor list: -1, the entries, 0."""
    rva = image.symbol_rva(symbol)
    if rva is None:
        return None
    entries = []
    while True:
        (value,) = struct.unpack("<Q", image.read(rva + 8 * (len(entries) + 1), 8, symbol))
        if value == 0 or len(entries) == 64:
            return entries
        entries.append(value)


def check_runtime(image, report):
    # Nothing runs a driver's static constructors or destructors, and the kernel loader
    # sets up no thread-local storage: such objects would silently stay unconstructed.
    for symbol, kind in (("__CTOR_LIST__", "constructors"), ("__DTOR_LIST__", "destructors")):
        entries = function_list_entries(image, symbol)
        if entries is None:
            report.ok("no static " + kind, "the image has no %s" % symbol)
        else:
            report.expect(not entries, "no static " + kind, "%s is empty" % symbol,
                          "%s holds %d entries" % (symbol, len(entries)))
    tls_rva, tls_size = image.directory(peimage.DIR_TLS)
    report.expect(not (tls_rva and tls_size), "no thread-local storage", "no TLS directory",
                  "TLS directory of %d bytes" % tls_size)


def check_identification(image, report):
    check = "identification string in read-only data"
    wanted = IDENTIFICATION + b"\0"
    places = []
    for section in image.sections:
        data = image.section_data(section)
        start = data.find(wanted)
        while start >= 0:
            places.append(section)
            start = data.find(wanted, start + 1)
    read_only = [s for s in places
                 if s.initialized_data and s.readable and not s.writable and not s.executable]
    if read_only:
        report.ok(check, "in %s" % read_only[0].name)
    elif places:
        report.fail(check, "found only in %s" % ", ".join(
            "%s (%s, not read-only data)" % (s.name, s.describe_access()) for s in places))
    else:
        report.fail(check, "\"%s\" (NUL-terminated) is in no section"
                    % IDENTIFICATION.decode())


def check_checksum(image, report):
    # The linker writes it; the loader verifies it for boot drivers, so anything that
    # edits the file after the link must write it again.
    expected = image.compute_checksum()
    report.expect(image.checksum == expected, "image checksum", "0x%08X" % expected,
                  "header says 0x%08X, the file sums to 0x%08X" % (image.checksum, expected))


def main(argv):
    if len(argv) != 2:
        print(__doc__.strip().splitlines()[-1], file=sys.stderr)
        return 2
    path = argv[1]
    try:
        with open(path, "rb") as image_file:
            image = peimage.PeImage(image_file.read())
        print("checking %s" % path)
        report = Report()
        if check_format(image, report):
            check_kind(image, report)
            check_entry(image, report)
            check_imports(image, report)
            check_sections(image, report)
            check_runtime(image, report)
            check_identification(image, report)
            check_checksum(image, report)
    except (OSError, peimage.PeFormatError) as error:
        print("FAIL: %s is not a readable PE image: %s" % (path, error))
        return 2
    if report.failures:
        print("%s: %d check(s) failed" % (path, report.failures))
        return 1
    print("%s: all checks passed" % path)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
