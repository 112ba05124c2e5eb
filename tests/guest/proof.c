/* SPDX-License-Identifier: GPL-2.0 */
#include "proof.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static void add_table(struct proof *proof, const char *line) {
  const size_t length = strlen(proof->tables);
  unsigned long used, most;
  char name[64];

  if (sscanf(line, " %63[^:]: %lu [max: %lu]", name, &used, &most) != 3 || !most) return;
  for (char *at = name; *at; at++) *at = *at == ' ' ? '-' : *at;
  snprintf(proof->tables + length, sizeof(proof->tables) - length, " %s %lu %lu", name, used, most);
  if (used * 100 / most > proof->fullest_percent) proof->fullest_percent = used * 100 / most;
}

int read_proof(struct proof *proof) {
  static const char debug_locks[] = " debug_locks:";
  FILE *stats = fopen("/proc/lockdep_stats", "re");
  char line[256];

  memset(proof, 0, sizeof(*proof));
  if (!stats) return 0;
  while (fgets(line, sizeof(line), stats)) {
    add_table(proof, line);
    if (strncmp(line, debug_locks, strlen(debug_locks)) == 0)
      proof->on = atoi(line + strlen(debug_locks));
  }
  fclose(stats);
  return 1;
}
