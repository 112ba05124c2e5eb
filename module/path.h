/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The paths that records say: where a changed object is called what, and that this agrees with the
 * record's number.
 *
 * A path is not a file. A lower dentry may be out of the cache of names although its file still has
 * the name (a hard link was made, a mount has ended), or because the file lost it. So a path comes
 * with what it is to the object (enum ox_naming): the name; the name of another alias, where the
 * dentry's own is out of the cache; or a mere text.
 *
 * A path is true at a moment. What holds: a record that is numbered before the record of a change
 * of names says the path of before, one that is numbered after it says the path of after. For
 * this, changes of names are counted when they are numbered. A capture notes the count before it
 * takes its paths; numbers are given out under names.lock, and only if the count is still the same;
 * otherwise the paths are taken again. A rename or a link changes the kernel's names a moment
 * before it is numbered: it is known (struct tarn_name_change) from before its lower call until
 * then, and in that moment nobody else gets a number. The moment contains no send, no lock of a
 * lower object that others wait with, and no memory that could come back to writepage; who finds it
 * longer than a second gives its record up, and the number stands for the loss.
 *
 * Locks: names.lock (spinning), and inside it dcache_lock. Taking a path sleeps only where said.
 */
#ifndef TARN_PATH_H
#define TARN_PATH_H

#include "kernel.h"
#include "ox_msg.h"

struct tarn_trans;

/*
 * The lower path of a dentry, inside the buffer *buf that the caller gives back with tarn_path_put;
 * null, and nothing to give back, when there is none.
 */
[[nodiscard]] char *tarn_path_get(char **buf, struct dentry *dentry);
int tarn_path_put(char *buf);

/* The lower path of a dentry until the end of the scope; null if there is none. */
class tarn_lower_path {
 public:
  explicit tarn_lower_path(struct dentry *dentry)
      : buf_(nullptr), path_(tarn_path_get(&buf_, dentry)) {}
  ~tarn_lower_path() {
    if (buf_) tarn_path_put(buf_);
  }
  tarn_lower_path(const tarn_lower_path &) = delete;
  tarn_lower_path &operator=(const tarn_lower_path &) = delete;
  const char *get() const { return path_; }
  explicit operator bool() const { return path_ != nullptr; }

 private:
  char *buf_;
  char *path_;
};

/*
 * A lower dentry, with a reference, by which the object of an upper dentry can be named as long as
 * the reference is held, although its own is out of the cache: an alias in the cache, or the name
 * of the upper dentry looked up again. Null when nothing needs to be held, or nothing is found.
 * Takes the lower directory's i_mutex and may sleep: no lower lock may be held.
 */
[[nodiscard]] struct dentry *tarn_hold_name(struct dentry *dentry);

/* Whether a lower dentry is in the cache under the name that the upper one has. */
bool tarn_is_in_place(struct dentry *dentry, struct dentry *lower);

/* One path of a record, and how to take it anew. */
class tarn_record_path {
 public:
  /* No path. */
  tarn_record_path() = default;
  /* Of an object, wherever it is by now; an upper dentry. */
  explicit tarn_record_path(struct dentry *dentry) : dentry_(dentry) {}
  /* With `in_place` (tarn_is_in_place, asked before the call below) that dentry's own name and no
   * other of the object, unless the cache knows something else there. */
  tarn_record_path(struct dentry *dentry, bool in_place) : dentry_(dentry), in_place_(in_place) {}
  /* Of a name in a lower directory, whatever has it by now. The directory's lock is held. */
  tarn_record_path(struct dentry *lower_dir, struct vfsmount *lower_mnt, const struct qstr *name)
      : dir_(lower_dir), mnt_(lower_mnt), name_(name) {}
  /* A text that stays as it is. */
  explicit tarn_record_path(const char *text) : text_(text) {}
  ~tarn_record_path() {
    if (buf_) tarn_path_put(buf_);
    if (spare_) tarn_path_put(spare_);
  }
  tarn_record_path(const tarn_record_path &) = delete;
  tarn_record_path &operator=(const tarn_record_path &) = delete;

