# SPDX-License-Identifier: GPL-2.0
"""The service under faults; run by service_promise.sh. See settings.py for what can be asked."""
import signal
import subprocess
import sys
import time

from . import settings
from .driver import LAST, Driver, Failed, say


def main(asked, kind):
    say("seed %d" % asked.seed)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # mirrord is ended all the same
    began = time.monotonic()
    driver = None
    try:
        driver = kind(asked)
        count = driver.run()
    except (Failed, subprocess.TimeoutExpired) as failed:
        say("FAILED: %s" % failed)
        if driver:
            driver.say_what_ended()
            say("what was done last: %s" % "; ".join(driver.done[-LAST:]))
        say("again: %s" % asked.again())
        return 1
    finally:
        if driver:
            driver.leave()
            driver.report()
    say("%d faults in %.0f s: equal after each" % (count, time.monotonic() - began))
    return 0


if __name__ == "__main__":
    sys.exit(main(settings.parse(), Driver))
