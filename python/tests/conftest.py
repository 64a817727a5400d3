"""Shared fixtures: the project's sample data, made once per test session."""

import os
import subprocess

import pytest


@pytest.fixture(scope="session")
def sample(tmp_path_factory):
    """A folder holding the sample DEM, image and land cover at 512 x 512 cells."""
    folder = tmp_path_factory.mktemp("sample")
    maker = os.environ.get("PIXWERK_SAMPLE", "pixwerk-sample")
    subprocess.run([maker, str(folder), "512"], check=True, capture_output=True)
    return folder


@pytest.fixture(scope="session")
def cli():
    """The pixwerk command line of this build."""
    return os.environ.get("PIXWERK_CLI", "pixwerk")
