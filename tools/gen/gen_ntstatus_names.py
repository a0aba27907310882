#!/usr/bin/env python3
"""Generate libkn/knntstatusnames.cpp, the "%N" name table, from the platform's ntstatus.h.

The table names 919 status values, one name per value. The platform header
(mingw-w64's, taken from Microsoft's published status list) is newer and has about
1800 values, so the generator keeps a fixed selection of it:

1. Symbol families: only names that begin with STATUS_, RPC_NT_, EPT_NT_ or DBG_.

2. Facilities: only the facilities that the kernel, its bus drivers and the debugger
   report through this driver: the base facility (0, STATUS_), the debugger (1, DBG_),
   the RPC runtime and stubs (2 and 3, RPC_NT_ and EPT_NT_), the terminal server (0xA,
   STATUS_CTX_) and ACPI (0x14, STATUS_ACPI_). Facilities introduced with later
   platform generations (transactions, logging, graphics, volume encryption, filter
   platform, NDIS, ...) and the cluster, side-by-side and I/O-error facilities, which
   no code path of a USB bus driver meets, are left out.

3. Code ranges per (severity, facility) group, given in GROUP_RANGES below. Within a
   group, codes are numbered in the order they were introduced, so an upper bound
   selects a group's older codes. The bounds of the base facility's success,
   informational and warning groups are where the NT 5.2-era headers ended them (with
   their few high codes that mirror Win32 errors). The other bounds are fixed by the
   names and counts the table must have: the debugger group ends before
   DBG_COMMAND_EXCEPTION, the terminal-server errors at STATUS_CTX_CLIENT_LICENSE_IN_USE,
   the RPC runtime errors before RPC_NT_PROXY_ACCESS_DENIED, and the base facility's
   errors keep the lowest-numbered codes up to 0xC00002D6, which fills the table to its
   fixed size. Every status that the framework and the driver produce or test lies
   within these ranges (the highest, STATUS_POWER_STATE_INVALID, is 0xC00002D3).

4. One name per value: where the header gives a value two names, the first one it
   defines wins (0 is STATUS_SUCCESS, not STATUS_WAIT_0; 0x80 is STATUS_ABANDONED).

The result is checked against the expected counts (919 names: 798 STATUS_ including
36 STATUS_CTX_ and 27 STATUS_ACPI_, 104 RPC_NT_, 4 EPT_NT_, 13 DBG_) and the
generator fails rather than write a table that differs.

Usage: gen_ntstatus_names.py [platform-ntstatus.h] > libkn/knntstatusnames.cpp
"""
import re
import sys

PLATFORM_HEADER = "/usr/x86_64-w64-mingw32/include/ntstatus.h"

FAMILIES = ("STATUS_", "RPC_NT_", "EPT_NT_", "DBG_")

ALL = [(0x0000, 0xFFFF)]

# (severity, facility) -> inclusive ranges of the low 16 bits (the code).
GROUP_RANGES = {
    (0, 0x000): [(0x0000, 0x0126)],
    (1, 0x000): [(0x0000, 0x002C), (0x0294, 0x0294)],
    (2, 0x000): [(0x0000, 0x002C), (0x0288, 0x0289)],
    (3, 0x000): [(0x0000, 0x02D6)],
    (0, 0x001): ALL,
    (1, 0x001): [(0x0000, 0x0008)],
    (2, 0x001): ALL,
    (3, 0x001): ALL,
    (1, 0x002): ALL,
    (3, 0x002): [(0x0000, 0x0063)],
    (3, 0x003): ALL,
    (1, 0x00A): ALL,
    (3, 0x00A): [(0x0000, 0x0034)],
    (3, 0x014): ALL,
}

EXPECTED = {
    "total": 919,
    "STATUS_": 798,
    "STATUS_CTX_": 36,
    "STATUS_ACPI_": 27,
    "RPC_NT_": 104,
    "EPT_NT_": 4,
    "DBG_": 13,
}

