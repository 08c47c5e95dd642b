#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What doxygen reads of a file: filter.py FILE.

A header's first words become the description of the file, in the group of those that an application
needs or of the others. Of a page's links it takes a picture's name alone, and of a page the whole.
"""
import re
import sys
from pathlib import Path

APPLICATION = """qor qor_api qor_bus qor_context_module qor_context_msg qor_context_handler qor_contract qor_deferred
qor_health qor_inspect qor_periodic qor_start qor_thread_pool qor_trace qor_types""".split()

path = Path(sys.argv[1])
text = path.read_text()
if path.suffix == ".h":
    group = "application" if path.stem in APPLICATION else "engine"
    text = re.sub(r"\A(/\* SPDX.*?\*/\n)/\* (.*?) ?\*/", rf"\1/** @file\n * @ingroup {group}\n * \2 */",
                  text, count=1, flags=re.S)
else:
    text = re.sub(r"\]\([\w./-]+/(\w+\.svg)\)", r"](\1)", text)
    text = re.sub(r"\]\(([\w./-]+\.md)#[\w-]+\)", r"](\1)", text)
sys.stdout.write(text)
