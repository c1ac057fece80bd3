#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""android_sources_test.py Android.bp SOURCE...: fails unless the library's sources in Android.bp are the
given ones, CMake's, each once."""
import re
import sys

LIBRARY = "libtesubpfservice"


def library_sources(text):
    text = re.sub(r"//.*", "", text)
    for module in re.findall(r"^cc_library_shared \{.*?^\}", text, re.DOTALL | re.MULTILINE):
        if f'name: "{LIBRARY}"' in module:
            lists = re.findall(r"\bsrcs: \[(.*?)\]", module, re.DOTALL)
            return [source for found in lists for source in re.findall(r'"([^"]+)"', found)]
    sys.exit(f"Android.bp has no {LIBRARY}")


with open(sys.argv[1], encoding="utf-8") as file:
    android = library_sources(file.read())
cmake = sys.argv[2:]
if not cmake:
    sys.exit("CMake names no sources")
for source in sorted(set(cmake) - set(android)):
    print(f"missing in Android.bp: {source}")
for source in sorted(set(android) - set(cmake)):
    print(f"not in CMakeLists.txt: {source}")
sys.exit(sorted(android) != sorted(cmake))
