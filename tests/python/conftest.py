import os
import pathlib
import subprocess

import pytest

TESTDATA = pathlib.Path(__file__).resolve().parents[2] / ".." / "shared" / "testdata"


@pytest.fixture
def testdata() -> pathlib.Path:
    if not (TESTDATA / "expected").is_dir():
        pytest.skip("no ../shared/testdata beside the project")
    return TESTDATA


@pytest.fixture
def dump():
    """Runs the C++ tool's `dump` (HIVEKIT_CLI names the built `hivekit`)."""
    cli = os.environ.get("HIVEKIT_CLI")
    if not cli:
        pytest.skip("HIVEKIT_CLI is not set")

    def run(path) -> str:
        return subprocess.run([cli, "dump", str(path)], check=True, capture_output=True, text=True).stdout

    return run
