/* SPDX-License-Identifier: GPL-2.0 */
/* A few pages with a reference each, for walks through a mapping. Lives on the stack. */
#ifndef _LINUX_PAGEVEC_H
#define _LINUX_PAGEVEC_H

#include <linux/mm.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PAGEVEC_SIZE 14

struct pagevec {
  unsigned long nr;
  unsigned long cold;
  struct page *pages[PAGEVEC_SIZE];
};

static inline void pagevec_init(struct pagevec *pvec, int cold) {
  pvec->nr = 0;
  pvec->cold = (unsigned long)cold;
}
static inline unsigned pagevec_count(struct pagevec *pvec) {
  return (unsigned)pvec->nr;
}

/* Drops the references and empties the vector. */
void pagevec_release(struct pagevec *pvec);
/* Fill the vector with pages from `start` (or *index, which is advanced) on; return their
 * number. */
unsigned pagevec_lookup(struct pagevec *pvec, struct address_space *mapping, pgoff_t start,
                        unsigned nr_pages);
unsigned pagevec_lookup_tag(struct pagevec *pvec, struct address_space *mapping, pgoff_t *index,
                            int tag, unsigned nr_pages);

#ifdef __cplusplus
}
#endif
#endif
