// SPDX-License-Identifier: GPL-2.0
// Mapped files. A uk_mapping is a region (vm_area_struct) with a page table of its own: one entry
// per page, with the two bits that matter, writable and dirty. As in kernels of the time, a store
// marks only the entry dirty; the mark moves to the page when the region is synced or the entry is
// removed.
//
// Locks: i_mmap_lock, then the mapping's table_lock (an access copies under it, so that a page
// cannot leave the table meanwhile), then the locks of set_page_dirty. Faults take the page lock
// with none of them held.
#include <linux/err.h>
#include <linux/file.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/mman.h>
#include <linux/pagemap.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/swap.h>
#include <linux/writeback.h>

#include "ukern/mm/mm_internal.h"
#include "ukern/sync/guard.h"
#include "ukern/testing/uk_mm.h"

namespace {

struct table_entry {
  struct page *page;  // with a reference; null: not present
  bool writable;
  bool dirty;
};

}  // namespace

struct uk_mapping {
  struct vm_area_struct vma;
  spinlock_t table_lock;
  unsigned long pages;
  table_entry *table;  // under table_lock
};

namespace {

uk_mapping *mapping_of(struct vm_area_struct *vma) {
  return container_of(vma, uk_mapping, vma);
}

struct address_space *file_mapping(const uk_mapping *map) {
  return map->vma.vm_file->f_mapping;
}

// Moves the dirty mark to the page; 1 if the page was clean. table_lock is held.
int transfer_dirty(table_entry *entry) {
  if (!entry->dirty) return 0;
  entry->dirty = false;
  return set_page_dirty(entry->page);
}

// Empties an entry. table_lock is held.
void zap(table_entry *entry) {
  struct page *page = entry->page;
  if (!page) return;
  transfer_dirty(entry);
  mark_page_accessed(page);
  atomic_dec(&page->_mapcount);
  *entry = {};
  page_cache_release(page);
}

void zap_range(uk_mapping *map, unsigned long first, unsigned long last) {
  SpinGuard guard(map->table_lock);
  for (unsigned long i = first; i <= last && i < map->pages; i++) zap(&map->table[i]);
}

struct page *load_page(uk_mapping *map, unsigned long i, int *error) {
  int type = VM_FAULT_MINOR;
  struct page *page =
      map->vma.vm_ops->nopage(&map->vma, map->vma.vm_start + (i << PAGE_SHIFT), &type);
  *error = page == NOPAGE_SIGBUS ? -EIO : page == NOPAGE_OOM ? -ENOMEM : 0;
  return *error ? nullptr : page;
}

// A store to a private mapping goes to a copy, which belongs to no file.
struct page *copy_for_private(struct page *page, int *error) {
  struct page *copy = alloc_page(GFP_KERNEL);
  if (copy) {
    memcpy(page_address(copy), page_address(page), PAGE_SIZE);
    atomic_set(&copy->_mapcount, -1);
  } else {
    *error = -ENOMEM;
  }
  page_cache_release(page);
  return copy;
}

// Makes page `i` present, and writable for a write. 0 or -errno; the entry may be removed again at
// once.
int fault(uk_mapping *map, unsigned long i, bool write) {
  struct address_space *mapping = file_mapping(map);
  const bool shared = map->vma.vm_flags & VM_SHARED;
  const unsigned truncations = __atomic_load_n(&mapping->truncate_count, __ATOMIC_ACQUIRE);
  int error;
  struct page *page = load_page(map, i, &error);
  if (!page) return error;
  if (write && !shared && !(page = copy_for_private(page, &error))) return error;
  if (write && shared && map->vma.vm_ops->page_mkwrite &&
      map->vma.vm_ops->page_mkwrite(&map->vma, page) < 0) {
    page_cache_release(page);
    return -EIO;
  }

  {
    SpinGuard guard(map->table_lock);
    table_entry *entry = &map->table[i];
    const bool stale = __atomic_load_n(&mapping->truncate_count, __ATOMIC_ACQUIRE) != truncations;
    if (!stale && entry->page == page) {
      entry->writable |= write;
    } else if (!stale && (!entry->page || (write && !entry->writable))) {
      zap(entry);
      *entry = {page, write, false};
      atomic_inc(&page->_mapcount);
      page = nullptr;  // the entry has our reference now
    }
  }
  if (page) page_cache_release(page);
  return 0;
}

// False: the page is not present, or not writable.
bool access_entry(uk_mapping *map, unsigned long pos, char *buf, unsigned long len, bool write) {
  SpinGuard guard(map->table_lock);
  table_entry *entry = &map->table[pos >> PAGE_SHIFT];
  if (!entry->page || (write && !entry->writable)) return false;
  auto *data = static_cast<char *>(page_address(entry->page)) + (pos & ~PAGE_MASK);
  if (write) {
    memcpy(data, buf, len);
    entry->dirty = map->vma.vm_flags & VM_SHARED;
  } else {
    memcpy(buf, data, len);
  }
  return true;
}

// One access inside one page.
int access_page(uk_mapping *map, unsigned long pos, char *buf, unsigned long len, bool write) {
  for (;;) {
    if (access_entry(map, pos, buf, len, write)) return 0;
    if (int error = fault(map, pos >> PAGE_SHIFT, write)) return error;
  }
}

int access_range(uk_mapping *map, unsigned long pos, char *buf, unsigned long len, bool write) {
  might_sleep();
  if (!(map->vma.vm_flags & (write ? VM_WRITE : VM_READ))) return -EFAULT;
  while (len) {
    if (pos >= map->pages << PAGE_SHIFT) return -EFAULT;
    const unsigned long part = min(len, PAGE_SIZE - (pos & ~PAGE_MASK));
    if (int error = access_page(map, pos, buf, part, write)) return error;
    pos += part;
    buf += part;
    len -= part;
  }
  return 0;
}

// The checks of mmap(2) on a file. Returns the region's flags, or -errno.
long region_flags(const struct file *file, int prot, int flags) {
  const int type = flags & MAP_TYPE;
  if (type != MAP_SHARED && type != MAP_PRIVATE) return -EINVAL;
  unsigned long vm_flags = static_cast<unsigned long>(prot & (PROT_READ | PROT_WRITE | PROT_EXEC));
  vm_flags |= VM_MAYREAD | VM_MAYWRITE | VM_MAYEXEC;
  if (flags & MAP_EXECUTABLE) vm_flags |= VM_EXECUTABLE;
  if (flags & MAP_DENYWRITE) vm_flags |= VM_DENYWRITE;
  struct inode *inode = file->f_dentry->d_inode;
  if (type == MAP_SHARED) {
    if ((prot & PROT_WRITE) && !(file->f_mode & FMODE_WRITE)) return -EACCES;
    if (IS_APPEND(inode) && (file->f_mode & FMODE_WRITE)) return -EACCES;
    vm_flags |= VM_SHARED | VM_MAYSHARE;
    if (!(file->f_mode & FMODE_WRITE))
      vm_flags &= ~static_cast<unsigned long>(VM_MAYWRITE | VM_SHARED);
  }
  if (!(file->f_mode & FMODE_READ)) return -EACCES;
  if (!file->f_op || !file->f_op->mmap) return -ENODEV;
  return static_cast<long>(vm_flags);
}

// Adds the region to the file's list and calls the file's mmap. Undone on failure.
int attach(uk_mapping *map) {
  struct file *file = map->vma.vm_file;
  if ((map->vma.vm_flags & VM_DENYWRITE) && deny_write_access(file)) return -ETXTBSY;
  if (int error = file->f_op->mmap(file, &map->vma)) {
    if (map->vma.vm_flags & VM_DENYWRITE) allow_write_access(file);
    return error;
  }
  struct address_space *mapping = file_mapping(map);
  SpinGuard guard(mapping->i_mmap_lock);
  if (map->vma.vm_flags & VM_SHARED) mapping->i_mmap_writable++;
  list_add_tail(&map->vma.shared.vm_set.list, &mapping->i_mmap);
  return 0;
}

void detach(uk_mapping *map) {
  struct address_space *mapping = file_mapping(map);
  {
    SpinGuard guard(mapping->i_mmap_lock);
    if (map->vma.vm_flags & VM_SHARED) mapping->i_mmap_writable--;
    list_del(&map->vma.shared.vm_set.list);
  }
  if (map->vma.vm_flags & VM_DENYWRITE) allow_write_access(map->vma.vm_file);
}

void free_mapping(uk_mapping *map) {
  kfree(map->table);
  kfree(map);
}

uk_mapping *new_mapping(struct file *file, unsigned long long offset, unsigned long pages,
                        unsigned long flags) {
  auto *map = static_cast<uk_mapping *>(kzalloc(sizeof(uk_mapping), GFP_KERNEL));
  if (!map) return nullptr;
  map->table = static_cast<table_entry *>(kzalloc(pages * sizeof(table_entry), GFP_KERNEL));
  if (!map->table) {
    kfree(map);
    return nullptr;
  }
  spin_lock_init(&map->table_lock);
  map->pages = pages;
  // Addresses have no meaning here: the region begins at the page of its own structure.
  map->vma.vm_start = reinterpret_cast<unsigned long>(map) & PAGE_MASK;
  map->vma.vm_end = map->vma.vm_start + (pages << PAGE_SHIFT);
  map->vma.vm_flags = flags;
  map->vma.vm_mm = current->mm;
  map->vma.vm_pgoff = static_cast<unsigned long>(offset >> PAGE_SHIFT);
  map->vma.vm_file = file;
  return map;
}

}  // namespace

