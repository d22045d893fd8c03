#!/usr/bin/python3
"""Checks that the project's own scripts install everything its programs use.

Every shared library that the built programs link, every library and program
that a traced run loaded (glibc's LD_DEBUG=libs logs, written by
scripts/test.sh), is mapped to the Debian package that owns it. Each such
package must be reachable from what scripts/install-deps.sh or
scripts/test-windows.sh install, or from a minimal Debian base system
(Essential packages and apt), through the packages' Depends and Pre-Depends.
A package installed by hand on this machine and used by a program therefore
fails the check, and so does a program or library that no package owns.

Usage:
    check-packages.py [--build-dir DIR]... [--loaded-dir DIR]... [--drop PKG]...

--drop takes a package as not installable, to show that the check notices a
package that the scripts do not bring in.
"""

import argparse
import os
import re
import shutil
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
# The base system of mmdebstrap's minbase variant: Essential packages and apt.
BASE_ROOTS = ["apt"]


def run(cmd):
    return subprocess.run(cmd, check=True, stdout=subprocess.PIPE, text=True).stdout


def script_packages():
    listed = run(["bash", os.path.join(ROOT, "scripts/install-deps.sh"), "--list"]).split()
    listed += run(["bash", os.path.join(ROOT, "scripts/test-windows.sh"), "--list-packages"]).split()
    return listed


class PackageDatabase:
    """What dpkg knows of the installed packages: dependencies and files."""

    def __init__(self):
        self.depends = {}
        self.providers = {}
        self.essential = set()
        fmt = "${Package}\t${Status}\t${Essential}\t${Pre-Depends}\t${Depends}\t${Provides}\n"
        for line in run(["dpkg-query", "-W", "-f=" + fmt]).splitlines():
            name, status, essential, predepends, depends, provides = line.split("\t")
            if not status.endswith(" installed"):
                continue
            self.depends[name] = self._parse_relations(predepends) + self._parse_relations(depends)
            if essential == "yes":
                self.essential.add(name)
            for alternatives in self._parse_relations(provides):
                for virtual in alternatives:
                    self.providers.setdefault(virtual, []).append(name)
        self.owner = {}
        info = "/var/lib/dpkg/info"
        for entry in os.listdir(info):
            if not entry.endswith(".list"):
                continue
            package = entry[: -len(".list")].split(":")[0]
            with open(os.path.join(info, entry), encoding="utf-8", errors="replace") as listing:
                for path in listing:
                    path = path.rstrip("\n")
                    if path:
                        self.owner.setdefault(self._usr_merged(path), package)

    @staticmethod
    def _parse_relations(field):
        """'a (>= 1) | b:any, c' -> [['a', 'b'], ['c']]"""
        relations = []
        for group in field.split(","):
            names = [re.sub(r"[\s(:].*", "", alt.strip()) for alt in group.split("|")]
            names = [n for n in names if n]
            if names:
                relations.append(names)
        return relations

    @staticmethod
    def _usr_merged(path):
        # Debian 12 merges /bin, /sbin and /lib into /usr; dpkg keeps the
        # names a package shipped, the loader reports either form.
        for top in ("/bin/", "/sbin/", "/lib/", "/lib32/", "/lib64/", "/libx32/"):
            if path.startswith(top):
                return "/usr" + path
        return path

    def installed(self, name):
        return name in self.depends

    def resolve(self, name):
        """The installed packages that satisfy a dependency on name."""
        if self.installed(name):
            return [name]
        return [p for p in self.providers.get(name, []) if self.installed(p)]

    def closure(self, roots, unavailable=()):
        """Everything that a fresh install of roots brings in. Of a choice
        'a | b' apt takes the first that it can install, so only the first
        alternative that is installed here counts. Packages named in
        unavailable are taken as not installable at all."""
        seen = set(unavailable)
        pending = list(roots)
        while pending:
            name = pending.pop()
            for package in self.resolve(name):
                if package in seen:
                    continue
                seen.add(package)
                for alternatives in self.depends[package]:
                    for alternative in alternatives:
                        chosen = [p for p in self.resolve(alternative) if p not in unavailable]
                        if chosen:
                            pending.extend(chosen[:1])
                            break
        return seen - set(unavailable)

    def owner_of(self, path):
        for candidate in (path, os.path.realpath(path)):
            package = self.owner.get(self._usr_merged(candidate))
            if package:
                return package
        return None


