#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ox {

/// `text` without tabs, line ends and spaces at both ends.
std::string trim(std::string_view text);

/// The rest of the first line of `path` that begins with `prefix`. Nothing when the file cannot be
/// read or has no such line.
std::optional<std::string> line_after(const std::string& path, std::string_view prefix);

/// Value of the field `name` ("name<spaces>: value") of a file like /proc/cpuinfo, trimmed; empty
/// when there is none.
std::string cpuinfo_field(const std::string& path, std::string_view name);

/// The kB number of a line of /proc/meminfo, whose label comes with its colon; 0 without it.
uint64_t meminfo_kb(const std::string& path, std::string_view label);

}  // namespace ox
