#!/usr/bin/env python3
"""Generates the C++ side of the module's automation resources.

usage: gen-com-description.py TYPELIB.idl REGISTRY.rgs OUT.cpp OUT.h

From the interface definition: the type library's description (library,
dual interfaces with their methods and parameters, classes) as a
platform::TypeLibDescription, and the identifiers as constants in OUT.h.
From the registrar script: its text, as the REGISTRY resource the embedded
build hands to its platform. Only the IDL forms the module uses are read;
anything else is an error, never skipped.
"""
import re
import sys

TYPES = {
    "BSTR": "platform::VT_BSTR",
    "long": "platform::VT_I4",
    "VARIANT_BOOL": "platform::VT_BOOL",
    "VARIANT*": "platform::VT_BYREF | platform::VT_VARIANT",
    "long*": "platform::VT_BYREF | platform::VT_I4",
    "BSTR*": "platform::VT_BYREF | platform::VT_BSTR",
}


def fail(message):
    sys.exit(f"gen-com-description: {message}")


def strip_comments(text):
    text = re.sub(r"/\*.*?\*/", "", text, flags=re.S)
    return re.sub(r"//[^\n]*", "", text)


def split_top(text, sep=","):
    parts, depth, cur = [], 0, ""
    for c in text:
        if c in "[(":
            depth += 1
        elif c in "])":
            depth -= 1
        if c == sep and depth == 0:
            parts.append(cur.strip())
            cur = ""
        else:
            cur += c
    if cur.strip():
        parts.append(cur.strip())
    return parts


def attributes(text):
    out = {}
    for item in split_top(text):
        m = re.fullmatch(r"(\w+)(?:\((.*)\))?", item.strip(), flags=re.S)
        if not m:
            fail(f"attribute not understood: {item}")
        out[m.group(1)] = m.group(2)
    return out


def guid(text):
    m = re.fullmatch(r"([0-9A-Fa-f]{8})-([0-9A-Fa-f]{4})-([0-9A-Fa-f]{4})-"
                     r"([0-9A-Fa-f]{4})-([0-9A-Fa-f]{12})", text.strip())
    if not m:
        fail(f"not a uuid: {text}")
    tail = m.group(4) + m.group(5)
    bytes_ = ", ".join("0x" + tail[i:i + 2] for i in range(0, 16, 2))
    return f"platform::GUID{{0x{m.group(1)}, 0x{m.group(2)}, 0x{m.group(3)}, {{{bytes_}}}}}"


def unquote(text):
    if text is None or not re.fullmatch(r'"[^"\\]*"', text.strip()):
        fail(f"expected a quoted string: {text}")
    return text.strip()[1:-1]


def u16(text):
    return 'u"' + text + '"'


def parse(idl):
    text = strip_comments(idl)
    result = {"interfaces": [], "library": None, "classes": []}
    pattern = re.compile(r"\[([^\[\]]*)\]\s*(interface|library|coclass)\s+(\w+)\s*(?::\s*(\w+))?\s*\{")
    for m in pattern.finditer(text):
        attrs = attributes(m.group(1))
        kind, name = m.group(2), m.group(3)
        if kind == "interface":
            if m.group(4) != "IDispatch":
                fail(f"interface {name} must derive from IDispatch")
            body = text[m.end():text.index("};", m.end())]
            methods = []
            for mm in re.finditer(r"\[([^\]]*)\]\s*HRESULT\s+(\w+)\s*\((.*?)\)\s*;", body, flags=re.S):
                mattrs = attributes(mm.group(1))
                params = []
                for p in split_top(mm.group(3)):
                    pm = re.fullmatch(r"\[([^\]]*)\]\s*(\w+\s*\*?)\s*(\w+)", p.strip(), flags=re.S)
                    if not pm:
                        fail(f"parameter not understood: {p}")
                    pattrs = attributes(pm.group(1))
                    ptype = pm.group(2).replace(" ", "")
                    if ptype not in TYPES:
                        fail(f"parameter type not supported: {ptype}")
                    flags = []
                    if "in" in pattrs:
                        flags.append("platform::PARAMFLAG_FIN")
                    if "out" in pattrs:
                        flags.append("platform::PARAMFLAG_FOUT")
                    if "retval" in pattrs:
                        flags.append("platform::PARAMFLAG_FRETVAL")
                    params.append((pm.group(3), TYPES[ptype], " | ".join(flags) or "0"))
                methods.append({"id": int(mattrs["id"]), "name": mm.group(2),
                                "help": unquote(mattrs.get("helpstring", '""')), "params": params})
            result["interfaces"].append({"name": name, "uuid": attrs["uuid"],
                                         "help": unquote(attrs.get("helpstring", '""')),
                                         "dual": "dual" in attrs, "methods": methods})
        elif kind == "library":
            major, _, minor = attrs.get("version", "1.0").partition(".")
            result["library"] = {"name": name, "uuid": attrs["uuid"],
                                 "help": unquote(attrs.get("helpstring", '""')),
                                 "major": int(major), "minor": int(minor or 0)}
        else:
            body = text[m.end():text.index("};", m.end())]
            dm = re.search(r"\[\s*default\s*\]\s*interface\s+(\w+)", body)
            if not dm:
                fail(f"coclass {name} names no default interface")
            result["classes"].append({"name": name, "uuid": attrs["uuid"],
                                      "help": unquote(attrs.get("helpstring", '""')),
                                      "default": dm.group(1)})
    if result["library"] is None:
        fail("no library block")
    return result


