#include "pictures/canvas.h"

#include <cairo-pdf.h>
#include <cairo-svg.h>
#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <new>
#include <numbers>
#include <stdexcept>

#include "base/json.h"
#include "system/files.h"

namespace {

constexpr const char* FONT = "DejaVu Sans";
constexpr double POINTS_A_PIXEL = 0.75;

struct DestroySurface {
    void operator()(cairo_surface_t* surface) const noexcept { cairo_surface_destroy(surface); }
};
struct DestroyContext {
    void operator()(cairo_t* context) const noexcept { cairo_destroy(context); }
};
using SurfacePtr = std::unique_ptr<cairo_surface_t, DestroySurface>;
using ContextPtr = std::unique_ptr<cairo_t, DestroyContext>;

void check(cairo_status_t status) {
    if (status == CAIRO_STATUS_SUCCESS) return;
    if (status == CAIRO_STATUS_NO_MEMORY) throw std::bad_alloc();
    throw std::runtime_error(std::string("the picture cannot be drawn: ") + cairo_status_to_string(status));
}

// cairo's way to hand out the bytes of a file.
cairo_status_t append(void* bytes, const unsigned char* data, unsigned length) {
    try {
        static_cast<std::string*>(bytes)->append(reinterpret_cast<const char*>(data), length);
        return CAIRO_STATUS_SUCCESS;
    } catch (...) {
        return CAIRO_STATUS_NO_MEMORY;
    }
}

// Text as cairo and XML take it.
std::string clean(const std::string& text) {
    std::string cleaned = as_utf8(text);
    for (char& c : cleaned) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = ' ';
    }
    return cleaned;
}

std::string escaped(const std::string& text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string svg_colour(const Colour& colour) {
    const auto part = [](double value) { return static_cast<int>(std::lround(std::clamp(value, 0.0, 1.0) * 255)); };
    char text[8];
    std::snprintf(text, sizeof text, "#%02x%02x%02x", part(colour.red) & 255, part(colour.green) & 255,
                  part(colour.blue) & 255);
    return text;
}

}  // namespace

std::optional<PictureFormat> picture_format(const std::string& path) {
    std::string extension = text_of(native_path(path).extension());
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    if (extension == ".png") return PictureFormat::PNG;
    if (extension == ".svg") return PictureFormat::SVG;
    if (extension == ".pdf") return PictureFormat::PDF;
    return std::nullopt;
}

struct Canvas::Drawing {
    PictureFormat format;
    std::string bytes;  // what the surface has written; outlives it
    std::string texts;  // of an SVG file, still to be written
    SurfacePtr surface;
    ContextPtr context;

    void select_font(double size, bool bold) const {
        cairo_select_font_face(context.get(), FONT, CAIRO_FONT_SLANT_NORMAL,
                               bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
        cairo_set_font_size(context.get(), size);
    }

    double width_of(const std::string& text) const {
        cairo_text_extents_t extents;
        cairo_text_extents(context.get(), text.c_str(), &extents);
        return extents.x_advance;
    }

    void set_colour(const Colour& colour) const {
        cairo_set_source_rgba(context.get(), colour.red, colour.green, colour.blue, colour.alpha);
    }

    void add_svg_text(Point at, const std::string& text, const TextStyle& style, double width) {
        const char* anchor = style.align == TextStyle::Align::CENTRE  ? "middle"
                             : style.align == TextStyle::Align::RIGHT ? "end"
                                                                      : "start";
        char head[400];
        std::snprintf(head, sizeof head,
                      "<text x=\"%.2f\" y=\"%.2f\" font-family=\"%s, sans-serif\" font-size=\"%.2f\"%s fill=\"%s\" "
                      "text-anchor=\"%s\" textLength=\"%.2f\" lengthAdjust=\"spacingAndGlyphs\"",
                      at.x, at.y, FONT, style.size, style.bold ? " font-weight=\"bold\"" : "",
                      svg_colour(style.colour).c_str(), anchor, width);
        texts += head;
        if (style.upwards) {
            std::snprintf(head, sizeof head, " transform=\"rotate(-90 %.2f %.2f)\"", at.x, at.y);
            texts += head;
        }
        texts += ">" + escaped(text) + "</text>\n";
    }
};

Canvas::Canvas(PictureFormat format, int32_t width, int32_t height) : drawing_(std::make_unique<Drawing>()) {
    Drawing& drawing = *drawing_;
    drawing.format = format;
    switch (format) {
        case PictureFormat::PNG:
            drawing.surface.reset(cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height));
            break;
        case PictureFormat::SVG:
            drawing.surface.reset(cairo_svg_surface_create_for_stream(append, &drawing.bytes, width, height));
            check(cairo_surface_status(drawing.surface.get()));
            cairo_svg_surface_set_document_unit(drawing.surface.get(), CAIRO_SVG_UNIT_PX);
            break;
        case PictureFormat::PDF:
            drawing.surface.reset(cairo_pdf_surface_create_for_stream(append, &drawing.bytes, POINTS_A_PIXEL * width,
                                                                      POINTS_A_PIXEL * height));
            break;
    }
    check(cairo_surface_status(drawing.surface.get()));
    drawing.context.reset(cairo_create(drawing.surface.get()));
    check(cairo_status(drawing.context.get()));
    if (format == PictureFormat::PDF) cairo_scale(drawing.context.get(), POINTS_A_PIXEL, POINTS_A_PIXEL);
    fill({0, 0, static_cast<double>(width), static_cast<double>(height)}, {1, 1, 1});
}

