// SPDX-License-Identifier: GPL-2.0
// Object caches and kmalloc over the host's allocator.
#include <linux/slab.h>

#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/limits.h>
#include <linux/list.h>
#include <linux/spinlock.h>
#include <linux/string.h>

#include "ukern/host/host.h"
#include "ukern/mm/alloc_track.h"
#include "ukern/mm/fault.h"
#include "ukern/mm/slab.h"
#include "ukern/mm/slab_free_list.h"
#include "ukern/sync/debug.h"
#include "ukern/sync/guard.h"
#include "ukern/sync/lockcheck.h"
#include "ukern/sync/report.h"

struct kmem_cache {
  const char *name;
  size_t size;
  size_t align;
  void (*ctor)(void *, kmem_cache_t *, unsigned long);
  void (*dtor)(void *, kmem_cache_t *, unsigned long);
  atomic_t objects;  // allocated
  struct list_head link;
  slab_free_list freed;
};

namespace {

constexpr size_t kMinAlign = 16;
constexpr size_t kMaxObject = 32 * PAGE_SIZE;
constexpr int kFresh = 0x5a;
constexpr int kFreed = 0x6b;

// All caches, under cache_word.
LIST_HEAD(caches);
volatile unsigned int cache_word;

bool name_in_use(const char *name) {
  const struct kmem_cache *cache;
  list_for_each_entry(cache, &caches, link) {
    if (!strcmp(cache->name, name)) return true;
  }
  return false;
}

void check_flags(gfp_t flags) {
  might_sleep_if(flags & __GFP_WAIT);
  // A slab cannot grow with this flag; it works only while there is a free object.
  if constexpr (kDebugBuild) BUG_ON(flags & __GFP_ZERO);
}

// False: a fault is injected instead of the allocation.
bool may_allocate(gfp_t flags) {
  check_flags(flags);
  return !fault_point() || (flags & __GFP_NOFAIL);
}

// `owner` null: kmalloc. Neither cleared nor constructed.
void *block_alloc(size_t size, size_t align, const void *owner) {
  void *block = host_alloc(size ? size : 1, align);
  if (!block || alloc_track_add(block, size, owner)) return block;
  host_free(block);
  return nullptr;
}

void poison(void *block, int with, size_t size) {
  if constexpr (kDebugBuild) memset(block, with, size);
}

// Whether `owner` allocated the block, and in a debug build its size. If not, the block is reported
// and left alone.
bool may_free(void *block, const void *owner, const char *owner_name, size_t *size) {
  if (!alloc_track_remove(block, owner, owner_name, size)) return false;
  ukern_lock_check_free(block, *size);
  return true;
}

void block_free(void *block, size_t size) {
  poison(block, kFreed, size);
  host_free(block);
}

void cache_free(struct kmem_cache *cache) {
  while (void *object = cache->freed.take()) host_free(object);
  host_free(cache);
}

void report_leak(const char *what, const char *name, const void *owner, unsigned long count) {
  bug_report *report = report_begin("%lu objects of %s still allocated %s", count, name, what);
  alloc_track_count(owner, report);
  report_end(report);
}

}  // namespace

