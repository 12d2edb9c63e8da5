"""Reads what the release checks need from a PE file: its section names and
the strings and fixed version of its version resource."""
import struct

RT_VERSION = 16


class PeFile:
    def __init__(self, path):
        self.data = open(path, "rb").read()
        d = self.data
        if d[:2] != b"MZ":
            raise ValueError(f"{path}: not a PE file")
        pe = struct.unpack_from("<I", d, 0x3C)[0]
        if d[pe:pe + 4] != b"PE\0\0":
            raise ValueError(f"{path}: no PE signature")
        sections, optional_size = struct.unpack_from("<HxxxxxxxxxxxxH", d, pe + 6)
        optional = pe + 24
        magic = struct.unpack_from("<H", d, optional)[0]
        directories = optional + (112 if magic == 0x20B else 96)
        self.resource_rva, self.resource_size = struct.unpack_from("<II", d, directories + 2 * 8)
        self.sections = []
        table = optional + optional_size
        for i in range(sections):
            raw = d[table + 40 * i: table + 40 * (i + 1)]
            name = raw[:8].rstrip(b"\0")
            if name.startswith(b"/"):
                # A long name lives in the string table after the symbols.
                symbols, count = struct.unpack_from("<II", d, pe + 12)
                start = symbols + count * 18 + int(name[1:])
                name = d[start:d.index(b"\0", start)]
            vsize, vaddr, rsize, rptr = struct.unpack_from("<IIII", raw, 8)
            self.sections.append((name.decode("latin-1"), vaddr, vsize, rptr, rsize))

    def section_names(self):
        return [s[0] for s in self.sections]

    def _offset(self, rva):
        for _, vaddr, vsize, rptr, rsize in self.sections:
            if vaddr <= rva < vaddr + max(vsize, rsize):
                return rptr + rva - vaddr
        raise ValueError(f"RVA {rva:#x} outside every section")

    def _first_leaf(self, directory, base, type_id=None):
        d = self.data
        named, ids = struct.unpack_from("<HH", d, directory + 12)
        for i in range(named + ids):
            name, target = struct.unpack_from("<II", d, directory + 16 + 8 * i)
            if type_id is not None and (name & 0x80000000 or name != type_id):
                continue
            if target & 0x80000000:
                return self._first_leaf(base + (target & 0x7FFFFFFF), base)
            return base + target
        return None

    def version_resource(self):
        """The version resource as (fixed (file, product) version, {key: value}), or None."""
        if not self.resource_rva:
            return None
        base = self._offset(self.resource_rva)
        leaf = self._first_leaf(base, base, RT_VERSION)
        if leaf is None:
            return None
        rva, size = struct.unpack_from("<II", self.data, leaf)
        blob = self.data[self._offset(rva):self._offset(rva) + size]
        strings = {}
        fixed = None

        def walk(offset, end, depth):
            nonlocal fixed
            while offset + 6 <= end:
                length, value_length, kind = struct.unpack_from("<HHH", blob, offset)
                if length == 0:
                    break
                key_end = offset + 6
                while blob[key_end:key_end + 2] != b"\0\0":
                    key_end += 2
                key = blob[offset + 6:key_end].decode("utf-16-le")
                value = (key_end + 2 + 3) & ~3
                if depth == 0:
                    ms_file, ls_file, ms_prod, ls_prod = struct.unpack_from("<4xxxxxIIII", blob, value)
                    fixed = (f"{ms_file >> 16}.{ms_file & 0xFFFF}.{ls_file >> 16}.{ls_file & 0xFFFF}",
                             f"{ms_prod >> 16}.{ms_prod & 0xFFFF}.{ls_prod >> 16}.{ls_prod & 0xFFFF}")
                    children = (value + value_length + 3) & ~3
                    walk(children, offset + length, 1)
                elif key == "StringFileInfo" or depth == 2:
                    walk((key_end + 2 + 3) & ~3, offset + length, depth + 1)
                elif depth == 3:
                    text = blob[value:value + 2 * value_length].decode("utf-16-le").rstrip("\0")
                    strings[key] = text
                offset = (offset + length + 3) & ~3

        walk(0, len(blob), 0)
        return fixed, strings
