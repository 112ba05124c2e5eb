// SPDX-License-Identifier: GPL-2.0
#include "path.h"

#include "ox_guard.h"
#include "tarn.h"
#include "trans.h"

namespace {

struct {
  spinlock_t lock;
  unsigned count;            // number of numbered changes of names
  struct list_head changes;  // tarn_name_change
} names;

// The longest time that a change of names may take from the kernel's dcache to its number.
constexpr int patience_jiffies = HZ;

// d_fsdata of another file system's dentry is not ours.
bool is_bound(const struct dentry *dentry) {
  return dentry->d_op == &tarn_dops && tarn_dentry(dentry) && tarn_lower_dentry(dentry) &&
         tarn_lower_mnt(dentry);
}

// Unhashed: look-ups do not find the dentry, but its object may still have the name.
bool is_dropped(struct dentry *dentry) {
  if (!d_unhashed(dentry)) return false;
  spin_guard guard(dentry->d_lock);  // d_move() may be in progress
  return !IS_ROOT(dentry) && d_unhashed(dentry);
}

bool is_at_or_below_locked(const struct dentry *dentry, const struct dentry *top) {
  while (dentry != top && !IS_ROOT(dentry)) dentry = dentry->d_parent;
  return dentry == top;
}

// The present place of an upper dentry: its name and its lower directory, which may be of another
// file system.
class own_place {
 public:
  explicit own_place(struct dentry *dentry) {
    {
      spin_guard guard(dentry->d_lock);
      parent_ = dget(dentry->d_parent);
      name_.len = min(dentry->d_name.len, static_cast<unsigned>(NAME_MAX));
      name_.hash = dentry->d_name.hash;
      memcpy(text_, dentry->d_name.name, name_.len);
    }
    text_[name_.len] = 0;
    name_.name = text_;
  }
  ~own_place() { dput(parent_); }
  own_place(const own_place &) = delete;
  own_place &operator=(const own_place &) = delete;

  struct dentry *lower_dir() const {
    return tarn_lower_dentry(parent_);
  }
  struct vfsmount *lower_mnt() const {
    return tarn_lower_mnt(parent_);
  }
  const struct qstr *name() const { return &name_; }
  bool has(struct dentry *lower) const {
    spin_guard guard(lower->d_lock);
    return !d_unhashed(lower) && lower->d_parent == lower_dir() && lower->d_name.len == name_.len &&
           !memcmp(lower->d_name.name, text_, name_.len);
  }
  // The place's lower dentry in the dcache, with a reference, or null.
  struct dentry *cached() {
    struct dentry *dir = lower_dir();
    if (dir->d_op && dir->d_op->d_hash && dir->d_op->d_hash(dir, &name_) < 0) return nullptr;
    return d_lookup(dir, &name_);
  }
  // Looks the place up in the lower file system; a dentry with a reference, or null.
  struct dentry *looked_up() const {
    struct dentry *dir = lower_dir();
    mutex_guard guard(dir->d_inode->i_mutex, I_MUTEX_PARENT);
    struct dentry *found =
        lookup_one_len(reinterpret_cast<const char *>(text_), dir, static_cast<int>(name_.len));
    return IS_ERR(found) ? nullptr : found;
  }

 private:
  struct dentry *parent_;
  struct qstr name_;
  unsigned char text_[NAME_MAX + 1];
};

// Returns `dentry` if it is a name of `inode`; otherwise drops its reference and returns null.
struct dentry *name_of(struct dentry *dentry, const struct inode *inode) {
  if (!dentry || (dentry->d_inode == inode && !is_dropped(dentry))) return dentry;
  dput(dentry);
  return nullptr;
}

// Any hashed alias of the inode below `top`, with a reference, or null.
struct dentry *find_alias(struct inode *inode, const struct dentry *top) {
  spin_guard guard(dcache_lock);
  struct dentry *alias;
  list_for_each_entry(alias, &inode->i_dentry, d_alias) {
    if (!IS_ROOT(alias) && !d_unhashed(alias) && is_at_or_below_locked(alias, top))
      return dget_locked(alias);
  }
  return nullptr;
}

bool has_no_name(const struct inode *inode) {
  return inode->i_nlink == 0 || IS_DEADDIR(inode);
}

}  // namespace

struct dentry *tarn_hold_name(struct dentry *dentry) {
  if (!is_bound(dentry) || !dentry->d_inode || !is_dropped(tarn_lower_dentry(dentry)))
    return nullptr;
  struct inode *inode = tarn_lower_inode(dentry->d_inode);
  if (has_no_name(inode)) return nullptr;
  own_place place(dentry);
  if (struct dentry *own = name_of(place.looked_up(), inode)) return own;
  return find_alias(inode, tarn_lower_mnt(dentry)->mnt_root);
}