  /* Takes the path. Whether there is one: without memory there is none the first time. May sleep;
   * with `gfp` for its memory. */
  bool take(gfp_t gfp = GFP_KERNEL);
  /* What the record has for a path with its NUL; OX_PATH_MAX bytes if nothing is said. */
  void set_room(int bytes) { room_ = bytes; }
  /* There was no memory for it. */
  bool without_memory() const { return without_memory_; }
  /* Whether that has changed what get(), naming() and too_long() say. */
  bool changed() const { return changed_; }

  /* With its NUL at most OX_PATH_MAX bytes; null without a path. */
  const char *get() const { return text_; }
  enum ox_naming naming() const { return naming_; }
  /* The path has no room in the record; it may be that of a directory above then. */
  bool too_long() const { return too_long_; }

 private:
  void take_object();
  struct dentry *find_name(struct dentry *lower);
  void take_name(struct dentry *dir, struct vfsmount *mnt, const struct qstr *name);
  void take_above(struct dentry *dentry, struct vfsmount *mnt);

  struct dentry *dentry_ = nullptr;
  struct dentry *dir_ = nullptr;
  struct vfsmount *mnt_ = nullptr;
  const struct qstr *name_ = nullptr;
  bool in_place_ = false;
  char *buf_ = nullptr; /* holds text_ */
  char *spare_ = nullptr;
  const char *text_ = nullptr;
  enum ox_naming naming_ = OX_CP_NAMED;
  int room_ = OX_PATH_MAX;
  bool too_long_ = false;
  bool without_memory_ = false;
  bool changed_ = false;
};

/*
 * A rename or a link, from before its lower call until its records are numbered or the scope ends.
 * The directories of `lower`, the lower dentry that is to move or to be made, are locked meanwhile.
 */
class tarn_name_change {
 public:
  explicit tarn_name_change(struct dentry *lower);
  ~tarn_name_change() { end(); }
  tarn_name_change(const tarn_name_change &) = delete;
  tarn_name_change &operator=(const tarn_name_change &) = delete;

 private:
  friend class tarn_names;
  void end();
  void end_locked();
  bool has_happened_locked() const;
  bool waits_for_locked(const tarn_name_change &other) const;

  struct list_head list_; /* in names.changes */
  struct dentry *lower_;
  const struct dentry *parent_before_;
  const struct inode *inode_before_;
  unsigned name_len_;
  unsigned char name_[256];
};

/* Whether the numbers that are given out make paths of before untrue. */
enum tarn_names_effect {
  TARN_KEEPS_NAMES,
  TARN_CHANGES_NAMES /* a removal, a rename */
};

enum tarn_numbering {
  TARN_NUMBERED,
  TARN_NAMES_MOVED, /* the paths have to be taken again */
  TARN_NAMES_BUSY,  /* a change of names took too long: numbered, and to be given up */
};

/* The names that a record's paths are of, at the time when they are taken. */
class tarn_names {
 public:
  /* Before a path is taken. */
  tarn_names();
  void note();

  /*
   * Gives each of `count` records, from the last to the first and leaving out null ones, the next
   * number of its rule, if no change of names has been numbered since note(). `change`: the
   * caller's own, which ends with it; may be null. May sleep for a second.
   */
  enum tarn_numbering number(struct tarn_trans **records, int count, enum tarn_names_effect effect,
                             class tarn_name_change *change);

 private:
  static bool must_wait_locked(const class tarn_name_change *change);
  enum tarn_numbering try_number(struct tarn_trans **records, int count,
                                 enum tarn_names_effect effect, class tarn_name_change *change,
                                 bool last_try);
  unsigned seen_;
};

void tarn_names_init(void);

#endif
