#include "png_writer.h"

#include "cli_error.h"

#include <cstdlib>
#include <string>

#ifdef DSP_PNG_LIBPNG
#include <png.h>
#endif
#ifdef DSP_PNG_ZLIB
#include <zlib.h>
#endif

namespace cli {

bool pngSupported() {
#if defined(DSP_PNG_LIBPNG) || defined(DSP_PNG_ZLIB)
    return true;
#else
    return false;
#endif
}

#ifdef DSP_PNG_ZLIB

namespace {

void appendBe32(std::vector<uint8_t>& out, uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        out.push_back(static_cast<uint8_t>(v >> shift));
    }
}

// Length, type, data and the CRC of type and data.
void appendChunk(std::vector<uint8_t>& out, const char* type, const std::vector<uint8_t>& data) {
    appendBe32(out, static_cast<uint32_t>(data.size()));
    const size_t typeAt = out.size();
    out.insert(out.end(), type, type + 4);
    out.insert(out.end(), data.begin(), data.end());
    uLong crc = crc32(0L, Z_NULL, 0);
    crc = crc32(crc, out.data() + typeAt, static_cast<uInt>(4 + data.size()));
    appendBe32(out, static_cast<uint32_t>(crc));
}

int paeth(int a, int b, int c) {
    const int p = a + b - c;
    const int pa = std::abs(p - a), pb = std::abs(p - b), pc = std::abs(p - c);
    if (pa <= pb && pa <= pc) {
        return a;
    }
    return pb <= pc ? b : c;
}

// One row with each of the five filters; keeps the one whose bytes, read as
// signed, sum to the least magnitude (the usual heuristic). `candidate` and
// `best` are scratch of rowBytes + 1 bytes.
void appendFilteredRow(std::vector<uint8_t>& out, const uint8_t* row, const uint8_t* above,
                       size_t bytes, std::vector<uint8_t>& candidate, std::vector<uint8_t>& best) {
    constexpr size_t kPixel = 3;
    long bestCost = -1;
    for (uint8_t filter = 0; filter < 5; ++filter) {
        candidate[0] = filter;
        long cost = 0;
        for (size_t i = 0; i < bytes; ++i) {
            const int a = i >= kPixel ? row[i - kPixel] : 0;
            const int b = above != nullptr ? above[i] : 0;
            const int c = above != nullptr && i >= kPixel ? above[i - kPixel] : 0;
            const int predictor[5] = {0, a, b, (a + b) / 2, paeth(a, b, c)};
            const auto v = static_cast<uint8_t>(row[i] - predictor[filter]);
            candidate[i + 1] = v;
            cost += v < 128 ? v : 256 - v;
        }
        if (bestCost < 0 || cost < bestCost) {
            bestCost = cost;
            best.swap(candidate);
        }
    }
    out.insert(out.end(), best.begin(), best.end());
}

} // namespace

std::vector<uint8_t> encodePngWithZlib(const Image& image) {
    const auto width = static_cast<uint32_t>(image.width());
    const auto height = static_cast<uint32_t>(image.height());
    const size_t rowBytes = size_t{width} * 3;
    std::vector<uint8_t> raw;
    raw.reserve((rowBytes + 1) * height);
    const uint8_t* pixels = image.pixels().data();
    std::vector<uint8_t> candidate(rowBytes + 1), best(rowBytes + 1);
    for (uint32_t y = 0; y < height; ++y) {
        appendFilteredRow(raw, pixels + y * rowBytes, y > 0 ? pixels + (y - 1) * rowBytes : nullptr,
                          rowBytes, candidate, best);
    }
    uLongf packedSize = compressBound(static_cast<uLong>(raw.size()));
    std::vector<uint8_t> packed(packedSize);
    if (compress2(packed.data(), &packedSize, raw.data(), static_cast<uLong>(raw.size()),
                  Z_BEST_COMPRESSION) != Z_OK) {
        throw Failure("cannot compress the picture (out of memory?)");
    }
    packed.resize(packedSize);

    std::vector<uint8_t> header;
    appendBe32(header, width);
    appendBe32(header, height);
    header.insert(header.end(), {8, 2, 0, 0, 0}); // 8-bit RGB, deflate, no interlace
    std::vector<uint8_t> png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    appendChunk(png, "IHDR", header);
    appendChunk(png, "IDAT", packed);
    appendChunk(png, "IEND", {});
    return png;
}

#endif // DSP_PNG_ZLIB

std::vector<uint8_t> encodePng(const Image& image) {
#if defined(DSP_PNG_LIBPNG)
    png_image png{};
    png.version = PNG_IMAGE_VERSION;
    png.width = static_cast<png_uint_32>(image.width());
    png.height = static_cast<png_uint_32>(image.height());
    png.format = PNG_FORMAT_RGB;
    png_alloc_size_t size = 0;
    const void* pixels = image.pixels().data();
    // The first call measures, the second writes.
    if (png_image_write_to_memory(&png, nullptr, &size, 0, pixels, 0, nullptr) != 0) {
        std::vector<uint8_t> out(size);
        if (png_image_write_to_memory(&png, out.data(), &size, 0, pixels, 0, nullptr) != 0) {
            out.resize(size);
            return out;
        }
    }
    const std::string message = png.message;
    png_image_free(&png);
    throw Failure("cannot encode the picture as PNG: " + message);
#elif defined(DSP_PNG_ZLIB)
    return encodePngWithZlib(image);
#else
    (void)image;
    throw Failure("dsp was built without libpng or zlib and cannot write PNG");
#endif
}

} // namespace cli
