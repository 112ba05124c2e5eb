/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Shared by the record builders in capture_*.cc: the paths of a change, the rules that it hits, and
 * a numbered record for each.
 */
#ifndef TARN_CAPTURE_H
#define TARN_CAPTURE_H

#include "netlink.h"
#include "ox_guard.h"
#include "trans.h"

/* The paths of one change, and the count of name changes at which they were taken. */
class change_paths {
 public:
  change_paths(tarn_record_path &first, tarn_record_path *second, tarn_names &names)
      : first_(first), second_(second), names_(names) {}

  const tarn_record_path &first() const { return first_; }
  const char *path1() const { return first_.get(); }
  const char *path2() const { return second_ ? second_->get() : nullptr; }
  struct prule_path text1() const {
    return {first_.get(), first_.length()};
  }
  struct prule_path text2() const {
    return second_ ? prule_path{second_->get(), second_->length()} : prule_path{nullptr, 0};
  }
  bool too_long() const { return first_.too_long() || (second_ && second_->too_long()); }

  /* Takes the paths. False if one is missing. */
  bool take(gfp_t gfp = GFP_KERNEL) {
    names_.note();
    const bool first = first_.take(gfp);
    return (!second_ || second_->take(gfp)) && first;
  }
  bool without_memory() const {
    return first_.without_memory() || (second_ && second_->without_memory());
  }
  bool changed() const { return first_.changed() || (second_ && second_->changed()); }

  bool hits(const struct prule_node *rule) const { return prule_is_hit(rule, path1(), path2()); }

  /* Numbers the records (see tarn_names::number). Takes the paths again if names have changed;
   * returns TARN_NAMES_MOVED if these paths have. */
  enum tarn_numbering number(struct tarn_trans **records, int count, enum tarn_names_effect effect,
                             tarn_name_change *change);

 private:
  tarn_record_path &first_;
  tarn_record_path *second_;
  tarn_names &names_;
};

/* Takes the paths for the first time. False if nothing can be captured. */
bool capture_paths(change_paths &paths, gfp_t gfp = GFP_KERNEL);
/* Finds the rules that the paths hit. Returns their number or -ENOMEM. */
int capture_hits(struct hit_rules **hits, const change_paths &paths, gfp_t gfp = GFP_KERNEL);

/* Reasons for a number without a record. */
extern const char capture_too_long[];
extern const char capture_busy[];
/* Logs that the record of this number is left out. The daemon sees the gap in the numbers. */
void capture_leave_out(const struct prule_node *rule, int number, const char *why,
                       const char *path);
/* The same with the rule's next number. */
void capture_leave_out_next(struct prule_node *rule, const char *why, const char *path);
/* Frees a record that is to be built again, without counting it as captured. Its reference on the
 * rule returns to the caller. */
void capture_discard(struct tarn_trans *trans);
/* Stops the rule; -ENOMEM. */
int capture_failed(struct prule_node *rule, const char *failure);

/* Builds and sends the record for one rule; takes over the caller's reference. */
template <typename Make>
int serve_hit(struct prule_node *hit, change_paths &paths, const char *failure, Make make) {
  prule_ref rule(hit);
  for (;;) {
    if (paths.too_long()) {
      capture_leave_out_next(rule.get(), capture_too_long, paths.path1());
      return 0;
    }
    struct tarn_trans *trans = make(rule.get());
    if (!trans) return capture_failed(rule.get(), failure);
    const enum tarn_numbering numbering = paths.number(&trans, 1, TARN_KEEPS_NAMES, nullptr);
    if (numbering == TARN_NUMBERED) {
      tarn_trans_commit(trans, rule.release());
      return 0;
    }
    const int number = trans->seq;
    capture_discard(trans);
    if (numbering == TARN_NAMES_BUSY) {
      capture_leave_out(rule.get(), number, capture_busy, paths.path1());
      return 0;
    }
    /* After the rename the rule no longer includes the object; the rename's record tells that. */
    if (!paths.hits(rule.get())) return 0;
  }
}

/*
 * Makes and sends a record for each hit, from the last to the first, and frees the array.
 * `make(rule)` returns the record, or null: then the rule is stopped and the result is -ENOMEM, but
 * the others are served.
 */
template <typename Make>
int serve_hits(struct hit_rules *hits, int count, change_paths &paths, const char *failure,
               Make make) {
  kmem_owner<struct hit_rules> array(hit_rule_cache, hits);
  int result = 0;
  for (int i = count - 1; i >= 0; --i) {
    struct prule_node *rule = hits->arr[i];
    if (ox_load(rule->status) == PRULE_STOPPED) {
      tarn_send_stop_rule(rule->rule.uuid);
      prule_node_put(rule);
    } else if (serve_hit(rule, paths, failure, make)) {
      result = -ENOMEM;
    }
  }
  return result;
}

/* Captures a change of one object: takes its path, finds the hits and serves them. Returns the
 * builders' result (trans.h). */
template <typename Make>
int capture_change(tarn_record_path &path, const char *failure, Make make) {
  if (prule_set_is_empty()) return 0;
  tarn_names names;
  change_paths paths(path, nullptr, names);
  if (!capture_paths(paths)) return 0;
  struct hit_rules *hits;
  const int count = capture_hits(&hits, paths);
  if (count < 0) return count;
  return serve_hits(hits, count, paths, failure, make);
}

#endif
