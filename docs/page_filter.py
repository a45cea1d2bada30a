"""What the reference shows of a page: links to files that are no pages of it become plain text, links
into the middle of a page go to its start, since Doxygen names headings in its own way.

usage: page_filter.py PROJECT_DIRECTORY FILE
"""

import pathlib
import re
import sys

LINK = re.compile(r"(?<!!)\[([^\]\[]+)\]\(([^)\s#]+)(#[^)\s]*)?\)")


def main():
    root, page = pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2]).resolve()

    def shown(match):
        text, target = match[1], match[2]
        path = (page.parent / target).resolve()
        if "://" in target:
            return match[0]
        if path.suffix == ".md" and path.exists():
            return f"[{text}]({target})"
        name = path.relative_to(root).as_posix()
        return text if text == name else f"{text} (`{name}`)"

    print(LINK.sub(shown, page.read_text(encoding="utf-8")), end="")


if __name__ == "__main__":
    main()
