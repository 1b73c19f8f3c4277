#pragma once

#include <string>

struct AVFrame;

namespace ox::launcher {

/// Writes a decoded picture as an RGB PNG file. False, with a text for the user in `error`, when
/// the picture cannot be converted or the file not written.
bool write_png(const AVFrame& picture, const std::string& path, std::string& error);

}  // namespace ox::launcher
