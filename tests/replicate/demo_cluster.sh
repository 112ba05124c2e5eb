#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# The short form of `make demo-cluster`, with one server: it and a replica are killed while programs write, and both replicas end equal.
set -euo pipefail
SERVERS=1 FILES=300 exec "$(dirname "$0")/../../tools/demo_cluster.sh" "${1:?build folder}"
