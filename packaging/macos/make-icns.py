#!/usr/bin/env python3
"""Assembles an .icns from an .iconset folder of PNGs, as `iconutil -c icns` does on a Mac.

Every member holds the PNG as it is; macOS reads PNG members of these types since 10.7.
"""
import struct
import sys
from pathlib import Path

# iconset file name -> icns member type
MEMBERS = [
    ("icon_16x16.png", b"icp4"),
    ("icon_16x16@2x.png", b"ic11"),
    ("icon_32x32.png", b"icp5"),
    ("icon_32x32@2x.png", b"ic12"),
    ("icon_128x128.png", b"ic07"),
    ("icon_128x128@2x.png", b"ic13"),
    ("icon_256x256.png", b"ic08"),
    ("icon_256x256@2x.png", b"ic14"),
    ("icon_512x512.png", b"ic09"),
    ("icon_512x512@2x.png", b"ic10"),
]


def main(iconset: Path, output: Path) -> None:
    body = b""
    for name, kind in MEMBERS:
        data = (iconset / name).read_bytes()
        if not data.startswith(b"\x89PNG\r\n\x1a\n"):
            sys.exit(f"make-icns: {iconset / name} is not a PNG")
        body += kind + struct.pack(">I", len(data) + 8) + data
    output.write_bytes(b"icns" + struct.pack(">I", len(body) + 8) + body)


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit("usage: make-icns.py ICONSET OUTPUT.icns")
    main(Path(sys.argv[1]), Path(sys.argv[2]))