def elf_files(build_dir):
    for folder, dirs, files in os.walk(build_dir):
        dirs[:] = [d for d in dirs if d not in ("CMakeFiles", "services", "ld-debug")]
        for name in files:
            path = os.path.join(folder, name)
            if os.path.islink(path) or not os.access(path, os.X_OK) and not name.endswith(".so"):
                continue
            try:
                with open(path, "rb") as handle:
                    if handle.read(4) == b"\x7fELF":
                        yield path
            except OSError:
                continue


def built_here(library, build_dir):
    for _, _, names in os.walk(build_dir):
        if library in names:
            return True
    return False


def linked_libraries(binary):
    """Absolute paths of the libraries the loader would map for binary."""
    result = subprocess.run(["ldd", binary], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    found = []
    for line in result.stdout.splitlines():
        match = re.search(r"=>\s+(/\S+)", line) or re.match(r"\s*(/\S+)\s+\(", line)
        if match:
            found.append(match.group(1))
        elif "not found" in line:
            found.append("missing:" + line.split()[0])
    return found


def traced_files(loaded_dir):
    """Programs and libraries named in LD_DEBUG=libs logs."""
    files = set()
    for folder, _, names in os.walk(loaded_dir):
        for name in names:
            with open(os.path.join(folder, name), encoding="utf-8", errors="replace") as log:
                for line in log:
                    match = re.search(r"calling (?:init|fini): (/\S+)", line)
                    if match:
                        files.add(match.group(1))
                        continue
                    match = re.search(r"initialize program: (\S+)", line)
                    if match:
                        files.add(match.group(1))
    return files


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build-dir", action="append", default=[])
    parser.add_argument("--loaded-dir", action="append", default=[])
    parser.add_argument("--drop", action="append", default=[])
    parser.add_argument("--verbose", action="store_true")
    args = parser.parse_args()

    database = PackageDatabase()
    roots = script_packages()
    missing_roots = [p for p in roots if not database.resolve(p)]
    allowed = database.closure(roots + BASE_ROOTS + sorted(database.essential), args.drop)

    ours = [os.path.realpath(ROOT)] + [os.path.realpath(d) for d in args.build_dir]
    users = {}  # file -> who uses it

    for build_dir in args.build_dir:
        for binary in elf_files(build_dir):
            for library in linked_libraries(binary):
                users.setdefault(library, os.path.relpath(binary, build_dir))
    for loaded_dir in args.loaded_dir:
        if os.path.isdir(loaded_dir):
            for path in traced_files(loaded_dir):
                users.setdefault(path, "a traced run")

    needed = {}
    problems = []
    for path, user in sorted(users.items()):
        if path.startswith("missing:"):
            name = path[len("missing:"):]
            # A program that finds the library's own build through its
            # environment (the installed-package consumers) is run that way.
            if not any(built_here(name, d) for d in args.build_dir):
                problems.append("%s: %s is not found by the loader" % (user, name))
            continue
        if not path.startswith("/"):
            if "/" in path:
                continue  # relative to a working folder the log does not record
            # A program started by a bare name: the one the search path finds.
            resolved = shutil.which(path)
            if not resolved:
                continue
            path = resolved
        if any(os.path.realpath(path).startswith(mine + os.sep) for mine in ours):
            continue
        if path.startswith(("/tmp/", "/proc/", "/dev/")) or "/wineprefix" in path or "/.wine" in path:
            continue  # written at run time: test programs' own copies, Wine's prefix
        if os.path.basename(path).startswith("libnss_"):
            # Name-service modules are loaded as the machine's nsswitch.conf
            # says, whatever the program; they are the machine's choice.
            continue
        package = database.owner_of(path)
        if package is None:
            problems.append("%s (used by %s) belongs to no Debian package" % (path, user))
            continue
        needed.setdefault(package, path)

    for package, path in sorted(needed.items()):
        if args.verbose:
            print("%-40s %s" % (package, path))
        if package not in allowed:
            problems.append("%s (for %s) is not installed by scripts/install-deps.sh or "
                            "scripts/test-windows.sh" % (package, path))
    for package in missing_roots:
        # Not an error: scripts/test-windows.sh installs its packages when it runs.
        print("check-packages: note: %s is listed by the scripts and not installed yet" % package)

    print("check-packages: %d files in use, %d packages, %d installed by the scripts or the base system"
          % (len(users), len(needed), len(allowed)))
    for problem in problems:
        print("check-packages: MISSING: " + problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
