#!/usr/bin/python3
"""Lists a zip archive as JSON, read by Python's own zipfile module.

Output: {"ok": bool (every CRC checks), "entries": [{"name", "isDir", "size",
"sha256", "base64" (files up to 1 MiB)}]} in the archive's order.
"""

import base64
import hashlib
import json
import sys
import zipfile

with zipfile.ZipFile(sys.argv[1]) as archive:
    ok = archive.testzip() is None
    entries = []
    for info in archive.infolist():
        entry = {"name": info.filename, "isDir": info.is_dir(), "size": info.file_size}
        if not info.is_dir():
            digest = hashlib.sha256()
            with archive.open(info) as member:
                data = member.read()
            digest.update(data)
            entry["sha256"] = digest.hexdigest()
            if len(data) <= 1024 * 1024:
                entry["base64"] = base64.b64encode(data).decode("ascii")
        entries.append(entry)
json.dump({"ok": ok, "entries": entries}, sys.stdout)
