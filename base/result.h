/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Results and errors of libtarn. An error has a code (a negative errno, or a result of the module)
 * and one line of text for the user: what failed, where, and the remedy. Nothing here throws.
 */
#ifndef TARN_BASE_RESULT_H
#define TARN_BASE_RESULT_H

#include <optional>
#include <string>
#include <utility>
#include <variant>

namespace tarn {

struct Error {
  int code = 0;
  std::string text;
};

/* An Error with the code -err and "what: text of err". */
Error system_error(int err, const std::string &what);

template <class T>
class [[nodiscard]] Result {
 public:
  Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}
  Result(Error error) : state_(std::in_place_index<1>, std::move(error)) {}

  bool ok() const { return state_.index() == 0; }
  explicit operator bool() const { return ok(); }
  T &value() { return std::get<0>(state_); }
  const T &value() const { return std::get<0>(state_); }
  T &operator*() { return value(); }
  const T &operator*() const { return value(); }
  T *operator->() { return &value(); }
  const T *operator->() const { return &value(); }
  const Error &error() const { return std::get<1>(state_); }

 private:
  std::variant<T, Error> state_;
};

template <>
class [[nodiscard]] Result<void> {
 public:
  Result() = default;
  Result(Error error) : error_(std::move(error)) {}

  bool ok() const { return !error_; }
  explicit operator bool() const { return ok(); }
  const Error &error() const { return *error_; }

 private:
  std::optional<Error> error_;
};

}  // namespace tarn

#endif