extern "C" {

kmem_cache_t *names_cachep;

kmem_cache_t *kmem_cache_create(const char *name, size_t size, size_t align, unsigned long flags,
                                void (*ctor)(void *, kmem_cache_t *, unsigned long),
                                void (*dtor)(void *, kmem_cache_t *, unsigned long)) {
  might_sleep();
  BUG_ON(!name || size < sizeof(void *) || size > kMaxObject || (dtor && !ctor));
  struct kmem_cache *cache = nullptr;
  if (!fault_point())
    cache = static_cast<struct kmem_cache *>(host_alloc(sizeof(*cache), kMinAlign));
  if (!cache) {
    if (flags & SLAB_PANIC) panic("kmem_cache_create(): failed to create slab `%s'", name);
    return nullptr;
  }
  cache->name = name;
  cache->size = size;
  cache->align = flags & SLAB_HWCACHE_ALIGN ? 64 : align;
  if (cache->align < kMinAlign) cache->align = kMinAlign;
  cache->ctor = ctor;
  cache->dtor = dtor;
  atomic_set(&cache->objects, 0);
  cache->freed.init(size);

  {
    WordGuard guard(cache_word);
    if (!name_in_use(name)) {
      list_add_tail(&cache->link, &caches);
      return cache;
    }
  }
  host_free(cache);
  printk("kmem_cache_create: duplicate cache %s\n", name);
  if (flags & SLAB_PANIC) panic("kmem_cache_create(): failed to create slab `%s'", name);
  return nullptr;
}

int kmem_cache_destroy(kmem_cache_t *cache) {
  might_sleep();
  BUG_ON(!cache);
  if (const int objects = atomic_read(&cache->objects)) {
    report_leak("as their cache is destroyed", cache->name, cache,
                static_cast<unsigned long>(objects));
    return 1;
  }
  {
    WordGuard guard(cache_word);
    list_del(&cache->link);
  }
  cache_free(cache);
  return 0;
}

void *kmem_cache_alloc(kmem_cache_t *cache, gfp_t flags) {
  if (!may_allocate(flags)) return nullptr;
  void *object = cache->freed.take();
  if (!object) object = block_alloc(cache->size, cache->align, cache);
  if (!object) return nullptr;
  atomic_inc(&cache->objects);
  poison(object, kFresh, cache->size);
  if (cache->ctor) {
    unsigned long why = SLAB_CTOR_CONSTRUCTOR;
    if (!(flags & __GFP_WAIT)) why |= SLAB_CTOR_ATOMIC;
    cache->ctor(object, cache, why);
  }
  return object;
}

void *kmem_cache_zalloc(struct kmem_cache *cache, gfp_t flags) {
  void *object = kmem_cache_alloc(cache, flags);
  if (object) memset(object, 0, cache->size);
  return object;
}

void kmem_cache_free(kmem_cache_t *cache, void *object) {
  size_t size = cache->size;
  if (!may_free(object, cache, cache->name, &size)) return;
  if (cache->dtor) cache->dtor(object, cache, 0);
  atomic_dec(&cache->objects);
  if (!cache->freed.put(object)) block_free(object, size);
}

unsigned int kmem_cache_size(kmem_cache_t *cache) {
  return static_cast<unsigned int>(cache->size);
}

const char *kmem_cache_name(kmem_cache_t *cache) {
  return cache->name;
}

void *__kmalloc(size_t size, gfp_t flags) {
  if (unlikely(size > KMALLOC_MAX_SIZE)) return nullptr;
  if (!may_allocate(flags)) return nullptr;
  void *block = block_alloc(size, kMinAlign, nullptr);
  if (block) poison(block, kFresh, size);
  return block;
}

void *__kzalloc(size_t size, gfp_t flags) {
  if (unlikely(size > KMALLOC_MAX_SIZE)) return nullptr;
  if (!may_allocate(flags)) return nullptr;
  void *block = block_alloc(size, kMinAlign, nullptr);
  if (block) memset(block, 0, size);
  return block;
}

void kfree(const void *block) {
  size_t size = 0;
  if (block && may_free(const_cast<void *>(block), nullptr, "kfree", &size))
    block_free(const_cast<void *>(block), size);
}

int ukern_slab_init(void) {
  // Without alignment: an aligned block of that size takes the host's allocator four times as long.
  names_cachep = kmem_cache_create("names_cache", PATH_MAX, 0, 0, nullptr, nullptr);
  return names_cachep ? 0 : -ENOMEM;
}

void ukern_slab_exit(void) {
  while (!list_empty(&caches)) {
    struct kmem_cache *cache = list_entry(caches.next, struct kmem_cache, link);
    if (const int objects = atomic_read(&cache->objects))
      report_leak("at shutdown", cache->name, cache, static_cast<unsigned long>(objects));
    if (cache != names_cachep)
      report_end(report_begin("cache %s still exists at shutdown", cache->name));
    list_del(&cache->link);
    cache_free(cache);
  }
  names_cachep = nullptr;
  if (const unsigned long blocks = alloc_track_count(nullptr, nullptr))
    report_leak("at shutdown", "kmalloc", nullptr, blocks);
  alloc_track_free_all();
}
}
