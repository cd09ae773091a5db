#!/usr/bin/env python3
"""Packs a folder into an archive, the main document first: make_kmz.py lakes > lakes.kmz

The same folder gives the same bytes, apart from what another version of zlib makes of them: dates and modes
of the files do not count. Images are stored, since nothing would become of packing them again.
"""
import io
import pathlib
import sys
import zipfile

MAIN_DOCUMENT = "doc.kml"
DATE = (2025, 7, 1, 12, 0, 0)

folder = pathlib.Path(sys.argv[1])
names = sorted(str(path.relative_to(folder)) for path in folder.rglob("*") if path.is_file())
archive = io.BytesIO()
with zipfile.ZipFile(archive, "w") as zip_file:
    for name in sorted(names, key=lambda name: name != MAIN_DOCUMENT):
        entry = zipfile.ZipInfo(name, DATE)
        entry.create_system = 3  # the same on every system
        entry.external_attr = 0o644 << 16
        entry.compress_type = zipfile.ZIP_STORED if name.endswith(".png") else zipfile.ZIP_DEFLATED
        zip_file.writestr(entry, (folder / name).read_bytes(), compresslevel=9)
sys.stdout.buffer.write(archive.getvalue())
