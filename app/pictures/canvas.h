// A picture to draw on: PNG, SVG or PDF, through cairo.
//
// Places are in pixels from the top left corner; in a PDF file a pixel is 3/4 of a point. Texts of an SVG file are
// texts, which can be searched and selected, and lie above all else.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

enum class PictureFormat { PNG, SVG, PDF };

// By the extension of a file name, in either case.
std::optional<PictureFormat> picture_format(const std::string& path);

struct Colour {
    double red, green, blue;  // 0 to 1
    double alpha = 1;
};

struct Point {
    double x, y;
};

struct Box {
    double left = 0, top = 0, width = 0, height = 0;

    double right() const { return left + width; }
    double bottom() const { return top + height; }
    bool overlaps(const Box& other) const {
        return left < other.right() && other.left < right() && top < other.bottom() && other.top < bottom();
    }
    bool holds(const Box& other) const {
        return left <= other.left && top <= other.top && other.right() <= right() && other.bottom() <= bottom();
    }
};

// Rows of pixels from the top, 0xRRGGBB each.
struct Raster {
    int32_t columns = 0, rows = 0;
    std::vector<uint32_t> pixels;
};

struct TextStyle {
    double size;  // of the font, pixels
    Colour colour;
    enum class Align { LEFT, CENTRE, RIGHT } align = Align::LEFT;
    bool bold = false;
    bool upwards = false;  // reads from bottom to top
};

// Members throw std::bad_alloc or std::runtime_error when cairo fails.
class Canvas {
  public:
    Canvas(PictureFormat format, int32_t width, int32_t height);  // white
    ~Canvas();
    Canvas(const Canvas&) = delete;
    Canvas& operator=(const Canvas&) = delete;

    void fill(const Box& box, const Colour& colour);
    void outline(const Box& box, const Colour& colour, double line_width);  // its middle follows the edge
    void polygon(const std::vector<Point>& corners, const Colour& colour, double line_width);
    void line(Point from, Point to, const Colour& colour, double line_width);
    void image(const Box& box, const Raster& raster);  // stretched over the box without smoothing

    // All that follows, but texts, stays inside a box until unclip.
    void clip(const Box& box);
    void unclip();

    // The point is the left end, middle or right end of the base line. Bytes that are not UTF-8 and control characters
    // are replaced.
    void text(Point at, const std::string& text, const TextStyle& style);
    double text_width(const std::string& text, double size, bool bold = false);

    // The bytes of the finished file; nothing may be drawn after that.
    std::string finish();

  private:
    struct Drawing;
    std::unique_ptr<Drawing> drawing_;
};
