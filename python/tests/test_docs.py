"""The examples of docs/python.md run on the sample as the page says."""

import os
import pathlib
import subprocess
import sys

import pytest

EXAMPLES = pathlib.Path(__file__).resolve().parents[2] / "docs" / "examples"


@pytest.mark.parametrize("script", ["python_read.py", "python_dask.py"])
def test_the_documented_examples_run(sample, script):
    done = subprocess.run([sys.executable, str(EXAMPLES / script), str(sample)],
                          capture_output=True, text=True, env=os.environ, timeout=300)
    assert done.returncode == 0, done.stderr
    assert "wrote" in done.stdout
