#!/usr/bin/env python3
"""Checks the code's shape: file and function sizes in the simulator, the platform and the
tracking library, the order of the simulator's rooms, and that each sub-module name is written
once.

  tools/check_structure.py [--report]   exit 1 and one line per breach; --report also prints
                                        the largest file and the longest function
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
SIZED_TREES = ("sim", "platform", "tracker")
MAX_FILE_LINES = 500  # non-blank
MAX_FUNCTION_LINES = 80
# Lowest first: a file may include its own room and the rooms before it.
ROOMS = ["robot", "world", "tracking", "run", "report", "remote", "app"]
SUBMODULES = ["_KRTargetManager", "_Smoother", "_HeadLooker", "_WholeBodyLooker", "_ArmsLooker",
              "_RoundSearcher", "_MotionMove", "_NavigationMove"]
CONTAINER = re.compile(r"\b(namespace|class|struct|union|enum|extern)\b[^()]*$")
CONTROL = re.compile(r"^\s*(if|for|while|switch|catch|do|else|try)\b")


def strip_code(text):
    """The text with comments, strings and character literals blanked, newlines kept."""
    out = []
    i, n = 0, len(text)
    while i < n:
        c = text[i]
        if text.startswith("//", i):
            j = text.find("\n", i)
            j = n if j < 0 else j
            i = j
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
            out.append("\n" * text.count("\n", i, j))
            i = j
        elif text.startswith('R"', i):
            m = re.match(r'R"([^(]*)\(', text[i:])
            end = text.find(")" + m.group(1) + '"', i) if m else -1
            j = n if end < 0 else end + len(m.group(1)) + 2
            out.append('""' + "\n" * text.count("\n", i, j))
            i = j
        elif c in "\"'":
            j = i + 1
            while j < n and text[j] != c:
                j += 2 if text[j] == "\\" else 1
            out.append(c + c)
            i = j + 1
        else:
            out.append(c)
            i += 1
    # Preprocessor lines are not code of a function.
    return re.sub(r"(?m)^[ \t]*#.*$", "", "".join(out))


def without_comments(text):
    text = re.sub(r"/\*.*?\*/", "", text, flags=re.S)
    return re.sub(r"//[^\n]*", "", text)


def functions(path):
    """(name, first line, line count) of each function body at namespace or class level."""
    code = strip_code(path.read_text())
    stack = []  # per open brace: ("container" | "function" | "block", start line, name)
    header_start = 0
    found = []
    line = 1
    for i, c in enumerate(code):
        if c == "\n":
            line += 1
        elif c in ";{}":
            if c == "{":
                header = code[header_start:i]
                in_function = any(kind == "function" for kind, _, _ in stack)
                flat = " ".join(header.split())
                if in_function:
                    kind = "block"
                elif CONTAINER.search(flat) or "(" not in flat:
                    kind = "container"
                elif CONTROL.match(flat):
                    kind = "block"
                else:
                    kind = "function"
                first = line - header.lstrip().count("\n")
                name = re.findall(r"([~\w:]+)\s*\(", flat)
                stack.append((kind, first, name[0] if name else flat[:40]))
            elif c == "}" and stack:
                kind, first, name = stack.pop()
                if kind == "function":
                    found.append((name, first, line - first + 1))
            header_start = i + 1
    return found


def room_of(path):
    parts = path.relative_to(ROOT).parts
    for room in ROOMS:
        if room in parts[:4]:
            return room
    return None


def main():
    report = "--report" in sys.argv
    problems = []
    sized_files = sorted(p for tree in SIZED_TREES for p in (ROOT / tree).rglob("*")
                         if p.suffix in (".h", ".cpp"))
    largest = (0, None)
    longest = (0, None, None)
    for path in sized_files:
        rel = path.relative_to(ROOT)
        lines = [l for l in path.read_text().splitlines() if l.strip()]
        largest = max(largest, (len(lines), str(rel)))
        if len(lines) > MAX_FILE_LINES:
            problems.append(f"{rel}: {len(lines)} non-blank lines, more than {MAX_FILE_LINES}")
        for name, first, count in functions(path):
            longest = max(longest, (count, f"{rel}:{first}", name))
            if count > MAX_FUNCTION_LINES:
                problems.append(f"{rel}:{first}: {name} is {count} lines, more than "
                                f"{MAX_FUNCTION_LINES}")
        room = room_of(path) if rel.parts[0] == "sim" else None
        if room is None:
            continue
        for included in re.findall(r"#include\s*<(?:krsim|app)/([\w/.]+)>", path.read_text()):
            target = included.split("/")[0]
            target = target if target in ROOMS else None
            if target and ROOMS.index(target) > ROOMS.index(room):
                problems.append(f"{rel}: the {room} room includes the {target} room ({included})")
    for tree in ("sim", "tracker"):
        files = [p for p in (ROOT / tree).rglob("*") if p.suffix in (".h", ".cpp")]
        for name in SUBMODULES:
            holders = [str(p.relative_to(ROOT)) for p in files
                       if f'"{name}"' in without_comments(p.read_text())]
            if len(holders) > 1:
                problems.append(f'"{name}" is written in {len(holders)} files of {tree}/: '
                                + ", ".join(holders))
    for p in problems:
        print(p)
    if report:
        print(f"largest file: {largest[1]} ({largest[0]} non-blank lines)")
        print(f"longest function: {longest[2]} at {longest[1]} ({longest[0]} lines)")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
