#include "support/log_file.h"

#include <fstream>

#include "support/eventually.h"

namespace ox::test {

std::vector<std::string> LogFile::lines(std::string_view with) const {
    std::ifstream in(path_, std::ios::binary);
    std::vector<std::string> result;
    for (std::string line; std::getline(in, line) && !in.eof();) {
        if (line.find(with) != std::string::npos) result.push_back(line);
    }
    return result;
}

std::optional<std::string> LogFile::wait_for(std::string_view text,
                                             std::chrono::milliseconds timeout,
                                             size_t times) const {
    std::vector<std::string> found;
    const bool came = eventually(
        [&] {
            found = lines(text);
            return found.size() >= times;
        },
        timeout);
    return came ? std::optional(found[times - 1]) : std::nullopt;
}

}  // namespace ox::test
