#!/usr/bin/env python3
"""Writes every configuration set of the sysfs device files given as one corpus file each.

usage: seed_corpus.py OUTPUT_DIR FILE.bin...
A sysfs file is the 18-byte device descriptor followed by its sets, each wTotalLength
bytes long; a file whose framing is broken is given whole (it is a seed all the same).
"""
import os
import sys


def sets_of(data):
    offset = 18
    while offset + 4 <= len(data) and data[offset + 1] == 0x02:
        total = data[offset + 2] | (data[offset + 3] << 8)
        if total < 9:
            break
        yield data[offset:offset + total]
        offset += total


def main():
    out = sys.argv[1]
    os.makedirs(out, exist_ok=True)
    for path in sys.argv[2:]:
        data = open(path, "rb").read()
        name = os.path.splitext(os.path.basename(path))[0]
        sets = list(sets_of(data)) or [data]
        for index, config in enumerate(sets):
            with open(os.path.join(out, "%s_%d" % (name, index)), "wb") as f:
                f.write(config)


if __name__ == "__main__":
    main()
