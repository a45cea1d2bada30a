"""Writes the reference and looks at it: no warning, a page for each public class and each page of
docs/, the README in front, and no link that leads nowhere.

usage: docs_reference.py PROJECT_DIRECTORY DOXYGEN DOXYFILE
"""

import html.parser
import pathlib
import re
import subprocess
import sys
import tempfile
import urllib.parse


# Doxygen links to the list of a class's nested classes also when all of them are private and left out.
OFTEN_ABSENT = {"nested-classes"}


class Page(html.parser.HTMLParser):
    """The links of one page, what can be linked to in it, and its text."""

    def __init__(self, path):
        super().__init__()
        self.links, self.anchors, self.text = [], set(), ""
        self.feed(path.read_text(encoding="utf-8"))

    def handle_starttag(self, tag, attrs):
        attrs = dict(attrs)
        self.anchors |= {attrs.get("id"), attrs.get("name")} - {None}
        target = attrs.get("href" if tag in ("a", "link") else "src" if tag == "img" else "")
        if target:
            self.links.append(target)

    def handle_data(self, data):
        self.text += data


def dead_links(directory):
    pages = {path.name: Page(path) for path in directory.glob("*.html")}
    for name, page in pages.items():
        for link in page.links:
            target = urllib.parse.urlsplit(link)
            if target.scheme or link.startswith("#") and link[1:] in page.anchors or link == "#":
                continue
            file, anchor = urllib.parse.unquote(target.path) or name, target.fragment
            if not (directory / file).exists():
                yield f"{name}: the link to {link} leads nowhere"
            elif (anchor and file in pages and anchor not in OFTEN_ABSENT
                  and anchor not in pages[file].anchors):
                yield f"{name}: {file} has no place {anchor}"


def missing(root, directory):
    """What ought to be in the reference and is not."""
    text = {path.name: path.read_text(encoding="utf-8") for path in directory.glob("*.html")}
    front = Page(directory / "index.html").text
    if "lets a program serve a file tree of its own" not in front:
        yield "the README is not the main page"
    titles = "\n".join(re.findall(r"<title>.*</title>", "\n".join(text.values())))
    for page in sorted((root / "docs").glob("*.md")):
        title = page.read_text(encoding="utf-8").splitlines()[0].lstrip("# ")
        if title not in titles:
            yield f"docs/{page.name} is no page of the reference"
    for header in sorted((root / "include/nfslib").glob("*.h")):
        for name in re.findall(r"^(?:class|struct) (?:NFSLIB_EXPORT )?(\w+)(?!\w|::)[^;]*$",
                               header.read_text(encoding="utf-8"), re.M):
            if not re.search(rf"nfslib::{name} (Class|Struct)", titles):
                yield f"{header.name}: {name} is not in the reference"


def main():
    root, doxygen, doxyfile = pathlib.Path(sys.argv[1]), sys.argv[2], pathlib.Path(sys.argv[3])
    with tempfile.TemporaryDirectory() as scratch:
        settings = doxyfile.read_text(encoding="utf-8") + f"\nOUTPUT_DIRECTORY = {scratch}\n"
        run = subprocess.run([doxygen, "-"], input=settings, text=True, capture_output=True,
                             check=False)
        if run.returncode != 0 or run.stderr:
            print(run.stdout + run.stderr)
            return 1
        directory = pathlib.Path(scratch) / "html"
        complaints = [*missing(root, directory), *dead_links(directory)]
        print("\n".join(complaints) or f"{len(list(directory.glob('*.html')))} pages, all linked")
    return bool(complaints)


if __name__ == "__main__":
    sys.exit(main())
