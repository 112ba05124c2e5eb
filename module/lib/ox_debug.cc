// SPDX-License-Identifier: GPL-2.0
#include "ox_guard.h"
#include "ox_types.h"

struct file *g_debug_fd;

namespace {

const int g_debug_level = OX_LOG_TRACE;
const int kLineLen = 948;

const char *level_tag(int level) {
  static const char *const tags[] = {"F", "E", "W", "I", "T"};
  return tags[level < 0 ? 0 : level]; /* negative levels count as the most severe */
}

const char *base_name(const char *file) {
  const char *slash = strrchr(file, '/');
  return slash ? slash + 1 : file;
}

ssize_t write_debug_file(const char *text, size_t count) {
  kernel_ds_guard kernel_addresses;
  ssize_t written;
  do {
    written = g_debug_fd->f_op->write(g_debug_fd, text, count, &g_debug_fd->f_pos);
  } while (written == -EINTR);
  return written;
}

/*
 * Writes a line of its untruncated length `count`, of which only `have` bytes were formatted; the
 * rest is zero bytes.
 */
ssize_t write_overlong(const char *text, size_t have, size_t count) {
  ox_owner<char, kfree> line(static_cast<char *>(kzalloc(count, GFP_KERNEL)));
  if (!line) return write_debug_file(text, have);
  memcpy(line.get(), text, have);
  return write_debug_file(line.get(), count);
}

}  // namespace

int ox_debug_init(const char *path) {
  if (g_debug_fd) return 0;
  g_debug_fd = filp_open(path, O_RDWR | O_CREAT | O_APPEND | O_LARGEFILE, 0666);
  return IS_ERR(g_debug_fd) ? static_cast<int>(PTR_ERR(g_debug_fd)) : 0;
}

int ox_debug_exit(void) {
  if (!g_debug_fd) return -EINVAL;
  /* A failed open has left an error pointer. */
  if (!IS_ERR(g_debug_fd)) filp_close(g_debug_fd, nullptr);
  g_debug_fd = nullptr;
  return 0;
}

ssize_t ox_log(int level, const char *file, int line, const char *func, const char *fmt, ...) {
  if (level > g_debug_level) return 0;
  struct timeval now;
  do_gettimeofday(&now);
  const unsigned long long us =
      static_cast<unsigned long long>(now.tv_sec) * 1000000 + static_cast<unsigned>(now.tv_usec);

  char text[kLineLen];
  const int head = snprintf(text, sizeof(text), "%s[%llu][%d]%s:%d:%s:", level_tag(level), us,
                            current->pid, base_name(file), line, func);
  const int used = min(head, kLineLen);
  va_list args;
  va_start(args, fmt);
  const int body = vsnprintf(text + used, kLineLen - used, fmt, args);
  va_end(args);

  const size_t count = static_cast<size_t>(head) + body;
  /* The last byte of a truncated line is the formatter's NUL. */
  if (count >= sizeof(text)) return write_overlong(text, sizeof(text), count);
  return write_debug_file(text, count);
}
