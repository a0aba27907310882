#!/usr/bin/env python3
"""Writes the sysfs-style binary files of tests/devices from their hex text.

A sysfs `descriptors` file is the device descriptor followed by every configuration set,
which for a hex file that passes its consistency checks is simply every descriptor line
in order. The malformed binaries are derived from the demo device:
  malformed_truncated.bin     the demo file without its last byte
  malformed_blength_zero.bin  the demo file with the first interface descriptor's bLength
                              (byte 35) set to 0
Run from anywhere; the tests compare every .bin with its .hex.
"""
import pathlib
import re

HERE = pathlib.Path(__file__).resolve().parent
FROM_HEX = ["demo_composite", "cdc_ecm", "audio_speaker_mic", "acm_vendor_no_iad",
            "noncontiguous_interfaces"]
FIRST_INTERFACE_OFFSET = 18 + 9 + 8  # device, configuration header, RNDIS IAD


def descriptor_bytes(hex_path):
    data = bytearray()
    for line in hex_path.read_text(encoding="utf-8").splitlines():
        line = line.split("#", 1)[0].strip()
        if not line or not re.fullmatch(r"[0-9A-Fa-f ]+", line):
            continue  # blank, comment, strings, languages, serial, directives
        data += bytes.fromhex(line)
    return bytes(data)


def main():
    for name in FROM_HEX:
        (HERE / f"{name}.bin").write_bytes(descriptor_bytes(HERE / f"{name}.hex"))
    demo = descriptor_bytes(HERE / "demo_composite.hex")
    (HERE / "malformed_truncated.bin").write_bytes(demo[:-1])
    patched = bytearray(demo)
    patched[FIRST_INTERFACE_OFFSET] = 0
    (HERE / "malformed_blength_zero.bin").write_bytes(bytes(patched))


if __name__ == "__main__":
    main()