bool tarn_is_in_place(struct dentry *dentry, struct dentry *lower) {
  const own_place place(dentry);
  return place.has(lower);
}

// ------------------------------------------------------------------------------------ paths

char *tarn_path_get(char **buf, struct dentry *dentry) {
  if (!is_bound(dentry)) return nullptr;
  char *page = static_cast<char *>(kmem_cache_alloc(names_cachep, GFP_KERNEL));
  if (!page) return nullptr;
  char *path = d_path(tarn_lower_dentry(dentry), tarn_lower_mnt(dentry), page, OX_PATH_MAX);
  if (IS_ERR(path)) {
    tarn_path_put(page);
    return nullptr;
  }
  *buf = page;
  return path;
}

int tarn_path_put(char *buf) {
  kmem_cache_free(names_cachep, buf);
  return 0;
}

bool tarn_record_path::take(gfp_t gfp) {
  changed_ = false;
  if (!dentry_ && !dir_) return text_ != nullptr;
  if (dentry_ && !is_bound(dentry_)) return false;
  if (!spare_) spare_ = static_cast<char *>(kmem_cache_alloc(names_cachep, gfp));
  const char *const before = spare_ ? text_ : nullptr;
  const enum ox_naming naming_before = naming_;
  const bool too_long_before = too_long_;
  if (spare_) {
    char *const spare = buf_;
    buf_ = spare_;
    spare_ = spare;
  }
  without_memory_ = !buf_;
  if (!buf_) return false;

  naming_ = OX_CP_NAMED;
  too_long_ = false;
  if (dentry_)
    take_object();
  else
    take_name(dir_, mnt_, name_);
  length_ = static_cast<unsigned>(end_ ? end_ - text_ : static_cast<long>(strlen(text_)));
  if (length_ >= static_cast<unsigned>(room_)) too_long_ = true;
  changed_ =
      !before || naming_ != naming_before || too_long_ != too_long_before || strcmp(text_, before);
  return true;
}

// Takes the path of the deepest parent directory that has room.
void tarn_record_path::take_above(struct dentry *dentry, struct vfsmount *mnt) {
  too_long_ = true;
  dentry = dget(dentry);
  do {
    struct dentry *parent = dget_parent(dentry);
    dput(dentry);
    dentry = parent;
    text_ = d_path(dentry, mnt, buf_, OX_PATH_MAX);
  } while (IS_ERR(text_) && !IS_ROOT(dentry));
  if (IS_ERR(text_)) text_ = "/"; /* the root's always fits */
  dput(dentry);
}

void tarn_record_path::take_object() {
  struct dentry *lower = tarn_lower_dentry(dentry_);
  struct vfsmount *mnt = tarn_lower_mnt(dentry_);
  for (;;) {
    struct dentry *at = dget(lower);
    end_ = nullptr;
    if (dentry_->d_inode && is_dropped(lower)) at = find_name(at);
    if (!at) return;
    text_ = d_path(at, mnt, buf_, OX_PATH_MAX);
    if (IS_ERR(text_))
      take_above(at, mnt);
    else if (naming_ == OX_CP_NAMED)
      end_ = buf_ + OX_PATH_MAX - 1;  // d_path() fills the buffer from its end
    // The path of a nameless object may be cut. If the dentry was unhashed since, d_path() may have
    // added " (deleted)": again.
    if (naming_ != OX_CP_NAMED) too_long_ = false;
    const bool again = naming_ == OX_CP_NAMED && dentry_->d_inode && is_dropped(at);
    dput(at);
    if (!again) return;
  }
}

// Finds another name of an unhashed lower dentry's object; takes over the reference. Returns a
// dentry of such a name; `lower` itself, with naming_ set, if there is none; null if the path has
// been taken.
struct dentry *tarn_record_path::find_name(struct dentry *lower) {
  struct inode *inode = tarn_lower_inode(dentry_->d_inode);
  own_place place(dentry_);
  struct dentry *name = place.cached();
  if (!name && in_place_ && !has_no_name(inode)) {
    dput(lower);
    take_name(place.lower_dir(), place.lower_mnt(), place.name());
    return nullptr;
  }
  name = name_of(name, inode);
  if (!name && !has_no_name(inode)) name = find_alias(inode, tarn_lower_mnt(dentry_)->mnt_root);
  if (name) {
    dput(lower);
    return name;
  }
  naming_ = has_no_name(inode) ? OX_CP_NAMELESS : OX_CP_UNPLACED;
  return lower;
}

