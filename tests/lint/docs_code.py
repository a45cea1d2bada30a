"""Holds the code in the pages against the code that is compiled and run.

Every block of C++, and in docs/tutorial.md of CMake, is a piece of a file of examples/, line by line;
a line `// ...` stands for what is left out. Every message in docs/tutorial.md's tables of errors is
one that the sources have.

usage: docs_code.py PROJECT_DIRECTORY
"""

import pathlib
import re
import sys

BLOCK = re.compile(r"^```(cpp|cmake)\n(.*?)^```$", re.M | re.S)
LITERAL = re.compile(r'"((?:[^"\\\n]|\\.)*)"')


def lines_of(text):
    return [line.strip() for line in text.splitlines() if line.strip()]


def is_piece(block, file):
    """Whether the parts of `block` follow each other in `file`, each in one piece."""
    parts, part = [], []
    for line in lines_of(block):
        if line == "// ...":
            parts, part = parts + [part], []
        else:
            part.append(line)
    start = 0
    for part in filter(None, parts + [part]):
        places = range(start, len(file) - len(part) + 1)
        start = next((i + len(part) for i in places if file[i:i + len(part)] == part), None)
        if start is None:
            return False
    return True


def messages(root):
    """The texts of the sources: neighbouring literals joined, %1 and the like for any argument."""
    for source in [*root.glob("src/**/*.cpp"), *root.glob("tools/**/*.cpp")]:
        text = re.sub(r'"\s*\n\s*"', "", source.read_text(encoding="utf-8"))
        for literal in LITERAL.findall(text):
            yield re.sub(r"%\d", ".+", re.escape(literal.replace('\\"', '"')).replace(r"\%", "%"))


def main():
    root = pathlib.Path(sys.argv[1])
    examples = {path: lines_of(path.read_text(encoding="utf-8"))
                for path in root.glob("examples/**/*") if path.is_file()}
    found, blocks = [], 0
    for page in [root / "README.md", *sorted(root.glob("docs/*.md"))]:
        for language, block in BLOCK.findall(page.read_text(encoding="utf-8")):
            if language == "cmake" and page.name != "tutorial.md":
                continue  # what is built there is told by the tests of the installation
            blocks += 1
            if not any(is_piece(block, file) for file in examples.values()):
                found.append(f"{page.name}: no example has this code:\n{block}")

    tutorial = (root / "docs/tutorial.md").read_text(encoding="utf-8")
    tables = [part.split("\n\n")[0] for part in tutorial.split("| message |")[1:]]
    told = [row.split("|")[1].strip().strip("`") for table in tables
            for row in table.splitlines()[2:]]
    known = [re.compile(text) for text in messages(root) if len(text) > 12]
    found += [f"tutorial.md: no source says: {text}" for text in told
              if not any(pattern.fullmatch(text) for pattern in known)]

    if blocks < 10 or len(told) < 5:
        found.append(f"only {blocks} blocks of code and {len(told)} messages: is this the project?")
    print("\n".join(found) or f"{blocks} blocks of code and {len(told)} messages, all as they are")
    return bool(found)


if __name__ == "__main__":
    sys.exit(main())
