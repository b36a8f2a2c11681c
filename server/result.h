// Value-or-error results for the host tools: every failure carries one line that says what went
// wrong and, where there is a fix, what to do about it.
#pragma once

#include <string>
#include <utility>
#include <variant>

namespace zerlan::server {

struct Error {
  std::string message;
  int status = 400;  // the HTTP status it answers with, where it reaches a client
  int systemError = 0;  // the errno behind it, where a caller may want to look further
};

inline Error fail(std::string message) { return Error{std::move(message)}; }

// A request that is well formed but cannot apply to the server's current state.
inline Error conflict(std::string message) { return Error{std::move(message), 409}; }

template <class T>
class [[nodiscard]] Result {
 public:
  Result(T value) : v_(std::move(value)) {}
  Result(Error error) : v_(std::move(error)) {}

  bool ok() const { return v_.index() == 0; }
  explicit operator bool() const { return ok(); }

  T& value() & { return std::get<0>(v_); }
  const T& value() const& { return std::get<0>(v_); }
  T&& value() && { return std::get<0>(std::move(v_)); }
  T* operator->() { return &value(); }
  const T* operator->() const { return &value(); }
  T& operator*() & { return value(); }

  const Error& error() const { return std::get<1>(v_); }

 private:
  std::variant<T, Error> v_;
};

template <>
class [[nodiscard]] Result<void> {
 public:
  Result() = default;
  Result(Error error) : error_(std::move(error)), ok_(false) {}

  bool ok() const { return ok_; }
  explicit operator bool() const { return ok_; }
  const Error& error() const { return error_; }

 private:
  Error error_;
  bool ok_ = true;
};

}  // namespace zerlan::server