void unmap_mapping_range(struct address_space *mapping, loff_t const holebegin,
                         loff_t const holelen, int even_cows) {
  might_sleep();
  const auto first = static_cast<pgoff_t>(holebegin >> PAGE_SHIFT);
  const auto count = static_cast<pgoff_t>((holelen + PAGE_SIZE - 1) >> PAGE_SHIFT);
  const pgoff_t last = count ? first + count - 1 : ~0ul;

  SpinGuard guard(mapping->i_mmap_lock);
  __atomic_add_fetch(&mapping->truncate_count, 1, __ATOMIC_ACQ_REL);  // faults in progress restart
  struct vm_area_struct *vma;
  list_for_each_entry(vma, &mapping->i_mmap, shared.vm_set.list) {
    uk_mapping *map = mapping_of(vma);
    const bool keeps_copies = !(vma->vm_flags & VM_SHARED) && !even_cows;
    const pgoff_t end = vma->vm_pgoff + map->pages - 1;
    if (last < vma->vm_pgoff || first > end) continue;
    const pgoff_t from = first > vma->vm_pgoff ? first - vma->vm_pgoff : 0;
    const pgoff_t to = min(last, end) - vma->vm_pgoff;
    SpinGuard guard(map->table_lock);
    for (pgoff_t i = from; i <= to; i++)
      if (!keeps_copies || (map->table[i].page && map->table[i].page->mapping == mapping))
        zap(&map->table[i]);
  }
}

