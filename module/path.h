/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The paths in records, and their consistency with the records' numbers.
 *
 * A path is not a file. A lower dentry may be unhashed although its file still has the name (after
 * link(2), or an umount), or because the file lost it. So a path comes with its relation to the
 * object (enum ox_naming): it is the object's name, that of the dentry or of another alias, or a
 * mere text.
 *
 * A path is valid at a moment. The guarantee: a record that is numbered before the record of a
 * change of names has the path from before the change, one that is numbered after it has the path
 * from after it. For this, changes of names are counted when they are numbered. A capture notes the
 * count before it takes its paths. Numbers are assigned under names.lock, and only if the count is
 * unchanged; otherwise the paths are taken again. A rename or a link changes the dcache a moment
 * before it is numbered: it is registered (tarn_name_change) from before its lower call until it is
 * numbered, and no other record is numbered in between. That window contains no send, no lock of a
 * lower object that others hold while they wait, and no allocation that could re-enter writepage. A
 * record that waits longer than a second is given up, and its number stands for the loss.
 *
 * Locks: names.lock (a spin lock), and inside it dcache_lock. Taking a path sleeps only where said.
 */
#ifndef TARN_PATH_H
#define TARN_PATH_H

#include "kernel.h"
#include "ox_msg.h"

struct tarn_trans;

/*
 * Returns the lower path of a dentry, inside the buffer *buf that the caller frees with
 * tarn_path_put; null, with nothing to free, if there is none.
 */
[[nodiscard]] char *tarn_path_get(char **buf, struct dentry *dentry);
int tarn_path_put(char *buf);

/* The lower path of a dentry; null if there is none. Frees its buffer. */
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
 * For an upper dentry whose lower one is unhashed: returns a lower dentry that names its object
 * while the caller holds the reference, an alias or the result of looking up the upper dentry's
 * name. Null if none is needed or found. Takes the lower directory's i_mutex and may sleep: no
 * lower lock may be held.
 */
[[nodiscard]] struct dentry *tarn_hold_name(struct dentry *dentry);

/* Is the lower dentry hashed under the upper one's name? */
bool tarn_is_in_place(struct dentry *dentry, struct dentry *lower);

/* One path of a record, which can be taken again. */
class tarn_record_path {
 public:
  /* No path. */
  tarn_record_path() = default;
  /* The path of an upper dentry's object, at its present place. */
  explicit tarn_record_path(struct dentry *dentry) : dentry_(dentry) {}
  /* With `in_place` (tarn_is_in_place, before the lower call): that dentry's own name and no other
   * of the object, unless the dcache has another object there. */
  tarn_record_path(struct dentry *dentry, bool in_place) : dentry_(dentry), in_place_(in_place) {}
  /* The path of a name in a lower directory, whatever object has it now. The directory's i_mutex is
   * held. */
  tarn_record_path(struct dentry *lower_dir, struct vfsmount *lower_mnt, const struct qstr *name)
      : dir_(lower_dir), mnt_(lower_mnt), name_(name) {}
  /* A constant text. */
  explicit tarn_record_path(const char *text)
      : text_(text), length_(text ? static_cast<unsigned>(strlen(text)) : 0) {}
  ~tarn_record_path() {
    if (buf_) tarn_path_put(buf_);
    if (spare_) tarn_path_put(spare_);
  }
  tarn_record_path(const tarn_record_path &) = delete;
  tarn_record_path &operator=(const tarn_record_path &) = delete;

  /* Takes the path, allocating with `gfp`; false if there is none. Lack of memory fails only the
   * first call. May sleep. */
  bool take(gfp_t gfp = GFP_KERNEL);
  /* The record's room for the path with its NUL; default: OX_PATH_MAX bytes. */
  void set_room(int bytes) { room_ = bytes; }
  /* The last take() had no memory for it. */
  bool without_memory() const { return without_memory_; }
  /* Did the last take() change the result of get(), naming() or too_long()? */
  bool changed() const { return changed_; }

  /* At most OX_PATH_MAX bytes with its NUL; null without a path. */
  const char *get() const { return text_; }
  /* Without its NUL. */
  unsigned length() const { return length_; }
  enum ox_naming naming() const { return naming_; }
  /* The path does not fit the record; get() may be the path of a parent directory. */
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
  const char *end_ = nullptr; /* its NUL, if that is known */
  unsigned length_ = 0;
  enum ox_naming naming_ = OX_CP_NAMED;
  int room_ = OX_PATH_MAX;
  bool too_long_ = false;
  bool without_memory_ = false;
  bool changed_ = false;
};

/*
 * Registers a rename or a link from before its lower call until its records are numbered or the
 * scope ends. The directories of `lower`, the lower dentry to be renamed or linked, are locked all
 * the time.
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

/* Do the numbered records invalidate paths taken before? */
enum tarn_names_effect {
  TARN_KEEPS_NAMES,
  TARN_CHANGES_NAMES /* a removal, a rename */
};

enum tarn_numbering {
  TARN_NUMBERED,
  TARN_NAMES_MOVED, /* names have changed: take the paths again */
  TARN_NAMES_BUSY,  /* a change of names took too long: numbered, but the record must be given up */
};

/* The count of name changes at which a record's paths are taken. */
class tarn_names {
 public:
  /* Notes the count; before a path is taken. */
  tarn_names();
  void note();

  /*
   * Assigns the next number of its rule to each of `count` records, from the last to the first,
   * except null ones, if no change of names has been numbered since note(). `change`: the caller's
   * own, ended by the call; may be null. May sleep for a second.
   */
  enum tarn_numbering number(struct tarn_trans **records, int count, enum tarn_names_effect effect,
                             class tarn_name_change *change);

  /* For a change of names without records: ends `change`, which may be null. A record whose paths
   * were taken before, for a rule that has just been added, takes them again. */
  static void pass(enum tarn_names_effect effect, class tarn_name_change *change);

 private:
  static void pass_locked(enum tarn_names_effect effect, class tarn_name_change *change);
  static bool must_wait_locked(const class tarn_name_change *change);
  enum tarn_numbering try_number(struct tarn_trans **records, int count,
                                 enum tarn_names_effect effect, class tarn_name_change *change,
                                 bool last_try);
  unsigned seen_;
};

void tarn_names_init(void);

#endif
