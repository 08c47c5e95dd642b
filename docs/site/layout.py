#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What stands in the site's sidebar, for doxygen: layout.py ROOT. The guides come in README.md's order;
one that is missing there is an error, and one that ends with another as the next one."""
import re
import sys
from pathlib import Path
from xml.sax.saxutils import quoteattr

PAGES = ["behaviour", "diagnostics", "recording", "performance", "size", "reliability", "mutation"]
# Each with the words above its list; "modules" is what doxygen calls its groups, and means others here.
REFERENCE = [("modules", "Headers by purpose", "What each header is for:"), ("filelist", "Headers", "All headers:"),
             ("classlist", "Records and classes", "Each with what it is:"), ("globals", "All names", "")]


def tab(root, page):
    """A page's entry: the file that doxygen makes of it, and its first heading."""
    title = re.match(r"# (.+)", (root / page).read_text())[1]
    name = "md_" + re.sub(r"\W", "_", page.removesuffix(".md"))
    return f'<tab type="user" url="{name}.html" title={quoteattr(title)}/>'


def group(title, tabs):
    return "\n".join([f'<tab type="usergroup" title="{title}" url="[none]">', *tabs, "</tab>"])


def main(root):
    row = next(line for line in (root / "README.md").read_text().splitlines() if line.startswith("| `docs/guide/` |"))
    guides = list(dict.fromkeys(re.findall(r"\((docs/guide/[\w-]+\.md)\)", row)))
    forgotten = {str(p.relative_to(root)) for p in (root / "docs/guide").glob("*.md")} - set(guides)
    if forgotten:
        return f"README.md: the list of guides lacks {sorted(forgotten)}"
    for page, following in zip(guides, guides[1:]):
        if not re.search(rf"^Next: \[[^]]+\]\({Path(following).name}\)", (root / page).read_text(), re.M):
            return f"{page}: the next one is {following}"
    print("<doxygenlayout><navindex>")
    print('<tab type="mainpage" visible="yes" title="Overview"/>')
    print(group("Guides", [tab(root, page) for page in guides]))
    print(group("Pages", [tab(root, f"docs/{page}.md") for page in PAGES]))
    print(group("Reference", [f'<tab type="{kind}" visible="yes" title="{title}" intro="{intro}"/>'
                              for kind, title, intro in REFERENCE]))
    print("</navindex></doxygenlayout>")
    return 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1])))
