#pragma once

#include <algorithm>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace ox {

/// Paths of the entries of `folder` whose names begin with `prefix`, sorted.
inline std::vector<std::string> folder_entries(const std::string& folder,
                                               const std::string& prefix) {
    std::vector<std::string> paths;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        if (entry->path().filename().string().starts_with(prefix)) {
            paths.push_back(entry->path().string());
        }
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

}  // namespace ox
