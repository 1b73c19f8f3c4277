#pragma once

#include <string>

namespace ox {

/// Why something of the PC could not be used, and what its owner can do about it.
struct Diagnosis {
    std::string cause;
    std::string remedy;

    [[nodiscard]] std::string log_text() const { return cause + " — " + remedy; }
};

}  // namespace ox