// Builds the directory's path so that it ends where the name begins.
void tarn_record_path::take_name(struct dentry *dir, struct vfsmount *mnt,
                                 const struct qstr *name) {
  const int len = static_cast<int>(name->len);
  const int room = OX_PATH_MAX - len - 1;
  end_ = nullptr;
  text_ = room > 0 ? d_path(dir, mnt, buf_, room) : static_cast<char *>(ERR_PTR(-ENAMETOOLONG));
  if (IS_ERR(text_)) {
    text_ = d_path(dir, mnt, buf_, OX_PATH_MAX);
    too_long_ = true;
    if (IS_ERR(text_)) take_above(dir, mnt);
    return;
  }
  char *end = buf_ + room - 1;
  if (end == text_ + 1) --end;  // below "/"
  *end++ = '/';
  memcpy(end, name->name, len);
  end[len] = 0;
  end_ = end + len;
}

// -------------------------------------------------------------------------- order of names

tarn_name_change::tarn_name_change(struct dentry *lower)
    : lower_(lower), parent_before_(lower->d_parent), inode_before_(lower->d_inode) {
  name_len_ = min(lower->d_name.len, static_cast<unsigned>(sizeof(name_)));
  memcpy(name_, lower->d_name.name, name_len_);
  spin_guard guard(names.lock);
  list_add_tail(&list_, &names.changes);
}

void tarn_name_change::end() {
  spin_guard guard(names.lock);
  end_locked();
}

void tarn_name_change::end_locked() {
  list_del_init(&list_);
}

bool tarn_name_change::has_happened_locked() const {
  return lower_->d_parent != parent_before_ || lower_->d_inode != inode_before_ ||
         lower_->d_name.len != name_len_ || memcmp(lower_->d_name.name, name_, name_len_);
}

// Of two renames that have happened but are not numbered, the one whose directories the other has
// moved is numbered second; a link is numbered after any rename. So no two wait for each other.
bool tarn_name_change::waits_for_locked(const tarn_name_change &other) const {
  if (!other.inode_before_) return false;
  if (!inode_before_) return true;
  return is_at_or_below_locked(lower_->d_parent, other.lower_) ||
         is_at_or_below_locked(parent_before_, other.lower_);
}

tarn_names::tarn_names() {
  note();
}

void tarn_names::note() {
  seen_ = __atomic_load_n(&names.count, __ATOMIC_ACQUIRE);
}

/* The change has its numbers, or needs none. */
void tarn_names::pass_locked(enum tarn_names_effect effect, tarn_name_change *change) {
  if (change) change->end_locked();
  if (effect == TARN_CHANGES_NAMES)
    __atomic_store_n(&names.count, names.count + 1, __ATOMIC_RELEASE);
}

void tarn_names::pass(enum tarn_names_effect effect, tarn_name_change *change) {
  spin_guard guard(names.lock);
  pass_locked(effect, change);
}

bool tarn_names::must_wait_locked(const tarn_name_change *change) {
  if (list_empty(&names.changes)) return false;
  spin_guard guard(dcache_lock);
  tarn_name_change *other;
  list_for_each_entry(other, &names.changes, list_) {
    if (other != change && other->has_happened_locked() &&
        (!change || change->waits_for_locked(*other)))
      return true;
  }
  return false;
}

enum tarn_numbering tarn_names::try_number(struct tarn_trans **records, int count,
                                           enum tarn_names_effect effect, tarn_name_change *change,
                                           bool last_try) {
  spin_guard guard(names.lock);
  enum tarn_numbering result = TARN_NUMBERED;
  if (names.count != seen_)
    result = TARN_NAMES_MOVED;
  else if (must_wait_locked(change))
    result = TARN_NAMES_BUSY;
  if (result != TARN_NUMBERED && !last_try) return result;
  for (int i = count - 1; i >= 0; --i) {
    if (records[i]) records[i]->seq = atomic_inc_return(&records[i]->r->transnr);
  }
  pass_locked(effect, change);
  return result == TARN_NUMBERED ? TARN_NUMBERED : TARN_NAMES_BUSY;
}

enum tarn_numbering tarn_names::number(struct tarn_trans **records, int count,
                                       enum tarn_names_effect effect, tarn_name_change *change) {
  for (int left = patience_jiffies;; --left) {
    const enum tarn_numbering result = try_number(records, count, effect, change, left == 0);
    if (result != TARN_NAMES_BUSY || left == 0) return result;
    schedule_timeout_uninterruptible(1);
  }
}

void tarn_names_init(void) {
  spin_lock_init(&names.lock);
  names.count = 0;
  INIT_LIST_HEAD(&names.changes);
}
