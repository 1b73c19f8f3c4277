#pragma once

#include <cstdint>

#include "video/portal/stream_params.h"

namespace ox::portal {

/// Size of a picture that the transformation (spa_meta_videotransform_value) has been taken off.
/// One that is not known counts as none.
PictureSize upright_size(PictureSize size, uint32_t transform);

/// Copies a picture of this format to `to`, upright, as B, G, R and a fourth byte, without padding:
/// `upright_size` pixels of 4 bytes.
void copy_upright(const MappedPicture& picture, const PictureFormat& format, uint32_t transform,
                  uint8_t* to);

}  // namespace ox::portal
