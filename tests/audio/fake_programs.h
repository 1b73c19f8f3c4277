#pragma once

#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "support/environment.h"
#include "support/temp_dir.h"

namespace ox::test {

/// A folder in front of PATH with programs of the test's own in place of the sound server's tools.
class FakePrograms {
  public:
    void add(const std::string& name, const std::string& script,
             const std::string& interpreter = "/bin/sh") const {
        ::chmod(folder_.write(name, "#!" + interpreter + "\n" + script + "\n").c_str(), 0755);
    }
    [[nodiscard]] std::string file(const std::string& name) const { return folder_.file(name); }

  private:
    TempDir folder_;
    Environment path_{"PATH", folder_.path().string() + ":" + std::getenv("PATH")};
};

}  // namespace ox::test
