// A small RGB picture with the drawing the tool's plots need: filled and
// shaded rectangles, lines and text in an embedded 5x7 bitmap font.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace cli {

struct Rgb {
    uint8_t r = 0, g = 0, b = 0;
    bool operator==(const Rgb& o) const { return r == o.r && g == o.g && b == o.b; }
    bool operator!=(const Rgb& o) const { return !(*this == o); }
};

class Image {
public:
    // Every text character takes a cell of this size (5x7 glyph and spacing).
    static constexpr int kCharWidth = 6;
    static constexpr int kCharHeight = 8;

    Image(int width, int height, Rgb background);

    int width() const { return width_; }
    int height() const { return height_; }
    // Rows top to bottom, 3 bytes (R, G, B) per pixel.
    const std::vector<uint8_t>& pixels() const { return pixels_; }
    Rgb at(int x, int y) const;

    // Everything outside the picture is clipped away.
    void set(int x, int y, Rgb colour);
    void fill(int x, int y, int w, int h, Rgb colour);
    // Mixes `colour` into the rectangle, `alpha` from 0 (none) to 1 (opaque).
    void shade(int x, int y, int w, int h, Rgb colour, double alpha);
    void line(int x0, int y0, int x1, int y1, Rgb colour);
    // Text with its top left corner at (x, y); characters outside printable
    // ASCII show as '?'.
    void text(int x, int y, const std::string& s, Rgb colour);
    static int textWidth(const std::string& s) { return static_cast<int>(s.size()) * kCharWidth; }

private:
    int width_;
    int height_;
    std::vector<uint8_t> pixels_;
};

} // namespace cli
