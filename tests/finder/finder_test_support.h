#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace tarnbloom::finder {

// Sets an environment variable for one test and restores it after.
class ScopedEnvironment {
 public:
  ScopedEnvironment(const char* name, const std::string& value) : m_name(name) {
    if (const char* old = std::getenv(name)) m_old = old;
    ::setenv(name, value.c_str(), 1);
  }
  ~ScopedEnvironment() {
    if (m_old)
      ::setenv(m_name, m_old->c_str(), 1);
    else
      ::unsetenv(m_name);
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  const char* m_name;
  std::optional<std::string> m_old;
};

}  // namespace tarnbloom::finder
