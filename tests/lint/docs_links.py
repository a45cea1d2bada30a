"""Looks for what the pages of the project point to: fails on a link, or on a file named between
backticks, that is not there, and on a picture that is not the one of its source.

usage: docs_links.py PROJECT_DIRECTORY
"""

import html
import pathlib
import re
import sys

# `src/rpc/caller_rule.cpp`, `hosts/posix`, `tests/e2e/`: what begins with a folder of the project.
NAMED = re.compile(r"`((?:bench|cmake|docs|examples|fuzz|hosts|include|scripts|src|tests|tools)/"
                   r"[\w./-]*\w/?)`")
LINK = re.compile(r"!?\[[^\]\[]*\]\(([^)\s]+)\)")
CODE = re.compile(r"^```.*?^```", re.M | re.S)


def anchors(page):
    """What can be linked to in a page: its headings, as they are commonly turned into anchors."""
    headings = re.findall(r"^#+ (.*)$", CODE.sub("", page.read_text(encoding="utf-8")), re.M)
    return {re.sub(r"[^\w -]", "", heading).strip().lower().replace(" ", "-")
            for heading in headings}


def complaints(root, page):
    text = CODE.sub("", page.read_text(encoding="utf-8"))
    for target in LINK.findall(text):
        if "://" in target or target.startswith("mailto:"):
            continue
        file, _, anchor = target.partition("#")
        path = (page.parent / file).resolve() if file else page
        name = path.relative_to(root).as_posix()
        if not path.exists():
            yield f"the link to {target} leads nowhere"
        elif anchor and path.suffix == ".md" and anchor not in anchors(path):
            yield f"{name} has no heading for #{anchor}"
    for named in NAMED.findall(text):
        # A header of a host is named as it is included.
        if not (root / named).exists() and not list(root.glob(named + ".*")):
            yield f"there is no `{named}`"


def stale_pictures(root):
    """The words of a picture's source that the picture does not have."""
    for source in root.glob("docs/*.dot"):
        picture = source.with_suffix(".svg")
        shown = {html.unescape(text).replace("\xa0", " ") for text in
                 re.findall(r"<text[^>]*>([^<]*)</text>", picture.read_text(encoding="utf-8"))}
        labels = re.findall(r'label="([^"]*)"', source.read_text(encoding="utf-8"))
        for words in (line for label in labels for line in label.split("\\n")):
            if words not in shown:
                yield f"docs/{picture.name} lacks [{words}]: make it anew from docs/{source.name}"


def main():
    root = pathlib.Path(sys.argv[1]).resolve()
    pages = sorted([*root.glob("*.md"), *root.glob("docs/**/*.md")])
    found = [f"{page.relative_to(root)}: {what}" for page in pages
             for what in complaints(root, page)]
    found += stale_pictures(root)
    listed = {target for page in pages for target in LINK.findall(page.read_text(encoding="utf-8"))}
    found += [f"{page.relative_to(root)}: no other page links to it" for page in pages
              if page.name != "README.md" and not any(target.endswith(page.name)
                                                      for target in listed)]
    if len(pages) < 10:
        found.append(f"only {len(pages)} pages below {root}: is this the project?")
    print("\n".join(found) or f"{len(pages)} pages, all that they point to is there")
    return bool(found)


if __name__ == "__main__":
    sys.exit(main())
