#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Programs that are started without standard descriptors, with others than these, or by one that ignores the end of its
# children, work as well and say what is wrong.
. "$(dirname "$0")/../lib.sh"

# tarnd takes its lock and serves, and a second one in its place is refused; nobody waits for ever.
timeout 20 tarnd <&- >&- 2>&- || fail "tarnd did not start without standard descriptors"
expect_error "runs already" timeout 20 tarnd
grep -q . "$TARN_RUN_DIR/tarnd.log" && fail "something was written to a wrong file: $(cat "$TARN_RUN_DIR/tarnd.log")"
tarn stop

# A script that starts it under a lock, and lets go of the lock, has let go of it.
exec 9>"$T/lock"
flock 9
tarnd
exec 9>&-
flock --nonblock "$T/lock" true || fail "tarnd keeps a lock of its starter"
tarn stop

# A mount by a user's tarnd is unmounted by a helper, whose end has to be seen.
(trap '' CHLD; exec tarnd) || fail "tarnd did not start with SIGCHLD ignored"
ignored=$((16#$(sed -n 's/^SigIgn:\s*//p' "/proc/$(cat "$TARN_RUN_DIR/tarnd.pid")/status")))
(((ignored >> 16 & 1) == 0)) || fail "tarnd goes on ignoring the end of its helpers"
tarn stop

# mirrord's messages and its replica do not get into each other's way.
tarn mount "$T/lower" "$T/mnt"
mirrord --source "$T/lower" --replica "$T/replica" <&- >&- 2>&- &
MIRRORD_PID=$!
wait_until 30 "mirrord is registered" mirrord wait --timeout 20
: >"$T/replica/exists"
for n in 1 2 3; do echo "$n" >"$T/mnt/$n"; done
mkdir "$T/mnt/exists"
wait_caught_up
compare_trees "$T/lower" "$T/replica"
stop_mirrord
