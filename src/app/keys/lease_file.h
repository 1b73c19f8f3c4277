#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <utility>

#include "app/keys/lease_table.h"

namespace ox {

/// The file of a `LeaseTable`, "key-leases" in the agent's state folder (mode 0600), shared by one
/// user's agents under a lock. Only this user's regular files and folders count. May block as the
/// disk does; one thread at a time.
class LeaseFile {
  public:
    explicit LeaseFile(std::string folder) : folder_(std::move(folder)) {}

    struct Outcome {
        std::string error{};   ///< why nothing was recorded; empty when it was
        size_t salvaged = 0;   ///< keys that could be read from a damaged file
        bool damaged = false;  ///< the file was, and is now "key-leases.damaged"
        [[nodiscard]] bool recorded() const { return error.empty(); }
    };
    /// Reads the table, lets `change` modify it, and returns when it is on the disk. `change` is
    /// not called when the file cannot be read. Waits for other agents for a second at most.
    Outcome update(const std::function<void(LeaseTable&)>& change) const;

    [[nodiscard]] std::string path() const;

  private:
    std::string folder_;
};

}  // namespace ox