# Named by the framework's own traces and tests: the table must hold each of them.
REQUIRED = {
    0x00000000: "STATUS_SUCCESS",
    0x00000103: "STATUS_PENDING",
    0x00000102: "STATUS_TIMEOUT",
    0xC0000001: "STATUS_UNSUCCESSFUL",
    0xC0000120: "STATUS_CANCELLED",
    0xC00000BB: "STATUS_NOT_SUPPORTED",
    0xC000000E: "STATUS_NO_SUCH_DEVICE",
    0xC0000056: "STATUS_DELETE_PENDING",
    0xC000009D: "STATUS_DEVICE_NOT_CONNECTED",
    0xC0000016: "STATUS_MORE_PROCESSING_REQUIRED",
    0xC0000010: "STATUS_INVALID_DEVICE_REQUEST",
    0xC0000184: "STATUS_INVALID_DEVICE_STATE",
    0x80000011: "STATUS_DEVICE_BUSY",
    0xC00000B5: "STATUS_IO_TIMEOUT",
    0xC00002D3: "STATUS_POWER_STATE_INVALID",
}


def selected(value):
    severity, facility, code = value >> 30, (value >> 16) & 0xFFF, value & 0xFFFF
    if value & 0x30000000:  # customer and reserved bits: never a platform status
        return False
    ranges = GROUP_RANGES.get((severity, facility), [])
    return any(low <= code <= high for low, high in ranges)


def main():
    source = sys.argv[1] if len(sys.argv) > 1 else PLATFORM_HEADER
    text = open(source, encoding="latin-1").read()
    definitions = re.findall(r"#define\s+(\w+)\s+\(\(NTSTATUS\)\s*(0x[0-9A-Fa-f]+)L?\)", text)
    if not definitions:
        sys.exit(f"{source}: no NTSTATUS definitions found")

    names = {}
    for name, value in definitions:
        value = int(value, 16)
        if name.startswith(FAMILIES) and selected(value) and value not in names:
            names[value] = name

    counts = {"total": len(names)}
    for prefix in ("STATUS_", "STATUS_CTX_", "STATUS_ACPI_", "RPC_NT_", "EPT_NT_", "DBG_"):
        counts[prefix] = sum(1 for n in names.values() if n.startswith(prefix))
    if counts != EXPECTED:
        sys.exit(f"{source}: selection gives {counts}, expected {EXPECTED}")
    for value, name in REQUIRED.items():
        if names.get(value) != name:
            sys.exit(f"{source}: 0x{value:08X} should be {name}, is {names.get(value)}")

    out = sys.stdout
    out.write("// Names of NTSTATUS values for the \"%N\" trace conversion, sorted by value.\n")
    out.write("// Generated by tools/gen/gen_ntstatus_names.py from the platform's ntstatus.h;\n")
    out.write("// do not edit. The generator documents which status codes are selected.\n")
    out.write('#include "knnametables.h"\n\n')
    out.write("const KnNtStatusNameEntry gKnNtStatusNames[] = {\n")
    for value in sorted(names):
        out.write(f'    {{0x{value:08X}, "{names[value]}"}},\n')
    out.write("};\n\n")
    out.write("const ULONG gKnNtStatusNameCount = sizeof(gKnNtStatusNames) / sizeof(gKnNtStatusNames[0]);\n\n")
    out.write("// Binary search by the full 32-bit value: no lock, no allocation, any IRQL.\n")
    out.write("const char* KnNtStatusName(NTSTATUS Status) {\n")
    out.write("  ULONG value = (ULONG)Status;\n")
    out.write("  ULONG low = 0;\n")
    out.write("  ULONG high = gKnNtStatusNameCount;\n")
    out.write("  while (low < high) {\n")
    out.write("    ULONG middle = low + (high - low) / 2;\n")
    out.write("    if (gKnNtStatusNames[middle].Status < value) {\n")
    out.write("      low = middle + 1;\n")
    out.write("    } else {\n")
    out.write("      high = middle;\n")
    out.write("    }\n")
    out.write("  }\n")
    out.write("  if (low < gKnNtStatusNameCount && gKnNtStatusNames[low].Status == value) {\n")
    out.write("    return gKnNtStatusNames[low].Name;\n")
    out.write("  }\n")
    out.write("  return gKnUnknownName;\n")
    out.write("}\n")


if __name__ == "__main__":
    main()
