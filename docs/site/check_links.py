#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Whether every link of the site leads somewhere in it: check_links.py FOLDER. Links out of it are
counted only."""
import re
import sys
from html.parser import HTMLParser
from pathlib import Path
from urllib.parse import unquote, urldefrag


class Links(HTMLParser):
    def __init__(self, path):
        super().__init__()
        self.found, self.anchors = [], set()
        self.feed(path.read_text())

    def handle_starttag(self, tag, attrs):
        for name, value in attrs:
            if name in ("id", "name"):
                self.anchors.add(value)
            elif name in ("href", "src") and value:
                self.found.append(value)


def main(folder):
    pages = {path.name: Links(path) for path in folder.glob("*.html")}
    outside, complaints = 0, []
    for name, page in pages.items():
        for link in page.found:
            if re.match(r"(https?|mailto|javascript):", link):
                outside += 1
                continue
            target, anchor = urldefrag(unquote(link))
            if target and not (folder / target).exists():
                complaints.append(f"{name}: no {target}")
            elif anchor and target.endswith((".html", "")) and anchor not in pages[target or name].anchors:
                complaints.append(f"{name}: no {anchor} in {target or name}")
    sidebar = re.findall(r'"([^"]+?\.html)[#"]', (folder / "navtreedata.js").read_text())
    complaints += [f"the sidebar: no {target}" for target in sidebar if not (folder / target).exists()]
    print("\n".join(sorted(set(complaints))) or f"{len(pages)} pages, {outside} links out of the site")
    return not sidebar or len(complaints) > 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1])))
