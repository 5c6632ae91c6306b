#!/usr/bin/env python3
"""Checks that every function the given Windows programs and DLLs import
exists in Wine's DLLs and is not one of Wine's unimplemented stubs.

usage: check-imports.py [--wine-dir DIR] FILE.exe|FILE.dll ...

A DLL that sits beside the checked files (OVSvc.dll) is checked by its own
export table instead. Forwarded exports are followed. A Wine stub is an
export whose code only reports the function's own name as unimplemented
(it loads the name's string and calls the stub handler); such an import
would fail on first call under Wine.
"""
import argparse
import os
import struct
import sys

DEFAULT_WINE_DIR = "/usr/lib/x86_64-linux-gnu/wine/x86_64-windows"


class PeImage:
    def __init__(self, path):
        with open(path, "rb") as f:
            self.data = f.read()
        d = self.data
        if d[:2] != b"MZ":
            raise ValueError(f"{path}: not a PE image")
        pe = struct.unpack_from("<I", d, 0x3C)[0]
        if d[pe:pe + 4] != b"PE\0\0":
            raise ValueError(f"{path}: not a PE image")
        sections = struct.unpack_from("<H", d, pe + 6)[0]
        optional_size = struct.unpack_from("<H", d, pe + 20)[0]
        self.optional = pe + 24
        magic = struct.unpack_from("<H", d, self.optional)[0]
        if magic != 0x20B:
            raise ValueError(f"{path}: not a 64-bit image")
        self.sections = []
        for i in range(sections):
            o = self.optional + optional_size + 40 * i
            vsize, va, rsize, raw = struct.unpack_from("<IIII", d, o + 8)
            self.sections.append((va, max(vsize, rsize), raw, rsize))

    def offset(self, rva):
        for va, size, raw, rsize in self.sections:
            if va <= rva < va + size and rva - va < rsize:
                return rva - va + raw
        return None

    def directory(self, index):
        return struct.unpack_from("<II", self.data, self.optional + 112 + 8 * index)

    def cstring(self, rva):
        o = self.offset(rva)
        if o is None:
            return None
        end = self.data.index(b"\0", o)
        return self.data[o:end].decode("ascii", "replace")

    def exports(self):
        """name -> ("code", rva) or ("forward", "DLL.Name")."""
        rva, size = self.directory(0)
        result = {}
        if rva == 0:
            return result
        e = self.offset(rva)
        functions, names, addr_functions, addr_names, addr_ordinals = struct.unpack_from(
            "<IIIII", self.data, e + 20)
        for i in range(names):
            name = self.cstring(struct.unpack_from("<I", self.data, self.offset(addr_names) + 4 * i)[0])
            ordinal = struct.unpack_from("<H", self.data, self.offset(addr_ordinals) + 2 * i)[0]
            target = struct.unpack_from("<I", self.data, self.offset(addr_functions) + 4 * ordinal)[0]
            if rva <= target < rva + size:
                result[name] = ("forward", self.cstring(target))
            else:
                result[name] = ("code", target)
        return result

    def imports(self):
        """[(dll, name or '#ordinal')]"""
        rva, _ = self.directory(1)
        result = []
        if rva == 0:
            return result
        o = self.offset(rva)
        while True:
            lookup, _, _, name_rva, thunk = struct.unpack_from("<IIIII", self.data, o)
            if name_rva == 0:
                break
            dll = self.cstring(name_rva)
            t = self.offset(lookup or thunk)
            while True:
                entry = struct.unpack_from("<Q", self.data, t)[0]
                if entry == 0:
                    break
                if entry & (1 << 63):
                    result.append((dll, f"#{entry & 0xFFFF}"))
                else:
                    result.append((dll, self.cstring((entry & 0x7FFFFFFF) + 2)))
                t += 8
            o += 20
        return result

    def is_stub(self, rva, name):
        o = self.offset(rva)
        if o is None:
            return False
        code = self.data[o:o + 40]
        for i in range(24):
            if code[i:i + 3] == b"\x48\x8d\x15":  # lea rdx, [rip + disp32]
                disp = struct.unpack_from("<i", code, i + 3)[0]
                if self.cstring(rva + i + 7 + disp) == name:
                    return True
        return False


class Resolver:
    def __init__(self, wine_dir, local_dirs):
        self.dirs = list(local_dirs) + [wine_dir]
        self.cache = {}

    def image(self, dll):
        key = dll.lower()
        if key not in self.cache:
            self.cache[key] = None
            for d in self.dirs:
                for candidate in os.listdir(d):
                    if candidate.lower() == key:
                        image = PeImage(os.path.join(d, candidate))
                        self.cache[key] = (image, image.exports())
                        break
                if self.cache[key] is not None:
                    break
        return self.cache[key]

    def check(self, dll, name, depth=0):
        """None when fine, else the reason."""
        found = self.image(dll)
        if found is None:
            return f"{dll} not found"
        image, exports = found
        if name.startswith("#"):
            return None if exports else f"{dll} has no exports for {name}"
        if name not in exports:
            return f"{dll} does not export it"
        kind, value = exports[name]
        if kind == "forward":
            if depth > 8:
                return "forwarding loop"
            target_dll, _, target_name = value.partition(".")
            if not target_dll.lower().endswith(".dll"):
                target_dll += ".dll"
            return self.check(target_dll, target_name, depth + 1)
        if image.is_stub(value, name):
            return f"{dll} has only a stub"
        return None


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--wine-dir", default=DEFAULT_WINE_DIR)
    parser.add_argument("files", nargs="+")
    args = parser.parse_args()
    local_dirs = sorted({os.path.dirname(os.path.abspath(f)) for f in args.files})
    resolver = Resolver(args.wine_dir, local_dirs)
    problems = 0
    checked = 0
    for path in args.files:
        image = PeImage(path)
        for dll, name in image.imports():
            checked += 1
            reason = resolver.check(dll, name)
            if reason:
                problems += 1
                print(f"{os.path.basename(path)}: {dll}!{name}: {reason}")
    print(f"import check: {checked} imports in {len(args.files)} files, {problems} problems")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
