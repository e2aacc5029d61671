"""Writes python/vesk_gpu.pyi, the type stubs of the compiled module, from the signatures
and docstrings that the built module carries (pybind11 puts each signature on the first
line of the docstring). Rerun it whenever an entry is added or changed:

    PYTHONPATH=build/python /usr/bin/python3 scripts/make_stubs.py

--check compares instead of writing and exits 1 when the file is out of date.
"""
import argparse
import difflib
import inspect
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
STUBS = ROOT / "python" / "vesk_gpu.pyi"
COMMAND = "PYTHONPATH=build/python /usr/bin/python3 scripts/make_stubs.py"

HEADER = '''"""Type stubs of the compiled vesk_gpu module, made by scripts/make_stubs.py from the
module's own signatures and docstrings: do not edit by hand, rerun the script."""
from typing import Any, Callable, Optional, Union, overload

import numpy
import numpy.typing
'''


def split_top(text, sep=","):
    """Splits at separators outside brackets and quotes."""
    parts, depth, quote, start = [], 0, None, 0
    for i, ch in enumerate(text):
        if quote:
            quote = None if ch == quote else quote
        elif ch in "'\"":
            quote = ch
        elif ch in "([{<":
            depth += 1
        elif ch in ")]}>":
            depth -= 1
        elif ch == sep and depth == 0:
            parts.append(text[start:i])
            start = i + 1
    parts.append(text[start:])
    return [p.strip() for p in parts if p.strip()]


def stub_type(t):
    t = re.sub(r"numpy\.ndarray\[([\w.]+)\]", r"numpy.typing.NDArray[\1]", t.strip())
    t = t.replace("vesk_gpu.", "")
    for old, new in (("List[", "list["), ("Dict[", "dict["), ("Tuple[", "tuple["),
                     ("Set[", "set[")):
        t = t.replace(old, new)
    return t


def stub_signature(sig):
    """'name(a: int = 3, b: x) -> r' as a stub's 'name(a: int = ..., b: x) -> r'."""
    m = re.match(r"^(\w+)\((.*)\)\s*->\s*(.+)$", sig.strip())
    if not m:
        raise ValueError(f"cannot read the signature {sig!r}")
    name, args, ret = m.groups()
    out = []
    for arg in split_top(args):
        if arg.startswith("*"):
            out.append(arg)
            continue
        head, _, default = arg.partition("=")
        pname, _, ptype = head.partition(":")
        if pname.strip() == "progress":  # pybind11 only knows it as an object
            ptype = "Optional[Callable[[int, int, float], Any]]"
        text = pname.strip() + (f": {stub_type(ptype)}" if ptype.strip() else "")
        out.append(text + (" = ..." if default.strip() else ""))
    return name, f"({', '.join(out)}) -> {stub_type(ret)}"


def docstring(text, indent):
    text = inspect.cleandoc(text or "").replace("\\", "\\\\").replace('"""', '\\"\\"\\"')
    if not text:
        return f"{indent}..."
    lines = text.splitlines()
    body = "\n".join((indent + line).rstrip() for line in lines[1:])
    return f'{indent}"""{lines[0]}' + (f"\n{body}\n{indent}" if len(lines) > 1 else "") + '"""'


def callable_stubs(name, obj, indent=""):
    """The def lines (with @overload for overloaded entries) of a pybind11 callable."""
    doc = obj.__doc__ or ""
    lines = doc.strip().splitlines()
    if len(lines) > 1 and lines[1].strip() == "Overloaded function.":
        found = re.findall(r"^\d+\. (" + re.escape(name) + r"\(.*)$", doc, re.M)
        sigs = [(stub_signature(s)[1], "") for s in found]
        text = "\n".join(lines[2:])
        decorate = True
    else:
        sigs = [(stub_signature(lines[0])[1], "\n".join(lines[1:]))]
        text = sigs[0][1]
        decorate = False
    out = []
    for sig, _ in sigs:
        if decorate:
            out.append(f"{indent}@overload")
        out.append(f"{indent}def {name}{sig}:")
        out.append(docstring(text, indent + "    "))
    return out


def public(names):
    return [n for n in sorted(names) if not (n.startswith("__") and n.endswith("__"))]


def class_stubs(name, cls):
    out = [f"class {name}:", docstring(cls.__doc__, "    ")]
    for attr in ["__init__"] + public(vars(cls)):
        member = vars(cls).get(attr)
        if member is None or not callable(member):
            if isinstance(member, property):
                out.append(f"    {attr}: Any")
            continue
        out.extend(callable_stubs(attr, member, "    "))
    return out


def make_stubs(module):
    out = [HEADER]
    for name in public(dir(module)):
        obj = getattr(module, name)
        if inspect.isclass(obj) and obj.__module__ == module.__name__:
            out.append("\n".join(class_stubs(name, obj)) + "\n")
        elif callable(obj):
            out.append("\n".join(callable_stubs(name, obj)) + "\n")
        elif isinstance(obj, (bool, int, float, str)):
            out.append(f"{name}: {type(obj).__name__}\n")
        elif isinstance(obj, tuple):
            out.append(f"{name}: tuple\n")
    out.append("__version__: str\n")
    return "\n".join(out)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--check", action="store_true", help="compare, do not write")
    parser.add_argument("--output", type=pathlib.Path, default=STUBS)
    args = parser.parse_args()
    import vesk_gpu

    text = make_stubs(vesk_gpu)
    if args.check:
        old = args.output.read_text() if args.output.exists() else ""
        if old != text:
            sys.stdout.writelines(difflib.unified_diff(old.splitlines(True), text.splitlines(True),
                                                       str(args.output), "from the module"))
            print(f"\n{args.output} is out of date: run `{COMMAND}` and commit it")
            return 1
        return 0
    args.output.write_text(text)
    print(f"wrote {args.output}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
