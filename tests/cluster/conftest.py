"""The options of the cluster tests, and a node that stands alone."""

import pytest

from tests.lib.cluster_node import Node


def pytest_addoption(parser):
    parser.addoption("--daemon", default="build/dev/kestcrond", help="the program to test")


@pytest.fixture
def node(request, tmp_path):
    with Node(request.config.getoption("--daemon"), "alone", tmp_path) as node:
        yield node
