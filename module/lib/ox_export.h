/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The functions exported to other modules (GPL only), in the order of the symbol table. For C and
 * C++: OX_EXPORTS(X) expands to X(name) for each.
 */
#ifndef OX_EXPORT_H
#define OX_EXPORT_H

#define OX_EXPORTS(X)      \
  X(ox_debug_exit)         \
  X(ox_debug_init)         \
  X(ox_log)                \
  X(ox_free_page)          \
  X(ox_alloc_page)         \
  X(ox_free)               \
  X(ox_malloc)             \
  X(gmtime_r)              \
  X(ox_mktime)             \
  X(ox_current_time_ns)    \
  X(ox_current_time_us)    \
  X(ox_complete_timedwait) \
  X(ox_thread_kill)        \
  X(ox_thread_create)      \
  X(ox_thread_destroy)     \
  X(ox_thread_init)

#endif
