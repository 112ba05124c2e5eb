/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Test cases that run inside the kernel: in the process build under GoogleTest (each case is one
 * test in a freshly booted kernel, and the shutdown after it looks for leaks), on a real kernel as
 * a module.
 *
 *   CASE(dcache, negative_dentry_is_kept) { EXPECT_EQ(foo(), 0); }
 *
 * CASE runs on a booted kernel with a memfs root and a root task; MODULE_CASE has the tarn module
 * loaded. An EXPECT that fails is reported and the case goes on; a REQUIRE returns from the case.
 */
#ifndef TESTS_HARNESS_CASE_H
#define TESTS_HARNESS_CASE_H

struct tarn_case {
  const char *suite;
  const char *name;
  void (*run)(void);
  int with_module;
  const char *file;
  int line;
};

extern "C" {
/* Provided by whatever runs the cases: takes a failure's text. */
void host_case_failed(const char *file, int line, const char *text);
/* The cases linked into this image; their number is the result. */
unsigned long uk_cases(const struct tarn_case *const **cases);
}

#define TARN_CASE_(suite, name, with_module)                                                    \
  static void suite##_##name(void);                                                             \
  static const struct tarn_case suite##_##name##_case = {#suite,      #name,    suite##_##name, \
                                                         with_module, __FILE__, __LINE__};      \
  __attribute__((                                                                               \
      used, retain,                                                                             \
      section("tarn_cases"))) static const struct tarn_case *const suite##_##name##_entry =     \
      &suite##_##name##_case;                                                                   \
  static void suite##_##name(void)

#define CASE(suite, name) TARN_CASE_(suite, name, 0)
#define MODULE_CASE(suite, name) TARN_CASE_(suite, name, 1)

/* Report "what (left text) op (right text)"; integers and pointers are shown as long long and hex.
 */
void case_check_failed(const char *file, int line, const char *expression, long long left,
                       long long right);
void case_check_str_failed(const char *file, int line, const char *expression, const char *left,
                           const char *right);
int case_str_equal(const char *left, const char *right);

template <typename T>
inline long long case_value(T value) {
  if constexpr (__is_enum(T))
    return (long long)value;
  else if constexpr (__is_class(T))
    return case_value(+value); /* a field read without a lock */
  else
    return (long long)(__UINTPTR_TYPE__)value;
}
inline long long case_value(int value) {
  return value;
}
inline long long case_value(long value) {
  return value;
}
inline long long case_value(long long value) {
  return value;
}
inline long long case_value(unsigned long long value) {
  return (long long)value;
}
inline long long case_value(decltype(nullptr)) {
  return 0;
}

#define CASE_CMP_(op, a, b, otherwise)                                              \
  do {                                                                              \
    const auto case_a_ = (a);                                                       \
    const auto case_b_ = (b);                                                       \
    if (!(case_a_ op case_b_)) {                                                    \
      case_check_failed(__FILE__, __LINE__, #a " " #op " " #b, case_value(case_a_), \
                        case_value(case_b_));                                       \
      otherwise;                                                                    \
    }                                                                               \
  } while (0)

/* The program that runs the cases has GoogleTest's macros of these names. */
#ifndef TARN_CASES_HOSTED
#define EXPECT_EQ(a, b) CASE_CMP_(==, a, b, (void)0)
#define EXPECT_NE(a, b) CASE_CMP_(!=, a, b, (void)0)
#define EXPECT_LT(a, b) CASE_CMP_(<, a, b, (void)0)
#define EXPECT_LE(a, b) CASE_CMP_(<=, a, b, (void)0)
#define EXPECT_GT(a, b) CASE_CMP_(>, a, b, (void)0)
#define EXPECT_GE(a, b) CASE_CMP_(>=, a, b, (void)0)
#define EXPECT_TRUE(a) CASE_CMP_(!=, (a) ? 1 : 0, 0, (void)0)
#define EXPECT_FALSE(a) CASE_CMP_(==, (a) ? 1 : 0, 0, (void)0)
#define REQUIRE_EQ(a, b) CASE_CMP_(==, a, b, return )
#define REQUIRE_NE(a, b) CASE_CMP_(!=, a, b, return )
#define REQUIRE_TRUE(a) CASE_CMP_(!=, (a) ? 1 : 0, 0, return )
#define EXPECT_STREQ(a, b)                                                       \
  do {                                                                           \
    const char *case_a_ = (a);                                                   \
    const char *case_b_ = (b);                                                   \
    if (!case_str_equal(case_a_, case_b_))                                       \
      case_check_str_failed(__FILE__, __LINE__, #a " == " #b, case_a_, case_b_); \
  } while (0)
#endif

#ifdef TARN_CASES_IN_PROCESS
extern "C" {
/*
 * Process build only. Runs `body` in a child process that is expected to end with a kernel report
 * which contains `text`; anything else is a failure of the case.
 */
void host_case_expect_report(const char *file, int line, void (*body)(void), const char *text);
/*
 * Process build only. Announces that the shutdown after this case will report something that
 * contains `text`: it must, and no report fails the case.
 */
void host_case_expect_leak(const char *file, int line, const char *text);
}
#define EXPECT_REPORT(body, text) host_case_expect_report(__FILE__, __LINE__, body, text)
#define EXPECT_LEAK(text) host_case_expect_leak(__FILE__, __LINE__, text)

/* Process build only. True if a kernel log line since the case's start is exactly `text` (no level
 * prefix, no newline); case_log_count says how many are. */
int case_logged(const char *text);
int case_log_count(const char *text);
/* The level at which the last such line was written, 4 for one without a level; -1: there is none.
 */
int case_log_level(const char *text);
#endif

#endif
