#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Fails when a library exports what its installed headers do not declare.

Usage: check_declared.py LIBRARY INCLUDE_FOLDER COMPILER [FLAG]...

INCLUDE_FOLDER has the headers in its folder Pellox. The compiler preprocesses them, so that comments
are gone and the declarations that macros make are there. Names are compared, each in its namespaces
and classes: Pellox::UpdateController::plan.
"""

import re
import subprocess
import sys
from pathlib import Path

TOKEN = re.compile(r'"(?:[^"\\]|\\.)*"|\'(?:[^\'\\]|\\.)*\'|~\s*\w+|\w+|::|->|\S')
ATTRIBUTES = {"__attribute__", "alignas", "noexcept", "__declspec"}
LABELS = {"public", "protected", "private", "signals", "slots"}
WORD = re.compile(r"~?\w+$")


def preprocessed(folder, compiler):
    """What the headers in the folder say themselves, without what they include from elsewhere."""
    headers = sorted((folder / "Pellox").glob("*.h"))
    source = "".join(f"#include <Pellox/{header.name}>\n" for header in headers)
    text = subprocess.run(
        [*compiler, "-std=c++17", "-fPIC", "-x", "c++", "-E", f"-I{folder}", "-"],
        input=source, stdout=subprocess.PIPE, text=True, check=True).stdout
    lines, is_ours = [], False
    for line in text.splitlines():
        marker = re.match(r'# \d+ "(.*?)"', line)
        if marker:
            is_ours = Path(marker.group(1)).parent == folder / "Pellox"
        elif is_ours and not line.startswith("#"):
            lines.append(line)
    return "\n".join(lines)


class Declarations:
    """The names that a preprocessed text declares, each a tuple with its namespaces and classes."""

    def __init__(self, text):
        self.names, self.classes = set(), set()
        self._tokens = self._without_attributes(TOKEN.findall(text))
        self._at = 0
        self._read_scope(())

    @staticmethod
    def _without_attributes(tokens):
        kept, depth, skips = [], 0, False
        for token in tokens:
            if token in ATTRIBUTES and depth == 0:
                skips = True
                continue
            if skips:
                if depth == 0 and token != "(":
                    skips = False
                else:
                    depth += (token == "(") - (token == ")")
                    skips = depth > 0
                    continue
            kept.append(token)
        return kept

    def _read_scope(self, path):
        """Reads to the brace that ends the scope, or to the end of the text."""
        statement = []
        while self._at < len(self._tokens):
            token = self._tokens[self._at]
            self._at += 1
            if token == "}":
                return
            if token == ";":
                self._declare(path, statement)
                statement = []
            elif token == ":" and statement and set(statement) <= LABELS:
                statement = []
            elif token == "{":
                statement = self._read_braces(path, statement)
            else:
                statement.append(token)

    def _read_braces(self, path, statement):
        """Returns what the statement goes on with behind them."""
        if "(" not in statement:
            if statement[:1] == ["namespace"]:
                self._read_scope(path + tuple(filter(WORD.match, statement[1:])))
                return []
            if statement[:1] == ["extern"]:
                self._read_scope(path)
                return []
            if "enum" not in statement and (name := self._class_name(statement)):
                self.classes.add(path + (name,))
                self._read_scope(path + (name,))
                return []
        self._skip_braces()
        if "(" in statement and "=" not in statement:  # a function's body
            self._declare(path, statement)
            return []
        return statement

    @staticmethod
    def _class_name(statement):
        for keyword, name in zip(statement, statement[1:]):
            if keyword in {"class", "struct", "union"}:
                return name
        return None

    def _skip_braces(self):
        depth = 1
        while depth:
            depth += {"{": 1, "}": -1}.get(self._tokens[self._at], 0)
            self._at += 1

    def _declare(self, path, statement):
        if statement[:1] and statement[0] in {"friend", "using", "typedef", "static_assert"}:
            return
        if "operator" in statement:
            place = statement.index("operator")
            end = statement.index("(", place + 1)
            end += 2 if end == place + 1 else 0  # operator()
            self.names.add(path + ("".join(statement[place:end]),))
            return
        depth, before = 0, None
        for token in [*statement, ";"]:
            if depth == 0 and before and token in {"(", ";", "=", ",", "["} and WORD.match(before):
                self.names.add(path + (before.replace(" ", ""),))
                if token == "(":
                    return
            depth += {"<": 1, ">": -1}.get(token, 0)
            before = token


def exported_by(library):
    """Demangled, without parameters. Of weak ones only ours: an unoptimised library has the
    templates of others, too, that were made for our classes."""
    lines = subprocess.run(["nm", "--dynamic", "--defined-only", library],
                           stdout=subprocess.PIPE, text=True, check=True).stdout.splitlines()
    symbols = [line.split()[1:] for line in lines]
    names = subprocess.run(
        ["c++filt", "--no-params"], input="\n".join(name.split("@")[0] for _, name in symbols),
        stdout=subprocess.PIPE, text=True, check=True).stdout.splitlines()
    return sorted({
        name for (kind, symbol), name in zip(symbols, names)
        if not re.match(r"PELLOX_[\d.]+(@|$)", symbol)  # a version itself
        and not (kind == "W" and re.match(r"std::|Q[A-Z]", name))})


def is_declared(exported, declarations):
    prefix = re.match(r"(?:vtable|VTT|typeinfo|typeinfo name) for ", exported)
    if prefix:
        return tuple(exported[prefix.end():].split("::")) in declarations.classes
    name = tuple(re.sub(r"\[abi:\w+\]", "", exported).split("::"))
    is_made_by_compiler = len(name) > 1 and name[-1] in {name[-2], "~" + name[-2], "operator="}
    return name in declarations.names or is_made_by_compiler and name[:-1] in declarations.classes


def main():
    library, folder, *compiler = sys.argv[1:]
    declarations = Declarations(preprocessed(Path(folder).absolute(), compiler))
    exported = exported_by(library)
    if not exported:
        sys.exit(f"{library} exports nothing")
    undeclared = [name for name in exported if not is_declared(name, declarations)]
    for name in undeclared:
        print(f"exported, but no installed header declares it: {name}")
    print(f"{len(exported)} names exported, {len(undeclared)} not declared")
    return 1 if undeclared else 0


if __name__ == "__main__":
    sys.exit(main())
