// SPDX-License-Identifier: GPL-2.0
/* Records of writes. */

#include "capture.h"
#include "ox_types.h"

namespace {

/* The parameters of one write. */
struct write_source {
  const char *path;
  enum ox_naming naming;
  ox_u32_t path_len;   /* with its NUL */
  ox_u32_t path_field; /* rounded up to a multiple of 8 */
  const char __user *buf;
  size_t count;
  loff_t offset;

  write_source(const tarn_record_path &at, const char __user *from, size_t bytes, loff_t start)
      : path(at.get()),
        naming(at.naming()),
        path_len(at.length() + 1),
        path_field((path_len + 7) & ~7u),
        buf(from),
        count(bytes),
        offset(start) {}

  /* The number of data bytes that fit after the path. */
  ox_u32_t first_room() const { return OX_PAGE_DATA - path_field; }
  bool is_whole() const { return static_cast<ox_u32_t>(count) <= first_room(); }
  size_t page_count() const {
    return is_whole() ? 1 : 1 + (count - first_room() + OX_PAGE_DATA - 1) / OX_PAGE_DATA;
  }
  /* Writes the path field of a record, padded with zeros. */
  void put_path(char *field) const {
    memset(field + path_field - 8, 0, 8);
    memcpy(field, path, path_len);
  }
};

/* Fills one page message with the bytes from `done` on. Returns their number, or -EFAULT. */
int fill_page(const struct tarn_trans *trans, struct sk_buff *skb, const write_source &source,
              int index, size_t done) {
  const struct ox_msg_wr *whole = trans_wr(trans);
  struct ox_msg_wr *page = reinterpret_cast<struct ox_msg_wr *>(skb->data + OX_NLMSG_HDRLEN);
  memset(skb->data, 0, OX_NLMSG_HDRLEN);
  memcpy(static_cast<void *>(page), whole, OX_MSG_WR_LEN);
  page->dlen1 = index == 0 ? whole->dlen1 : 0;
  if (index == 0) source.put_path(page->data);

  const ox_u32_t room = OX_PAGE_DATA - page->dlen1;
  const ox_u32_t bytes =
      source.count - done < room ? static_cast<ox_u32_t>(source.count - done) : room;
  page->dlen2 = bytes;
  page->off = static_cast<ox_u64_t>(source.offset) + done;
  page->pagenr = static_cast<ox_u32_t>(index);
  char *data = page->data + page->dlen1;
  if (copy_from_user(data, source.buf + done, bytes)) return -EFAULT;
  if (bytes < room) memset(data + bytes, 0, room - bytes); /* the last page has its full size */
  return static_cast<int>(bytes);
}

void free_pages_down(struct sk_buff **pages, int last) {
  for (int i = last; i >= 0; --i) kfree_skb(pages[i]);
}

/* Makes all page messages of a paged write. Returns 0, or -ENOMEM or -EFAULT with none left. */
int trans_allocpages(struct tarn_trans *trans, const write_source &source) {
  struct sk_buff **pages = trans_pages(trans);
  memset(pages, 0, trans->pages * sizeof(*pages));
  size_t done = 0;
  for (int i = 0; i < trans->pages; ++i) {
    struct sk_buff *skb = alloc_skb(OX_NLMSG_HDRLEN + OX_PAGE_PAYLOAD, GFP_KERNEL);
    if (!skb) {
      free_pages_down(pages, i - 1);
      return -ENOMEM;
    }
    skb_put(skb, OX_NLMSG_HDRLEN + OX_PAGE_PAYLOAD);
    pages[i] = skb;
    const int bytes = fill_page(trans, skb, source, i, done);
    if (bytes < 0) {
      free_pages_down(pages, i);
      return bytes;
    }
    done += bytes;
  }
  return 0;
}

/* Copies the data into the record or its pages. Returns 0 or a negative error, which is logged. */
int put_data(struct tarn_trans *trans, const write_source &source) {
  struct ox_msg_wr *wr = trans_wr(trans);
  if (wr->type == OX_WRITE_WHOLE) {
    if (!copy_from_user(wr->data + wr->dlen1, source.buf, source.count)) return 0;
    printk("tarn_wrtrans_alloc: Copy from user failed\n");
    return -EFAULT;
  }
  const int result = trans_allocpages(trans, source);
  if (result) printk("tarn_wrtrans_alloc: trans_allocpages failed, rc=%d\n", result);
  return result;
}

/* Builds the record of a write for one rule; null on failure. */
struct tarn_trans *tarn_wrtrans_alloc(struct prule_node *rule, const write_source &source) {
  const size_t pages = source.page_count();
  if (pages > 0x7FFFFFFF) return nullptr;
  const ox_u64_t size = source.is_whole()
                            ? TARN_TRANS_FIELDS + OX_MSG_WR_LEN + source.path_field + source.count
                            : trans_pages_at(source.path_field) + pages * sizeof(struct sk_buff *);
  ox_owner<struct tarn_trans, ox_free> trans(
      static_cast<struct tarn_trans *>(ox_malloc(size, GFP_KERNEL)));
  if (!trans) return nullptr;

  struct ox_msg_wr *wr = trans_wr(trans.get());
  memset(wr, 0, OX_MSG_WR_LEN);
  wr->cp = source.naming;
  trans->pages = static_cast<int>(pages);
  wr->type = source.is_whole() ? OX_WRITE_WHOLE : OX_WRITE_PAGED;
  wr->dlen1 = static_cast<ox_u16_t>(source.path_field);
  wr->dlen2 = static_cast<ox_u32_t>(source.count);
  wr->pages = static_cast<ox_u32_t>(pages);
  wr->off = static_cast<ox_u64_t>(source.offset);
  source.put_path(wr->data);
  trans_init(trans.get(), rule, OX_OP_WRITE);
  trans->wr_size = static_cast<int>(source.count);
  mem_buff_add(trans.get());
  /* If the data cannot be copied, the charge is not undone. */
  return put_data(trans.get(), source) ? nullptr : trans.release();
}

}  // namespace

int tarn_write_sync(struct dentry *dentry, const char __user *buf, size_t count, loff_t offset) {
  tarn_record_path path(dentry);
  /* A path that fills the first page on its own cannot be sent. */
  path.set_room(OX_PAGE_DATA & ~7);
  return capture_change(path, "tarn_write_sync: tarn_wrtrans_alloc fail\n",
                        [&](struct prule_node *rule) {
                          return tarn_wrtrans_alloc(rule, {path, buf, count, offset});
                        });
}
