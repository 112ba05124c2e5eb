# SPDX-License-Identifier: GPL-2.0
"""Replicas behind a stream under faults; run by cluster_promise.sh. See settings.py for what can be asked."""
import sys

from service.__main__ import main

from . import settings
from .driver import ClusterDriver

if __name__ == "__main__":
    sys.exit(main(settings.parse(), ClusterDriver))
