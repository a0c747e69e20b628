#!/usr/bin/env python3
"""Writes hive/codepage_tables.inc: the upper halves of Windows-1250 and -1252."""
import codecs  # noqa: F401  (the codecs ship with Python)

print("// Generated from the codec tables of the Windows-1250 and Windows-1252 codepages:")
print("// the characters of bytes 0x80-0xFF; 0 marks an undefined byte.")
for name, cp in (("kWindows1250", "cp1250"), ("kWindows1252", "cp1252")):
    vals = []
    for b in range(0x80, 0x100):
        try:
            vals.append(ord(bytes([b]).decode(cp)))
        except UnicodeDecodeError:
            vals.append(0)
    print("constexpr char16_t %s[128] = {" % name)
    for i in range(0, 128, 8):
        print("    " + ", ".join("0x%04X" % v for v in vals[i:i + 8]) + ",")
    print("};")
