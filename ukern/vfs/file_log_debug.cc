// SPDX-License-Identifier: GPL-2.0
#include "ukern/vfs/file_log.h"

#include <linux/kernel.h>
#include <linux/list.h>

#include "ukern/sync/guard.h"
#include "ukern/sync/reflog.h"

static LIST_HEAD(all_files);  // under files_lock

static struct list_head *link_of(struct file *f) {
  return &container_of(f, struct known_file, file)->all;
}

void file_log_begin(struct file *f) {
  SpinGuard guard(files_lock);
  list_add_tail(link_of(f), &all_files);
}

void file_log_end(struct file *f) {
  {
    SpinGuard guard(files_lock);
    list_del(link_of(f));
  }
  reflog_free(f->f_reflog);
}

void file_log_drop(struct file *f) {
  reflog_note(&f->f_reflog, -1, file_count(f) - 1);
}

void file_log_report(void) {
  struct known_file *known;
  list_for_each_entry(known, &all_files, all) {
    struct file *f = &known->file;
    struct bug_report *report = report_begin(
        "file %s is still open: %d references, flags 0%o",
        f->f_dentry ? reinterpret_cast<const char *>(f->f_dentry->d_name.name) : "(not opened)",
        file_count(f), f->f_flags);
    report_reflog(report, f->f_reflog);
    report_end(report);
  }
  INIT_LIST_HEAD(&all_files);
}

extern "C" void ukern_file_ref(struct file *file, int change) {
  reflog_note(&file->f_reflog, change, file_count(file));
}
