// SPDX-License-Identifier: GPL-2.0
// Formatted text with the kernel's own set of conversions: no floating point, %p as sixteen digits,
// %s of a bad pointer as <NULL>, an unknown conversion verbatim.
#include <linux/ctype.h>
#include <linux/kernel.h>
#include <linux/string.h>
#include <asm/page.h>

namespace {

enum Flags : unsigned {
  kZero = 1,
  kSigned = 2,
  kPlus = 4,
  kSpace = 8,
  kLeft = 16,
  kPrefix = 32,
  kUpper = 64,
};

// Counts all characters, stores those that fit.
struct Out {
  char *start, *at, *end;

  void put(char c) {
    if (at < end) *at = c;
    ++at;
  }
  void pad(char c, int count) {
    while (count-- > 0) put(c);
  }
};

struct Conversion {
  unsigned flags;
  int width;      // -1: none
  int precision;  // -1: none
  char length;    // 'h', 'l', 'L', 'z', 't' or 0
};

int read_number(const char **fmt) {
  int value = 0;
  while (isdigit(static_cast<unsigned char>(**fmt))) value = value * 10 + *(*fmt)++ - '0';
  return value;
}

char sign_of(unsigned long long *value, unsigned flags) {
  if (!(flags & kSigned)) return 0;
  if (static_cast<long long>(*value) < 0) {
    *value = 0 - *value;
    return '-';
  }
  if (flags & kPlus) return '+';
  return flags & kSpace ? ' ' : 0;
}

void put_integer(Out *out, unsigned long long value, unsigned base, const Conversion &how) {
  unsigned flags = how.flags;
  if (flags & kLeft) flags &= ~kZero;
  const char *digits = flags & kUpper ? "0123456789ABCDEFX" : "0123456789abcdefx";
  const char sign = sign_of(&value, flags);

  char text[24];
  int count = 0;
  do {
    text[count++] = digits[value % base];
    value /= base;
  } while (value);
  const int shown = how.precision > count ? how.precision : count;

  int room = how.width - shown - (sign ? 1 : 0);
  if (flags & kPrefix) room -= base == 16 ? 2 : base == 8 ? 1 : 0;

  if (!(flags & (kZero | kLeft))) {
    out->pad(' ', room);
    room = 0;
  }
  if (sign) out->put(sign);
  if ((flags & kPrefix) && base != 10) out->put('0');
  if ((flags & kPrefix) && base == 16) out->put(digits[16]);
  if (flags & kZero) {
    out->pad('0', room);
    room = 0;
  }
  out->pad('0', shown - count);
  while (count) out->put(text[--count]);
  out->pad(' ', room);
}

void put_string(Out *out, const char *text, const Conversion &how) {
  if (reinterpret_cast<unsigned long>(text) < PAGE_SIZE) text = "<NULL>";
  const int length =
      static_cast<int>(strnlen(text, static_cast<size_t>(static_cast<long>(how.precision))));
  if (!(how.flags & kLeft)) out->pad(' ', how.width - length);
  for (int i = 0; i < length; i++) out->put(text[i]);
  if (how.flags & kLeft) out->pad(' ', how.width - length);
}

void put_char(Out *out, char c, const Conversion &how) {
  if (!(how.flags & kLeft)) out->pad(' ', how.width - 1);
  out->put(c);
  if (how.flags & kLeft) out->pad(' ', how.width - 1);
}

// va_list is an array type; in a structure, several functions can consume the same list.
struct Arguments {
  va_list list;
};

unsigned long long take_integer(Arguments *args, const Conversion &how) {
  const bool is_signed = how.flags & kSigned;
  switch (how.length) {
    case 'L':
      return va_arg(args->list, unsigned long long);
    case 'l':
    case 'z':
    case 't':
      return va_arg(args->list, unsigned long);
    case 'h': {
      const int value = va_arg(args->list, int);
      return is_signed ? static_cast<unsigned long long>(static_cast<short>(value))
                       : static_cast<unsigned short>(value);
    }
    default: {
      const int value = va_arg(args->list, int);
      return is_signed ? static_cast<unsigned long long>(value) : static_cast<unsigned>(value);
    }
  }
}

void store_count(Arguments *args, const Conversion &how, long count) {
  if (how.length == 'l' || how.length == 'z')
    *va_arg(args->list, long *) = count;
  else
    *va_arg(args->list, int *) = static_cast<int>(count);
}

const char *parse_flags(const char *fmt, Conversion *how) {
  for (;; ++fmt) {
    switch (*fmt) {
      case '-':
        how->flags |= kLeft;
        break;
      case '+':
        how->flags |= kPlus;
        break;
      case ' ':
        how->flags |= kSpace;
        break;
      case '#':
        how->flags |= kPrefix;
        break;
      case '0':
        how->flags |= kZero;
        break;
      default:
        return fmt;
    }
  }
}

// Parses up to the conversion letter. Returns a pointer to that.
const char *parse(const char *fmt, Conversion *how, Arguments *args) {
  *how = {.flags = 0, .width = -1, .precision = -1, .length = 0};
  fmt = parse_flags(fmt, how);
  if (isdigit(static_cast<unsigned char>(*fmt))) {
    how->width = read_number(&fmt);
  } else if (*fmt == '*') {
    ++fmt;
    how->width = va_arg(args->list, int);
    if (how->width < 0) {
      how->width = -how->width;
      how->flags |= kLeft;
    }
  }
  if (*fmt == '.') {
    ++fmt;
    how->precision = 0;
    if (isdigit(static_cast<unsigned char>(*fmt))) {
      how->precision = read_number(&fmt);
    } else if (*fmt == '*') {
      ++fmt;
      how->precision = va_arg(args->list, int);
    }
    if (how->precision < 0) how->precision = 0;
  }
  if (*fmt && strchr("hlLZzt", *fmt)) {
    how->length = *fmt == 'Z' ? 'z' : *fmt;
    ++fmt;
    if (how->length == 'l' && *fmt == 'l') {
      how->length = 'L';
      ++fmt;
    }
  }
  return fmt;
}

void put_pointer(Out *out, Arguments *args, Conversion how) {
  if (how.width == -1) {
    how.width = 2 * sizeof(void *);
    how.flags |= kZero;
  }
  put_integer(out, reinterpret_cast<unsigned long>(va_arg(args->list, void *)), 16, how);
}

// False for an unknown letter.
bool convert(Out *out, char letter, Conversion how, Arguments *args) {
  switch (letter) {
    case 'c':
      put_char(out, static_cast<char>(va_arg(args->list, int)), how);
      return true;
    case 's':
      put_string(out, va_arg(args->list, const char *), how);
      return true;
    case 'p':
      put_pointer(out, args, how);
      return true;
    case 'n':
      store_count(args, how, out->at - out->start);
      return true;
    case '%':
      out->put('%');
      return true;
    case 'o':
      put_integer(out, take_integer(args, how), 8, how);
      return true;
    case 'X':
      how.flags |= kUpper;
      [[fallthrough]];
    case 'x':
      put_integer(out, take_integer(args, how), 16, how);
      return true;
    case 'd':
    case 'i':
      how.flags |= kSigned;
      [[fallthrough]];
    case 'u':
      put_integer(out, take_integer(args, how), 10, how);
      return true;
    default:
      return false;
  }
}

void format(Out *out, const char *fmt, Arguments *args) {
  for (; *fmt; ++fmt) {
    if (*fmt != '%') {
      out->put(*fmt);
      continue;
    }
    Conversion how;
    fmt = parse(fmt + 1, &how, args);
    if (convert(out, *fmt, how, args)) continue;
    out->put('%');
    if (!*fmt) return;
    out->put(*fmt);
  }
}

unsigned digit_value(char c) {
  if (isdigit(static_cast<unsigned char>(c))) return static_cast<unsigned>(c - '0');
  if (c >= 'a' && c <= 'z') return static_cast<unsigned>(c - 'a') + 10;
  if (c >= 'A' && c <= 'Z') return static_cast<unsigned>(c - 'A') + 10;
  return 99;
}

}  // namespace

