#!/usr/bin/env python3
"""Checks that the QML reference names every member of the module's types.

    check-reference.py TYPES.qmltypes REFERENCE.md

Each exported type needs a section "## Name" (its base: "## DeviceObject")
naming each of its properties, methods and signals in backticks; a
property's change signal is covered by the property. Prints what is
missing and exits 1.
"""
import re
import sys


def components(text):
    """(name, exports, prototype, {kind: [member names]}, notify names) per component."""
    for block in re.split(r"\n    Component {", text)[1:]:
        name = re.search(r'\n        name: "([^"]+)"', block).group(1)
        exports = re.findall(r'"Hmisvc/(\w+) [\d.]+"', block)
        proto = re.search(r'\n        prototype: "([^"]+)"', block)
        members = {kind: re.findall(r"\n        %s {\s*name: \"(\w+)\"" % kind, block)
                   for kind in ("Property", "Method", "Signal")}
        notify = set(re.findall(r'notify: "(\w+)"', block))
        yield name, exports, proto.group(1) if proto else None, members, notify


def main(types_path, reference_path):
    reference = open(reference_path, encoding="utf-8").read()
    sections = {m.group(1): m.group(2)
                for m in re.finditer(r"^## (\w+)\n(.*?)(?=^## |\Z)", reference, re.S | re.M)}
    missing = []
    for _, exports, _, members, notify in components(open(types_path, encoding="utf-8").read()):
        for qml_name in exports:
            section = sections.get(qml_name)
            if section is None:
                missing.append("no section ## " + qml_name)
                continue
            for kind, names in members.items():
                for name in names:
                    if kind == "Signal" and name in notify:
                        continue
                    if "`%s`" % name not in section and "`%s(" % name not in section:
                        missing.append("%s: %s %s" % (qml_name, kind.lower(), name))
    for line in missing:
        print("not in the reference:", line)
    return 1 if missing else 0


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1], sys.argv[2]))
