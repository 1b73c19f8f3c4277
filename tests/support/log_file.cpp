#include "support/log_file.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <thread>

namespace ox::test {

std::vector<std::string> LogFile::lines() const {
    std::ifstream in(path_, std::ios::binary);
    const std::string all{std::istreambuf_iterator<char>(in), {}};
    std::vector<std::string> result;
    size_t begin = 0;
    for (size_t end = all.find('\n'); end != std::string::npos; end = all.find('\n', begin)) {
        result.push_back(all.substr(begin, end - begin));
        begin = end + 1;
    }
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
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const bool last_look = std::chrono::steady_clock::now() >= deadline;
        size_t seen = 0;
        for (const auto& line : lines()) {
            if (line.find(text) != std::string::npos && ++seen == times) return line;
        }
        if (last_look) return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

}  // namespace ox::test
