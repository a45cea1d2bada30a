"""What the reference shows of a page: links to files that are no pages of it become plain text.

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
        if "://" in target or (path.suffix == ".md" and path.exists()):
            return match[0]
        name = path.relative_to(root).as_posix()
        return text if text == name else f"{text} (`{name}`)"

    print(LINK.sub(shown, page.read_text(encoding="utf-8")), end="")


if __name__ == "__main__":
    main()
