/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Object caches and kmalloc. Every object is an allocation of the host's own and is freed at once,
 * so the constructor runs at each allocation. Every allocation passes a fault point. Objects still
 * allocated when their cache is destroyed, and blocks still allocated at shutdown, are reported
 * with the call stacks of their allocations.
 */
#ifndef _LINUX_SLAB_H
#define _LINUX_SLAB_H

#include <linux/gfp.h>
#include <linux/init.h>
#include <linux/types.h>
#include <asm/page.h>

typedef struct kmem_cache kmem_cache_t;

#define SLAB_NOFS GFP_NOFS
#define SLAB_NOIO GFP_NOIO
#define SLAB_ATOMIC GFP_ATOMIC
#define SLAB_USER GFP_USER
#define SLAB_KERNEL GFP_KERNEL

#define SLAB_HWCACHE_ALIGN 0x00002000UL
#define SLAB_RECLAIM_ACCOUNT 0x00020000UL
#define SLAB_PANIC 0x00040000UL
#define SLAB_MEM_SPREAD 0x00100000UL

/* Flags passed to a constructor. */
#define SLAB_CTOR_CONSTRUCTOR 0x001UL
#define SLAB_CTOR_ATOMIC 0x002UL
#define SLAB_CTOR_VERIFY 0x004UL

extern "C" {
/* Null for a name that is in use, or without memory. A size that is too small or too large is a
 * BUG. May sleep. */
kmem_cache_t *kmem_cache_create(const char *name, size_t size, size_t align, unsigned long flags,
                                void (*ctor)(void *, kmem_cache_t *, unsigned long),
                                void (*dtor)(void *, kmem_cache_t *, unsigned long));
/* 0; 1 if objects are still allocated: they are reported and the cache stays. May sleep. */
int kmem_cache_destroy(kmem_cache_t *cachep);
void *kmem_cache_alloc(kmem_cache_t *cachep, gfp_t flags);
void *kmem_cache_zalloc(struct kmem_cache *cachep, gfp_t flags);
void kmem_cache_free(kmem_cache_t *cachep, void *objp);
unsigned int kmem_cache_size(kmem_cache_t *cachep);
const char *kmem_cache_name(kmem_cache_t *cachep);

/* At most 128 KiB; null above that, or without memory. */
void *__kmalloc(size_t size, gfp_t flags);
void *__kzalloc(size_t size, gfp_t flags);
/* A null pointer is ignored. */
void kfree(const void *objp);

extern kmem_cache_t *names_cachep; /* blocks of PATH_MAX bytes */
}

#define KMALLOC_MAX_SIZE (128 * 1024)

static inline void *kmalloc(size_t size, gfp_t flags) {
  return __kmalloc(size, flags);
}
static inline void *kzalloc(size_t size, gfp_t flags) {
  return __kzalloc(size, flags);
}
static inline void *kcalloc(size_t n, size_t size, gfp_t flags) {
  if (n != 0 && size > ~0U / n) return NULL;
  return __kzalloc(n * size, flags);
}

#define __getname() kmem_cache_alloc(names_cachep, SLAB_KERNEL)
#define __putname(name) kmem_cache_free(names_cachep, (void *)(name))

#endif
