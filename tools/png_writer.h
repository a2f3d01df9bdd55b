// PNG encoding of an Image: through libpng where the build found it, else
// written here with zlib's deflate; a build with neither cannot write PNG.
#pragma once

#include "image.h"

#include <cstdint>
#include <vector>

namespace cli {

// Whether this build can encode PNG (libpng or zlib was found).
bool pngSupported();

// The picture as an 8-bit RGB PNG file's bytes. Throws Failure when PNG is
// not supported or the encoder fails.
std::vector<uint8_t> encodePng(const Image& image);

#ifdef DSP_PNG_ZLIB
// The encoder written on zlib alone (encodePng's choice without libpng):
// filter chosen per row, deflate at the best compression.
std::vector<uint8_t> encodePngWithZlib(const Image& image);
#endif

} // namespace cli