def main():
    if len(sys.argv) != 5:
        sys.exit(__doc__)
    idl_path, rgs_path, out_cpp, out_h = sys.argv[1:]
    with open(idl_path, encoding="utf-8") as f:
        d = parse(f.read())
    with open(rgs_path, encoding="utf-8") as f:
        rgs = f.read()
    iface = {i["name"]: i for i in d["interfaces"]}
    lib = d["library"]

    h = ["// Generated by scripts/gen-com-description.py from OVSvc.idl; do not edit.",
         "#pragma once", "", '#include "platform/com.h"', "", "namespace ovsvc::res {", "",
         f"inline constexpr platform::GUID LIBID_{lib['name']} = {guid(lib['uuid'])};"]
    for i in d["interfaces"]:
        h.append(f"inline constexpr platform::GUID IID_{i['name']} = {guid(i['uuid'])};")
        for m in i["methods"]:
            h.append(f"inline constexpr platform::DISPID DISPID_{m['name']} = {m['id']};")
    for c in d["classes"]:
        h.append(f"inline constexpr platform::GUID CLSID_{c['name']} = {guid(c['uuid'])};")
    h += ["", "// The type library's description.",
          "const platform::TypeLibDescription& TypeLibrary();",
          "// The registrar script (resource REGISTRY 214).",
          "const char* RegistryScript();", "", "}  // namespace ovsvc::res", ""]

    c = ["// Generated by scripts/gen-com-description.py from OVSvc.idl and",
         "// Ovaspool.rgs; do not edit.", f'#include "{out_h.split("/")[-1]}"', "",
         "namespace ovsvc::res {", "",
         "const platform::TypeLibDescription& TypeLibrary() {",
         "    static const platform::TypeLibDescription description = [] {",
         "        platform::TypeLibDescription d;",
         f"        d.libid = LIBID_{lib['name']};",
         f"        d.name = {u16(lib['name'])};",
         f"        d.help = {u16(lib['help'])};",
         f"        d.major = {lib['major']};",
         f"        d.minor = {lib['minor']};"]
    for i in d["interfaces"]:
        c.append("        {")
        c.append("            platform::InterfaceDescription i;")
        c.append(f"            i.iid = IID_{i['name']};")
        c.append(f"            i.name = {u16(i['name'])};")
        c.append(f"            i.help = {u16(i['help'])};")
        c.append(f"            i.dual = {'true' if i['dual'] else 'false'};")
        for m in i["methods"]:
            params = ", ".join(f"{{{u16(n)}, {t}, {fl}}}" for n, t, fl in m["params"])
            c.append(f"            i.methods.push_back({{{m['id']}, {u16(m['name'])}, "
                     f"{u16(m['help'])}, {{{params}}}}});")
        c.append("            d.interfaces.push_back(std::move(i));")
        c.append("        }")
    for cl in d["classes"]:
        if cl["default"] not in iface:
            fail(f"coclass {cl['name']}: unknown interface {cl['default']}")
        c.append(f"        d.classes.push_back({{CLSID_{cl['name']}, {u16(cl['name'])}, "
                 f"{u16(cl['help'])}, IID_{cl['default']}}});")
    c += ["        return d;", "    }();", "    return description;", "}", "",
          "const char* RegistryScript() {"]
    c.append('    return R"ovsvc-rgs(' + rgs + ')ovsvc-rgs";')
    c += ["}", "", "}  // namespace ovsvc::res", ""]

    for path, lines in ((out_h, h), (out_cpp, c)):
        text = "\n".join(lines)
        try:
            with open(path, encoding="utf-8") as f:
                if f.read() == text:
                    continue
        except FileNotFoundError:
            pass
        with open(path, "w", encoding="utf-8") as f:
            f.write(text)


if __name__ == "__main__":
    main()
