#include "saas/proc_text.h"

#include <cstdlib>
#include <fstream>

namespace ox {

std::string trim(std::string_view text) {
    constexpr std::string_view kBlank = "\t\n\r ";
    const size_t first = text.find_first_not_of(kBlank);
    if (first == text.npos) return {};
    return std::string(text.substr(first, text.find_last_not_of(kBlank) - first + 1));
}

std::optional<std::string> line_after(const std::string& path, std::string_view prefix) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(prefix)) return line.substr(prefix.size());
    }
    return std::nullopt;
}

std::string cpuinfo_field(const std::string& path, std::string_view name) {
    const auto rest = line_after(path, name);
    const size_t colon = rest ? rest->find(':') : std::string::npos;
    return colon == std::string::npos ? "" : trim(std::string_view(*rest).substr(colon + 1));
}

uint64_t meminfo_kb(const std::string& path, std::string_view label) {
    const auto rest = line_after(path, label);
    return rest ? std::strtoull(rest->c_str(), nullptr, 10) : 0;
}

}  // namespace ox
