#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <utility>

#include "app/keys/lease_table.h"

namespace ox {

/// The file that keeps a `LeaseTable` beyond the life of this process, "key-leases" in the agent's
/// state folder, mode 0600. Agents of one user share it, so every use is a reading, a change and a
/// writing under the lock of "key-leases.lock". Nothing that is not a regular file of this user, in
/// a folder of this user, is read or written. May block for as long as the disk does; used by one
/// thread at a time.
class LeaseFile {
  public:
    explicit LeaseFile(std::string folder) : folder_(std::move(folder)) {}

    struct Outcome {
        std::string error{};   ///< why nothing was recorded; empty when it was
        size_t salvaged = 0;   ///< keys that could be read from a damaged file
        bool damaged = false;  ///< the file was; it is now "key-leases.damaged"
        [[nodiscard]] bool recorded() const { return error.empty(); }
    };
    /// Records what `change` makes of the file's table; on return it is on the disk. `change` runs
    /// once, or not at all when the file cannot be read. Waits a second at most for other agents.
    Outcome update(const std::function<void(LeaseTable&)>& change) const;

    [[nodiscard]] std::string path() const;

  private:
    std::string folder_;
};

}  // namespace ox
