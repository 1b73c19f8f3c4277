#include "support/log_file.h"

#include <algorithm>
#include <fstream>

#include "support/eventually.h"

namespace ox::test {

std::vector<std::string> LogFile::lines() const {
    std::ifstream in(path_, std::ios::binary);
    std::vector<std::string> result;
    for (std::string line; std::getline(in, line) && !in.eof();)
        result.push_back(line);
    return result;
}

size_t LogFile::count(std::string_view text) const {
    const auto all = lines();
    return static_cast<size_t>(std::count_if(all.begin(), all.end(), [&](const std::string& line) {
        return line.find(text) != std::string::npos;
    }));
}

std::optional<std::string> LogFile::wait_for(std::string_view text,
                                             std::chrono::milliseconds timeout,
                                             size_t times) const {
    std::optional<std::string> found;
    eventually(
        [&] {
            size_t seen = 0;
            for (const auto& line : lines()) {
                if (line.find(text) != std::string::npos && ++seen == times) found = line;
            }
            return found.has_value();
        },
        timeout);
    return found;
}

}  // namespace ox::test
