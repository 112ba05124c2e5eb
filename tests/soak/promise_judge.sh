#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# What judges the runs of promise.sh: it finds each kind of difference, takes what is declared by name for declared, and
# nothing else. Without it a run that finds nothing would tell nothing.
HERE=$(cd "$(dirname "$0")" && pwd)
PYTHONPATH="$HERE" PYTHONDONTWRITEBYTECODE=1 exec python3 -m promise.judge_test
