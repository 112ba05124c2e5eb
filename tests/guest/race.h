/* SPDX-License-Identifier: GPL-2.0 */
/* One change of a name or a file among few, as the racer's workers make them. */
#ifndef TESTS_GUEST_RACE_H
#define TESTS_GUEST_RACE_H

/*
 * Does something below `top`, which `at`, the state of a sequence of numbers, decides. 1 when it
 * changed something, 0 when it was refused.
 */
int race_once(const char *top, unsigned *at);

#endif
