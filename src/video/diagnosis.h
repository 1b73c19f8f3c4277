#pragma once

#include <string>

namespace ox {

/// Why something of the PC could not be used, and what its owner can do about it: the two halves of
/// a log line.
struct Diagnosis {
    std::string cause;
    std::string remedy;
};

}  // namespace ox
