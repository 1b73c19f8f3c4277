#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace ox::selftest {

/// Takes an environment variable away and puts it back, with the value it had, at the end.
class ScopedVariable {
  public:
    explicit ScopedVariable(const char* name) : name_(name) {
        if (const char* value = std::getenv(name)) saved_ = value;
        ::unsetenv(name);
    }
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;
    ~ScopedVariable() {
        if (saved_) {
            set(saved_->c_str());
        } else {
            ::unsetenv(name_);
        }
    }

    void set(const char* value) const { ::setenv(name_, value, 1); }

  private:
    const char* name_;
    std::optional<std::string> saved_;
};

}  // namespace ox::selftest
