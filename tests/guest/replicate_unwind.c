// SPDX-License-Identifier: GPL-2.0
/*
 * What the compiler's unwinder asks of a C library and musl does not have: which loaded object a
 * code address belongs to, and where that object's unwind table is.
 */
#define _GNU_SOURCE
#include <link.h>
#include <stddef.h>

/* As the unwinder knows it. */
struct dl_find_object {
  unsigned long long dlfo_flags;
  void *dlfo_map_start;
  void *dlfo_map_end;
  struct link_map *dlfo_link_map;
  void *dlfo_eh_frame;
  unsigned long long reserved[7];
};

struct search {
  ElfW(Addr) address;
  struct dl_find_object *result;
};

int _dl_find_object(void *address, struct dl_find_object *result);

static int look_into(struct dl_phdr_info *object, size_t size, void *data) {
  struct search *search = data;
  const ElfW(Phdr) *holds = NULL, *table = NULL;

  (void)size;
  for (int i = 0; i < object->dlpi_phnum; i++) {
    const ElfW(Phdr) *segment = &object->dlpi_phdr[i];
    const ElfW(Addr) start = object->dlpi_addr + segment->p_vaddr;
    if (segment->p_type == PT_GNU_EH_FRAME) table = segment;
    if (segment->p_type == PT_LOAD && search->address - start < segment->p_memsz) holds = segment;
  }
  if (!holds || !table) return 0;
  search->result->dlfo_flags = 0;
  search->result->dlfo_map_start = (void *)(object->dlpi_addr + holds->p_vaddr);
  search->result->dlfo_map_end = (char *)search->result->dlfo_map_start + holds->p_memsz;
  search->result->dlfo_link_map = NULL;
  search->result->dlfo_eh_frame = (void *)(object->dlpi_addr + table->p_vaddr);
  return 1;
}

int _dl_find_object(void *address, struct dl_find_object *result) {
  struct search search = {(ElfW(Addr))address, result};
  return dl_iterate_phdr(look_into, &search) ? 0 : -1;
}
