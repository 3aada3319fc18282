#!/usr/bin/env python3
"""Adds up the JUnit XML reports of every test step and prints one closing count line."""
import sys
import xml.etree.ElementTree as ET
from pathlib import Path


def count(path):
    root = ET.parse(path).getroot()
    suites = [root] if root.tag == "testsuite" else root.findall("testsuite")
    passed = failed = skipped = 0
    for suite in suites:
        for case in suite.iter("testcase"):
            if case.find("failure") is not None or case.find("error") is not None:
                failed += 1
            elif case.find("skipped") is not None or case.get("status") == "notrun":
                skipped += 1
            else:
                passed += 1
    return passed, failed, skipped


def case_counts(report):
    """The cases behind a CTest report (GoogleTest and pytest), from the programs' own reports."""
    preset = report.stem.removeprefix("ctest-")
    build = Path("build" if preset == "default" else f"build-{preset}") / "test-results"
    totals = [0, 0, 0]
    for xml in sorted(build.glob("*.xml")) if build.is_dir() else []:
        totals = [a + b for a, b in zip(totals, count(xml))]
    return totals


def main(argv):
    totals = [0, 0, 0]
    for name in argv[1:]:
        path = Path(name)
        if not path.exists():
            print(f"{path.stem}: no report (the step did not run)")
            totals[1] += 1
            continue
        p, f, s = count(path)
        detail = ""
        if path.stem.startswith("ctest-"):
            cp, cf, cs = case_counts(path)
            detail = f" (cases: {cp} passed, {cf} failed, {cs} skipped)"
        print(f"{path.stem}: {p} passed, {f} failed, {s} skipped{detail}")
        totals = [totals[0] + p, totals[1] + f, totals[2] + s]
    print(f"{totals[0]} passed, {totals[1]} failed, {totals[2]} skipped")
    return 0 if totals[1] == 0 else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv))
