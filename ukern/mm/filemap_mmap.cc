// SPDX-License-Identifier: GPL-2.0
// Mappings of files whose pages are in the page cache: the generic mmap and nopage.
#include <linux/err.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/pagemap.h>

struct page *filemap_nopage(struct vm_area_struct *area, unsigned long address, int *type) {
  struct file *file = area->vm_file;
  struct address_space *mapping = file->f_mapping;
  const unsigned long index = linear_page_index(area, address);
  const loff_t size = i_size_read(mapping->host);
  const loff_t pages = (size + static_cast<loff_t>(PAGE_CACHE_SIZE) - 1) >> PAGE_CACHE_SHIFT;
  if (static_cast<loff_t>(index) >= pages) return NOPAGE_SIGBUS;
  struct page *page = read_mapping_page(mapping, index, file);
  if (IS_ERR(page)) return PTR_ERR(page) == -ENOMEM ? NOPAGE_OOM : NOPAGE_SIGBUS;
  wait_on_page_locked(page);
  if (!PageUptodate(page)) {
    page_cache_release(page);
    return NOPAGE_SIGBUS;
  }
  if (type) *type = VM_FAULT_MINOR;
  return page;
}

static struct vm_operations_struct generic_file_vm_ops = {
    .open = nullptr,
    .close = nullptr,
    .nopage = filemap_nopage,
    .page_mkwrite = nullptr,
};

int generic_file_mmap(struct file *file, struct vm_area_struct *vma) {
  if (!file->f_mapping->a_ops->readpage) return -ENOEXEC;
  file_accessed(file);
  vma->vm_ops = &generic_file_vm_ops;
  return 0;
}
