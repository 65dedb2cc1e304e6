#pragma once

#include <exception>
#include <string>
#include <utility>
#include <variant>

namespace vellum {

// Base of every error a user can see. The description is the one sentence
// shown to the user as it stands.
class Error : public std::exception {
 public:
  const char* what() const noexcept override { return description_.c_str(); }
  const std::string& description() const noexcept { return description_; }

 protected:
  explicit Error(std::string description) : description_(std::move(description)) {}

 private:
  std::string description_;
};

// An error enumeration: exactly one of Cases, each a small struct with its
// payload. Equality compares the case and every payload field.
template <class... Cases>
class ErrorOf : public Error {
 public:
  using Case = std::variant<Cases...>;

  const Case& kind() const noexcept { return case_; }
  template <class C>
  bool is() const noexcept {
    return std::holds_alternative<C>(case_);
  }
  template <class C>
  const C* as() const noexcept {
    return std::get_if<C>(&case_);
  }
  friend bool operator==(const ErrorOf& a, const ErrorOf& b) { return a.case_ == b.case_; }

 protected:
  ErrorOf(Case errorCase, std::string description)
      : Error(std::move(description)), case_(std::move(errorCase)) {}

 private:
  Case case_;
};

// The platform's text for an error number, as strerror gives it (thread-safe).
std::string errnoText(int errnum);

}  // namespace vellum
