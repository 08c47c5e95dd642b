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
        skipped = case.find("skipped")
        if case.get("status") == "run":
            passed += 1
        elif skipped is None or not skipped.get("message", "").startswith("SKIP_"):
            failed += 1  # neither run nor skipped by itself, as when a program was not built

if sys.argv[1] != "0" and failed == 0:
    failed = 1
print(f"{passed} passed, {failed} failed")
sys.exit(failed > 0)
