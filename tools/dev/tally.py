#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Sums up test results: tally.py STATUS RESULTS.xml... prints 'N passed, N failed'.

STATUS is that of the run as a whole: where it is not 0 although no test failed (a build broke, a
check complained), that counts as one failure.
"""
import sys
from xml.etree import ElementTree

passed = failed = 0
for path in sys.argv[2:]:
    for case in ElementTree.parse(path).iter("testcase"):
        status, skipped = case.get("status"), case.find("skipped")
        if status == "run":
            passed += 1
        elif status == "fail":
            failed += 1
        elif status == "notrun" and not skipped.get("message", "").startswith("SKIP_"):
            failed += 1  # it did not skip itself: its program was not built, for instance

if sys.argv[1] != "0" and failed == 0:
    failed = 1
print(f"{passed} passed, {failed} failed")
sys.exit(failed > 0)
