#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace ox::test {

/// Sets or unsets an environment variable for its own lifetime.
class Environment {
  public:
    Environment(const char* name, std::optional<std::string> value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        set(value);
    }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;
    ~Environment() { set(old_); }

  private:
    void set(const std::optional<std::string>& value) const {
        value ? ::setenv(name_, value->c_str(), 1) : ::unsetenv(name_);
    }

    const char* name_;
    std::optional<std::string> old_;
};

}  // namespace ox::test
