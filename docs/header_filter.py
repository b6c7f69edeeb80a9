#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Doxygen's view of a public header: the plain comments become documentation comments.

The headers are written for people who open them, without marks for a tool. Their shape is strict
enough to be translated: the comment at the top is the tour of the module, a comment before a
declaration or a run of declarations without a blank line between them belongs to all of these, one
behind a member to that member, and "/* --- Title ---" begins a section.
"""
import re
import sys

TRAILING = re.compile(r"^(\s*\S.*?)(\s*)/\* (.*?)( \*/)?$")


def escape(text):
    """What Doxygen would take for a command, a tag, a link or emphasis."""
    text = re.sub(r"([\\@<>%#*&])", r"\\\1", text)
    return re.sub(r"(?<![\w`])(_\w+)", r"`\1`", text)


def comment_body(lines):
    """The text lines of a comment, without its stars, as Markdown."""
    out = []
    in_block = False
    for line in lines:
        text = re.sub(r"^ ?\*/?", "", line).rstrip()
        text = re.sub(r"\s*\*/$", "", text)
        indent = len(text) - len(text.lstrip())
        if indent >= 3 and text.strip():  # an example or a list of results: shown as it stands
            if not in_block:
                out.append("@verbatim")
            in_block = True
            out.append(text[3:])
            continue
        if in_block and text.strip():
            out[len(out) - (out[-1] == "") :] = ["@endverbatim", ""]
            in_block = False
        out.append(text if in_block else escape(text.strip()))
    if in_block:
        out.append("@endverbatim")
    return out


def document(lines, head=""):
    return ["/** " + head] + comment_body(lines) + ["*/"]


def statements(lines):
    """Splits a run of lines into declarations, each a list of lines."""
    depth = 0
    current = []
    for line in lines:
        current.append(line)
        depth += line.count("{") - line.count("}")
        if depth == 0 and not line.endswith("\\") and re.search(r"[;}]\s*(/\*.*)?$|^#", line):
            yield current
            current = []
    if current:
        yield current


def members(lines, in_enum):
    """Comments behind members; an enumerator without one is explained by its enumeration."""
    out = []
    for line in lines:
        found = TRAILING.match(line)
        if found and line.startswith(" "):
            line = f"{found[1]} /**< {escape(found[3])}{found[4] or ''}"
        elif in_enum and re.match(r"^    \w+( = [^,]*)?,$", line):
            line += " /**< See the enumeration. */"
        out.append(line)
    return out


def split_fields(lines):
    """uint32_t A, B; /**< text */ as one field a line, since the text goes to the last one only."""
    for line in lines:
        found = re.match(r"^    (\w+) (\w+(?:, \w+)+); (/\*\*<.*)$", line)
        if not found:
            yield line
            continue
        for name in found[2].split(", "):
            yield f"    {found[1]} {name}; {found[3]}"


def main():
    lines = open(sys.argv[1], encoding="utf-8").read().split("\n")
    out = []
    section = False
    first = True
    i = 0
    while i < len(lines):
        line = lines[i]
        if line.startswith("/*") and "SPDX" not in line:
            end = i
            while not lines[end].rstrip().endswith("*/"):
                end += 1
            comment = [" *" + lines[i][2:]] + lines[i + 1 : end + 1]
            i = end + 1
            title = re.match(r"^ \* --- (.*?) -+(?: \*/)?$", comment[0])
            if title:
                if section:
                    out.append("/**@}*/")
                section = True
                out += document(comment[1:], f"@name {title[1]}") + ["/**@{*/"]
                continue
            if first:
                first = False
                out += document(comment, "@file")
                continue
            if lines[i].startswith("#if"):
                continue  # about the preprocessor, not about a name
            run = []
            while i < len(lines) and lines[i] and not lines[i].startswith("/*"):
                run.append(lines[i])
                i += 1
            for declaration in statements(run):
                if not declaration[0].startswith("#pragma"):
                    out += document(comment)
                out += split_fields(members(declaration, "enum" in declaration[0]))
            continue
        if section and line.startswith("#pragma GCC visibility pop"):
            out.append("/**@}*/")
            section = False
        if re.match(r"(typedef )?(enum|struct) [^;]*{$", line):
            end = i
            while not lines[end].startswith("}"):
                end += 1
            out += split_fields(members(lines[i : end + 1], "enum" in line))
            i = end + 1
            continue
        out.append(line)
        i += 1
    print("\n".join(out))


main()
