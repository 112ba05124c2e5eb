/* SPDX-License-Identifier: GPL-2.0 */
/*
 * How long an answer of the host stays good. Several look-ups of one object within one request of
 * the hosting program may be one: nobody can tell at what moment of the request it was made. So may
 * those of the look-ups with which the same system call began. A look-up itself always asks anew.
 *
 * Answers are stamped with the number of the request that asked; stamps may be read and written by
 * several tasks at once. Each task has one request, which only it uses.
 *
 * Without this, `cp -a` on a mount takes about a sixth more of tarnd's processor time, and `grep
 * -r` an eighth.
 */
#ifndef _ASM_REQUEST_H
#define _ASM_REQUEST_H

struct host_request {
  unsigned long number;       /* of the one under way; 0: none is */
  unsigned long valid_since;  /* answers to this request and to later ones are still good */
  unsigned long first_lookup; /* of the system call whose look-ups the last requests were */
  bool continues;             /* the next one belongs to that system call */
};

enum host_request_kind { REQUEST_LOOKUP, REQUEST_OTHER };

static inline void request_begin(struct host_request *request, enum host_request_kind kind,
                                 unsigned long number) {
  const bool first = !request->continues;
  request->continues = false;
  if (kind == REQUEST_LOOKUP && first) request->first_lookup = number;
  request->valid_since = kind == REQUEST_LOOKUP || first ? number : request->first_lookup;
  request->number = number;
}

static inline void request_end(struct host_request *request) {
  request->number = 0;
}

/* Need what was answered to the request `*stamp` not be asked again? */
static inline bool request_knows(const struct host_request *request, const unsigned long *stamp) {
  return request->number && __atomic_load_n(stamp, __ATOMIC_RELAXED) >= request->valid_since;
}

static inline void request_stamp(const struct host_request *request, unsigned long *stamp) {
  __atomic_store_n(stamp, request->number, __ATOMIC_RELAXED);
}

/* Rights: `*granted` holds the request that was told yes and the mask (MAY_*) that it asked for. It
 * serves this request alone, for they depend on who asks. */
static inline bool request_is_granted(const struct host_request *request,
                                      const unsigned long *granted, int mask) {
  return request->number &&
         __atomic_load_n(granted, __ATOMIC_RELAXED) == request->number * 8 + (unsigned long)mask;
}

static inline void request_grant(const struct host_request *request, unsigned long *granted,
                                 int mask) {
  __atomic_store_n(granted, request->number * 8 + (unsigned long)mask, __ATOMIC_RELAXED);
}

#endif
