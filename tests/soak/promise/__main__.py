# SPDX-License-Identifier: GPL-2.0
"""The driver of the promise: a change is replicated, or its loss is declared; never a third thing.

Run by promise.sh, which makes the mounts and starts mirrord. See settings.py for what can be asked.
"""
import sys
import time

from . import report, settings
from .coordinator import Coordinator, Failed


def main():
    asked = settings.parse()
    report.header(asked)
    began = time.monotonic()
    coordinator = Coordinator(asked)
    judged, reason = None, None
    try:
        judged = coordinator.run()
    except Failed as failed:
        reason = failed
    finally:
        coordinator.end_all()
    if reason is not None:
        report.say("FAILED: %s" % reason)
        report.again(asked)
        return 1
    if judged is not None:
        report.failure(asked, judged, began)
        return 1
    report.success(coordinator, began)
    return 0


if __name__ == "__main__":
    sys.exit(main())
