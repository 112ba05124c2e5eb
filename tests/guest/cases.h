/* SPDX-License-Identifier: GPL-2.0 */
/* The cases linked into the module, for its C part: numbered from 0 in the order in which they were
 * linked. */
#ifndef TESTS_GUEST_CASES_H
#define TESTS_GUEST_CASES_H

#ifdef __cplusplus
extern "C" {
#endif

int case_count(void);
/* Makes a case the next one to run: its name, "suite.name", which stays until the next selection;
 * null, and none is selected, when there is no such case. */
const char *case_select(unsigned long number);
/* Runs the selected one in the calling process: how many checks failed, 1 when none is selected.
 * Sleeps. */
int case_run(void);

#ifdef __cplusplus
}
#endif

#endif
