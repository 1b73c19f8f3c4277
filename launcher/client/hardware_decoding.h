#pragma once

#include "launcher/client/av_handles.h"

namespace ox::launcher {

/// Gives `context`, which is not open yet, the first device of this machine that `decoder` can use.
/// The device's name, static; null when there is none and the context is unchanged.
const char* use_hardware(AVCodecContext& context, const AVCodec& decoder);

/// Copies a picture out of the device's memory, with its properties. False on failure.
bool download(const AVFrame& image, AVFrame& copy);

}  // namespace ox::launcher
