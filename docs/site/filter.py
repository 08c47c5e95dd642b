#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What doxygen reads of a file: filter.py FILE.

A header's first words become the description of the file, in the group of those that an application
needs, of C++, or of the others. In qor_names.h each name that has no words of its own refers to the one
that it is another spelling of. Of a page's links it takes a picture's name alone, and of a page the whole;
no heading has code in it.
"""
import re
import sys
from pathlib import Path

APPLICATION = """qor qor_api qor_bus qor_context_module qor_context_msg qor_context_handler qor_contract qor_deferred
qor_health qor_inspect qor_periodic qor_start qor_thread_pool qor_trace qor_types""".split()

# Other than by their prefix.
RENAMED = {"qor_rb_insert_augmented": "__rb_insert_augmented", "qor_rb_erase_color": "__rb_erase_color"}


def second_names(text):
    """Each declaration of a function or type that follows no comment of its own, with one."""
    def described(match):
        name = re.search(r"(qor_\w+)(?:;|\()", match[0])[1]
        kind = "@ref " if "(" in match[0] else ""
        return f"/** {kind}{RENAMED.get(name, name[4:])} by its second name. */\n{match[0]}"
    text = re.sub(r"^/\*\* .*: as the functions without the prefix\. \*/\n", "", text, flags=re.M)
    return re.sub(r"^(?:QOR_API|typedef) [^;]+;", described, text, flags=re.M)


path = Path(sys.argv[1])
text = path.read_text()
if path.suffix in (".h", ".hpp"):
    if path.stem == "qor_names":
        text = second_names(text)
    if path.suffix == ".hpp":  # a private class has a heading that leads nowhere
        text = re.sub(r"^private:\n.*?(?=^};)", "", text, flags=re.M | re.S)
    group = "cpp" if path.suffix == ".hpp" else "application" if path.stem in APPLICATION else "engine"
    text = re.sub(r"\A(/\* SPDX.*?\*/\n)/\* (.*?) ?\*/", rf"\1/** @file\n * @ingroup {group}\n * \2 */",
                  text, count=1, flags=re.S)
else:
    text = re.sub(r"\]\([\w./-]+/(\w+\.svg)\)", r"](\1)", text)
    text = re.sub(r"\]\(([\w./-]+\.md)#[\w-]+\)", r"](\1)", text)
    text = re.sub(r"^#+ .*`.*$", lambda heading: heading[0].replace("`", ""), text, flags=re.M)
sys.stdout.write(text)