extern "C" {

int vsnprintf(char *buf, size_t size, const char *fmt, va_list args) {
  if (unlikely(static_cast<int>(size) < 0)) {
    WARN_ON_ONCE(1);
    return 0;
  }
  // A size that would run over the end of the address space means "large enough".
  const unsigned long start = reinterpret_cast<unsigned long>(buf);
  const unsigned long end = size > ~0UL - start ? ~0UL : start + size;
  Out out = {buf, buf, reinterpret_cast<char *>(end)};
  Arguments arguments;
  va_copy(arguments.list, args);
  format(&out, fmt, &arguments);
  va_end(arguments.list);
  if (size) *(out.at < out.end ? out.at : out.end - 1) = 0;
  return static_cast<int>(out.at - buf);
}

int vscnprintf(char *buf, size_t size, const char *fmt, va_list args) {
  const int length = vsnprintf(buf, size, fmt, args);
  return static_cast<size_t>(length) >= size ? static_cast<int>(size - 1) : length;
}

int snprintf(char *buf, size_t size, const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int length = vsnprintf(buf, size, fmt, args);
  va_end(args);
  return length;
}

int scnprintf(char *buf, size_t size, const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int length = vscnprintf(buf, size, fmt, args);
  va_end(args);
  return length;
}

int sprintf(char *buf, const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int length = vsnprintf(buf, INT_MAX, fmt, args);
  va_end(args);
  return length;
}

unsigned long long simple_strtoull(const char *cp, char **endp, unsigned int base) {
  const bool hex_prefix =
      cp[0] == '0' && (cp[1] == 'x' || cp[1] == 'X') && isxdigit(static_cast<unsigned char>(cp[2]));
  if (!base) base = hex_prefix ? 16 : cp[0] == '0' ? 8 : 10;
  if (base == 16 && hex_prefix) cp += 2;
  unsigned long long value = 0;
  for (unsigned digit; (digit = digit_value(*cp)) < base; cp++) value = value * base + digit;
  if (endp) *endp = const_cast<char *>(cp);
  return value;
}

unsigned long simple_strtoul(const char *cp, char **endp, unsigned int base) {
  return static_cast<unsigned long>(simple_strtoull(cp, endp, base));
}

long long simple_strtoll(const char *cp, char **endp, unsigned int base) {
  if (*cp == '-') return -static_cast<long long>(simple_strtoull(cp + 1, endp, base));
  return static_cast<long long>(simple_strtoull(cp, endp, base));
}

long simple_strtol(const char *cp, char **endp, unsigned int base) {
  return static_cast<long>(simple_strtoll(cp, endp, base));
}
}