Canvas::~Canvas() = default;

void Canvas::fill(const Box& box, const Colour& colour) {
    drawing_->set_colour(colour);
    cairo_rectangle(drawing_->context.get(), box.left, box.top, box.width, box.height);
    cairo_fill(drawing_->context.get());
}

void Canvas::outline(const Box& box, const Colour& colour, double line_width) {
    polygon({{box.left, box.top}, {box.right(), box.top}, {box.right(), box.bottom()}, {box.left, box.bottom()}},
            colour, line_width);
}

void Canvas::polygon(const std::vector<Point>& corners, const Colour& colour, double line_width) {
    cairo_t* const context = drawing_->context.get();
    drawing_->set_colour(colour);
    cairo_set_line_width(context, line_width);
    cairo_new_path(context);  // a text leaves a point behind
    for (const Point& corner : corners) cairo_line_to(context, corner.x, corner.y);
    cairo_close_path(context);
    cairo_stroke(context);
}

void Canvas::line(Point from, Point to, const Colour& colour, double line_width) {
    cairo_t* const context = drawing_->context.get();
    drawing_->set_colour(colour);
    cairo_set_line_width(context, line_width);
    cairo_move_to(context, from.x, from.y);
    cairo_line_to(context, to.x, to.y);
    cairo_stroke(context);
}

void Canvas::image(const Box& box, const Raster& raster) {
    const SurfacePtr source(cairo_image_surface_create(CAIRO_FORMAT_RGB24, raster.columns, raster.rows));
    check(cairo_surface_status(source.get()));
    unsigned char* const bytes = cairo_image_surface_get_data(source.get());
    const auto stride = static_cast<std::size_t>(cairo_image_surface_get_stride(source.get()));
    const auto columns = static_cast<std::size_t>(raster.columns);
    for (std::size_t row = 0; row < static_cast<std::size_t>(raster.rows); row++) {
        std::copy_n(raster.pixels.data() + row * columns, columns, reinterpret_cast<uint32_t*>(bytes + row * stride));
    }
    cairo_surface_mark_dirty(source.get());

    cairo_t* const context = drawing_->context.get();
    cairo_save(context);
    cairo_translate(context, box.left, box.top);
    cairo_scale(context, box.width / raster.columns, box.height / raster.rows);
    cairo_set_source_surface(context, source.get(), 0, 0);
    cairo_pattern_set_filter(cairo_get_source(context), CAIRO_FILTER_NEAREST);
    cairo_rectangle(context, 0, 0, raster.columns, raster.rows);
    cairo_fill(context);
    cairo_restore(context);
}

void Canvas::clip(const Box& box) {
    cairo_save(drawing_->context.get());
    cairo_rectangle(drawing_->context.get(), box.left, box.top, box.width, box.height);
    cairo_clip(drawing_->context.get());
}

void Canvas::unclip() {
    cairo_restore(drawing_->context.get());
}

void Canvas::text(Point at, const std::string& text, const TextStyle& style) {
    const std::string shown = clean(text);
    if (shown.empty()) return;
    drawing_->select_font(style.size, style.bold);
    const double width = drawing_->width_of(shown);
    if (drawing_->format == PictureFormat::SVG) {
        drawing_->add_svg_text(at, shown, style, width);
        return;
    }
    cairo_t* const context = drawing_->context.get();
    cairo_save(context);
    cairo_translate(context, at.x, at.y);
    if (style.upwards) cairo_rotate(context, -std::numbers::pi / 2);
    const double share = style.align == TextStyle::Align::CENTRE ? 0.5 : style.align == TextStyle::Align::RIGHT ? 1 : 0;
    cairo_move_to(context, -share * width, 0);
    drawing_->set_colour(style.colour);
    cairo_show_text(context, shown.c_str());
    cairo_restore(context);
}

double Canvas::text_width(const std::string& text, double size, bool bold) {
    drawing_->select_font(size, bold);
    return drawing_->width_of(clean(text));
}

std::string Canvas::finish() {
    Drawing& drawing = *drawing_;
    check(cairo_status(drawing.context.get()));
    if (drawing.format == PictureFormat::PNG) {
        check(cairo_surface_write_to_png_stream(drawing.surface.get(), append, &drawing.bytes));
    }
    cairo_surface_finish(drawing.surface.get());
    check(cairo_surface_status(drawing.surface.get()));
    if (drawing.format == PictureFormat::SVG) {
        const std::size_t end = drawing.bytes.rfind("</svg>");
        if (end == std::string::npos) throw std::runtime_error("the picture cannot be drawn");
        drawing.bytes.insert(end, drawing.texts);
    }
    return std::move(drawing.bytes);
}