int uk_mmap(struct uk_file *opaque, unsigned long long offset, unsigned long len, int prot,
            int flags, struct uk_mapping **out) {
  auto *file = reinterpret_cast<struct file *>(opaque);
  const unsigned long pages = (len + PAGE_SIZE - 1) >> PAGE_SHIFT;
  if (!pages || (offset & ~PAGE_MASK)) return -EINVAL;
  const long vm_flags = region_flags(file, prot, flags);
  if (vm_flags < 0) return static_cast<int>(vm_flags);
  uk_mapping *map = new_mapping(file, offset, pages, static_cast<unsigned long>(vm_flags));
  if (!map) return -ENOMEM;
  if (int error = attach(map)) {
    free_mapping(map);
    return error;
  }
  get_file(file);
  *out = map;
  return 0;
}

int uk_map_read(struct uk_mapping *map, unsigned long pos, void *buf, unsigned long len) {
  return access_range(map, pos, static_cast<char *>(buf), len, false);
}

int uk_map_write(struct uk_mapping *map, unsigned long pos, const void *buf, unsigned long len) {
  return access_range(map, pos, static_cast<char *>(const_cast<void *>(buf)), len, true);
}

int uk_msync(struct uk_mapping *map, unsigned long pos, unsigned long len, int flags) {
  if (flags & ~(MS_ASYNC | MS_INVALIDATE | MS_SYNC)) return -EINVAL;
  if ((flags & MS_ASYNC) && (flags & MS_SYNC)) return -EINVAL;
  if (pos & ~PAGE_MASK) return -EINVAL;
  const unsigned long first = pos >> PAGE_SHIFT;
  const unsigned long end = first + ((len + PAGE_SIZE - 1) >> PAGE_SHIFT);
  if (end < first || end > map->pages) return -ENOMEM;
  if (!(flags & (MS_ASYNC | MS_SYNC)) || !(map->vma.vm_flags & VM_SHARED)) return 0;

  unsigned long dirtied = 0;
  {
    SpinGuard guard(map->table_lock);
    for (unsigned long i = first; i < end; i++) dirtied += transfer_dirty(&map->table[i]) ? 1 : 0;
  }
  if (flags & MS_SYNC) return static_cast<int>(do_fsync(map->vma.vm_file, 0));
  if (dirtied) balance_dirty_pages_ratelimited_nr(file_mapping(map), dirtied);
  return 0;
}

void uk_munmap(struct uk_mapping *map) {
  detach(map);
  zap_range(map, 0, map->pages - 1);
  fput(map->vma.vm_file);
  free_mapping(map);
}

void uk_sync(void) {
  wakeup_pdflush(0);
  sync_inodes(0);
  sync_supers();
  sync_filesystems(0);
  sync_filesystems(1);
  sync_inodes(1);
}

void uk_wake_writeback(void) {
  wakeup_pdflush(0);
}

void uk_drop_pagecache(void) {
  drop_pagecache();
}
