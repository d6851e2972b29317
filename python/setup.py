"""The package's version is the project's: read from the top CMakeLists.txt it is built with."""

import pathlib
import re

from setuptools import setup

top = pathlib.Path(__file__).resolve().parent.parent / "CMakeLists.txt"
found = re.search(r"^project\(vexlo VERSION ([0-9.]+)", top.read_text(), re.M)
if not found:
    raise SystemExit(f"no project version in {top}: build from the vexlo source tree")
setup(version=found[1])
