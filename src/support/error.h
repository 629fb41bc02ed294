#pragma once

#include <exception>
#include <string>

namespace tarnbloom {

// The root of every error the core throws. Each area derives one type with an
// enum of its cases; the boundaries that report (an export item, a CLI
// command, a request) catch this base and show description().
class Error : public std::exception {
 public:
  virtual std::string description() const = 0;
  // Empty when there is nothing the user can do about it.
  virtual std::string recoverySuggestion() const { return {}; }
  // What was found underneath, for the curious ("The decoder stopped with
  // signal 11"); never part of the message. Empty when there is nothing.
  virtual std::string details() const { return {}; }

  const char* what() const noexcept override {
    try {
      m_what = description();
    } catch (...) {
      return "tarnbloom error";
    }
    return m_what.c_str();
  }

 private:
  mutable std::string m_what;
};

}  // namespace tarnbloom
