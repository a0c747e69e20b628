# Builds the hivekit Python module without CMake: the library's sources and
# the binding in one extension (see pyproject.toml). include/hivekit/version.h
# is made here from version.h.in, as CMake's configure_file would.
import os
import re
from glob import glob

from pybind11.setup_helpers import ParallelCompile, Pybind11Extension
from setuptools import setup

here = os.path.dirname(os.path.abspath(__file__))
os.chdir(here)
version = re.search(r"project\(hivekit VERSION (\d+)\.(\d+)\.(\d+)", open(os.path.join(here, "CMakeLists.txt")).read())
generated = os.path.join("build", "python-include")
os.makedirs(os.path.join(here, generated, "hivekit"), exist_ok=True)
header = open(os.path.join(here, "include", "hivekit", "version.h.in")).read()
for name, part in zip(("MAJOR", "MINOR", "PATCH"), version.groups()):
    header = header.replace(f"@PROJECT_VERSION_{name}@", part)
header = header.replace("@PROJECT_VERSION@", ".".join(version.groups()))
with open(os.path.join(here, generated, "hivekit", "version.h"), "w") as f:
    f.write(header)

ParallelCompile("HIVEKIT_BUILD_JOBS", default=2).install()
sources = sorted(glob("platform/*.cc") + glob("hive/**/*.cc", recursive=True) + glob("api/*.cc"))
module = Pybind11Extension(
    "hivekit._hivekit",
    ["python/src/hivekit_module.cc"] + sources,
    include_dirs=[".", "include", generated],
    define_macros=[("HIVEKIT_STATIC", None), ("HIVEKIT_VERSION", '"%s"' % ".".join(version.groups()))],
    cxx_std=20,
    extra_link_args=["-pthread", "-Wl,--version-script=python/src/module.map"],
)
setup(version=".".join(version.groups()), ext_modules=[module])
