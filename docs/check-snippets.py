#!/usr/bin/python3
"""check-snippets.py GUIDE_DIR SNIPPET_DIR README

Every fenced C++ block (```cpp) of the guide's Markdown files and of the
README must be the text of one marked region of a snippet file,
"//! [name]" ... "//! [name]", with the region's common indentation removed.
The README must link the guide. Prints what does not match and exits 1.
"""
import pathlib
import re
import sys
import textwrap

guide, snippets, readme = (pathlib.Path(argument) for argument in sys.argv[1:4])

regions = {}
for source in sorted(snippets.glob("*.cpp")):
    text = source.read_text()
    for match in re.finditer(r"^[ \t]*//! \[([\w-]+)\]\n(.*?)^[ \t]*//! \[\1\]$", text, re.S | re.M):
        regions[f"{source.name}:{match.group(1)}"] = textwrap.dedent(match.group(2)).strip("\n")

failures = []
blocks = 0
pages = sorted(guide.glob("*.md"))
if not pages:
    failures.append(f"no guide pages in {guide}")
for page in pages + [readme]:
    for match in re.finditer(r"^```(\w*)\n(.*?)^```$", page.read_text(), re.S | re.M):
        language, body = match.group(1), match.group(2).strip("\n")
        if language not in ("cpp", "c++"):
            continue
        blocks += 1
        if body not in regions.values():
            failures.append(f"{page.name}: a C++ block is no snippet region:\n{body}\n")

if "docs/guide/" not in readme.read_text():
    failures.append("README.md does not link the guide (docs/guide/)")

for failure in failures:
    print(failure)
print(f"{blocks} C++ blocks in {len(pages)} pages, {len(regions)} snippet regions, {len(failures)} problems")
sys.exit(1 if failures else 0)
