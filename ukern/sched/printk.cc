// SPDX-License-Identifier: GPL-2.0
// The kernel log: a ring of the last lines. A line ends at its newline. The next printk, of any
// task, continues text without one, as in a kernel's log buffer.
#include <linux/jiffies.h>
#include <linux/kernel.h>
#include <linux/spinlock.h>
#include <linux/string.h>

#include "ukern/host/host.h"
#include "ukern/sched/printk.h"
#include "ukern/sync/guard.h"

namespace {

constexpr unsigned kLines = 8192;
constexpr unsigned long kBytes = 1UL << 20;
constexpr unsigned kLineMax = 1024;
constexpr unsigned kDefaultLevel = 4;

struct Line {
  unsigned long long us;
  unsigned long long start;  // of its text, counted from boot: byte n is at n % kBytes
  unsigned level, len;
};

// log_word protects all of these. The ring has lines first_line to next_line - 1.
volatile unsigned int log_word;
Line lines[kLines];
char bytes[kBytes];
unsigned long long first_line, next_line, next_byte;

char partial[kLineMax];
unsigned partial_len, partial_level;
bool at_line_start = true;

// State of printk_ratelimit's token bucket.
bool limited;
unsigned long limited_at, saved_ticks, suppressed;

// Incremented for every line; readers wait on it.
volatile unsigned int log_version;

void drop_overrun() {
  while (first_line < next_line && (next_line - first_line >= kLines ||
                                    lines[first_line % kLines].start + kBytes < next_byte))
    first_line++;
}

void end_line() {
  Line *line = &lines[next_line % kLines];
  drop_overrun();
  line->us = static_cast<unsigned long long>(host_wall_ns()) / 1000;
  line->start = next_byte;
  line->level = partial_level;
  line->len = partial_len;
  for (unsigned i = 0; i < partial_len; i++) bytes[next_byte++ % kBytes] = partial[i];
  next_line++;
  drop_overrun();
  partial_len = 0;
  at_line_start = true;
}

bool has_level(const char *text) {
  return text[0] == '<' && text[1] >= '0' && text[1] <= '7' && text[2] == '>';
}

// Escapes control characters: an argument may be a name chosen by a user, which must not end a
// line, control a terminal or push the newline out of the buffer. Only the final newline stays. A
// format of several lines is not escaped.
void escape(const char *fmt, char *text, unsigned long size) {
  const char *inner = strchr(fmt, '\n');
  if (inner && inner[1]) return;
  const unsigned long length = strlen(text);
  const bool ends = inner || (length && text[length - 1] == '\n');
  char out[kLineMax];
  unsigned long n = 0;
  for (const char *from = text; *from && n + 6 < size; from++) {
    const auto c = static_cast<unsigned char>(*from);
    if (c == '\n' && !from[1]) break;
    if (c == '\t' || (c >= 0x20 && c != 0x7f))
      out[n++] = *from;
    else
      n += static_cast<unsigned long>(sprintf(out + n, "\\%03o", c));
  }
  if (ends) out[n++] = '\n';
  out[n] = 0;
  memcpy(text, out, n + 1);
}

// Returns the number of characters besides those of the text: a default level counts as printed.
int add_text(const char *text, bool *line_ended) {
  int added = 0;
  for (; *text; text++) {
    if (at_line_start) {
      at_line_start = false;
      partial_level = kDefaultLevel;
      if (has_level(text)) {
        partial_level = static_cast<unsigned>(text[1] - '0');
        text += 3;
        if (!*text) break;
      } else {
        added += 3;
      }
    }
    if (*text == '\n') {
      end_line();
      *line_ended = true;
    } else if (partial_len < kLineMax) {
      partial[partial_len++] = *text;
    }
  }
  return added;
}

bool read_line(unsigned long long from, klog_line *line, char *text, unsigned long size) {
  if (from < first_line) from = first_line;
  if (from >= next_line) return false;
  const Line *found = &lines[from % kLines];
  line->number = from;
  line->us = found->us;
  line->level = found->level;
  line->len = found->len;
  if (!size) return true;
  unsigned long i = 0;
  for (; i < found->len && i + 1 < size; i++) text[i] = bytes[(found->start + i) % kBytes];
  text[i] = 0;
  return true;
}

}  // namespace

extern "C" {

int vprintk(const char *fmt, va_list args) {
  char text[kLineMax];
  int printed = vscnprintf(text, sizeof(text), fmt, args);
  escape(fmt, text, sizeof(text));
  bool line_ended = false;
  {
    WordGuard guard(log_word);
    printed += add_text(text, &line_ended);
  }
  if (line_ended) {
    __atomic_add_fetch(&log_version, 1, __ATOMIC_RELEASE);
    host_wake(&log_version, INT_MAX);
  }
  return printed;
}

int printk(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int printed = vprintk(fmt, args);
  va_end(args);
  return printed;
}

// One line every five seconds, in bursts of up to ten.
int printk_ratelimit(void) {
  const unsigned long per_line = 5 * HZ, most = 10 * per_line;
  unsigned long told = 0;

  {
    WordGuard guard(log_word);
    const unsigned long now = jiffies;
    saved_ticks = limited ? min(saved_ticks + (now - limited_at), most) : most;
    limited = true;
    limited_at = now;
    if (saved_ticks < per_line) {
      suppressed++;
      return 0;
    }
    saved_ticks -= per_line;
    told = suppressed;
    suppressed = 0;
  }
  if (told) printk(KERN_WARNING "printk: %lu messages suppressed.\n", told);
  return 1;
}

void ukern_printk_reset(void) {
  WordGuard guard(log_word);
  first_line = next_line = next_byte = 0;
  partial_len = 0;
  at_line_start = true;
  limited = false;
  suppressed = 0;
}

int klog_read(unsigned long long from, unsigned wait_ms, struct klog_line *line, char *text,
              unsigned long size) {
  const long long deadline = host_clock_ns() + wait_ms * 1000000LL;
  for (;;) {
    const unsigned int version = __atomic_load_n(&log_version, __ATOMIC_ACQUIRE);
    {
      WordGuard guard(log_word);
      if (read_line(from, line, text, size)) return 1;
    }
    const long long left = deadline - host_clock_ns();
    if (left <= 0) return 0;
    host_wait(&log_version, version, left);
  }
}
}
