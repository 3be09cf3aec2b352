#include "platform/canvas.hpp"

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <numbers>

namespace platform {

struct Image::Surface {
  cairo_surface_t* surface = nullptr;
  explicit Surface(cairo_surface_t* s) : surface(s) {}
  ~Surface() {
    if (surface) cairo_surface_destroy(surface);
  }
  Surface(const Surface&) = delete;
  Surface& operator=(const Surface&) = delete;
};

namespace {

// Where a PNG being decoded is read from.
struct ReadCursor {
  std::string_view bytes;
  std::size_t offset = 0;
};

cairo_status_t readPNG(void* closure, unsigned char* data, unsigned int length) {
  auto* cursor = static_cast<ReadCursor*>(closure);
  if (cursor->bytes.size() - cursor->offset < length) return CAIRO_STATUS_READ_ERROR;
  std::memcpy(data, cursor->bytes.data() + cursor->offset, length);
  cursor->offset += length;
  return CAIRO_STATUS_SUCCESS;
}

cairo_status_t writePNG(void* closure, const unsigned char* data, unsigned int length) {
  static_cast<std::string*>(closure)->append(reinterpret_cast<const char*>(data), length);
  return CAIRO_STATUS_SUCCESS;
}

std::optional<std::string> encodePNG(cairo_surface_t* surface) {
  if (!surface || cairo_surface_status(surface) != CAIRO_STATUS_SUCCESS) return std::nullopt;
  if (cairo_image_surface_get_width(surface) <= 0 || cairo_image_surface_get_height(surface) <= 0)
    return std::nullopt;
  cairo_surface_flush(surface);
  std::string out;
  if (cairo_surface_write_to_png_stream(surface, writePNG, &out) != CAIRO_STATUS_SUCCESS)
    return std::nullopt;
  return out;
}

int pixels(double points) {
  return std::max(0, static_cast<int>(std::ceil(points)));
}

void setColor(cairo_t* cr, Color c) {
  cairo_set_source_rgba(cr, c.red, c.green, c.blue, c.alpha);
}

void selectFont(cairo_t* cr, const Font& font) {
  cairo_select_font_face(cr, font.family.c_str(), CAIRO_FONT_SLANT_NORMAL,
                         font.bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
  cairo_set_font_size(cr, font.size);
}

void roundedRectPath(cairo_t* cr, Rect r, double radius) {
  radius = std::clamp(radius, 0.0, std::min(r.width, r.height) / 2);
  constexpr double quarter = std::numbers::pi / 2;
  cairo_new_sub_path(cr);
  cairo_arc(cr, r.x + r.width - radius, r.y + radius, radius, -quarter, 0);
  cairo_arc(cr, r.x + r.width - radius, r.y + r.height - radius, radius, 0, quarter);
  cairo_arc(cr, r.x + radius, r.y + r.height - radius, radius, quarter, 2 * quarter);
  cairo_arc(cr, r.x + radius, r.y + radius, radius, 2 * quarter, 3 * quarter);
  cairo_close_path(cr);
}

}  // namespace

// ---- Image

Image::Image() = default;

Image::Image(std::shared_ptr<Surface> surface, RenderingMode mode)
    : surface_(std::move(surface)), mode_(mode) {}

std::optional<Image> Image::fromPNG(std::string_view bytes) {
  ReadCursor cursor{bytes};
  auto surface =
      std::make_shared<Surface>(cairo_image_surface_create_from_png_stream(readPNG, &cursor));
  if (cairo_surface_status(surface->surface) != CAIRO_STATUS_SUCCESS) return std::nullopt;
  return Image(std::move(surface), RenderingMode::automatic);
}

bool Image::isEmpty() const {
  const auto s = size();
  return s.width <= 0 || s.height <= 0;
}

Size Image::size() const {
  if (!surface_) return {};
  return {static_cast<double>(cairo_image_surface_get_width(surface_->surface)),
          static_cast<double>(cairo_image_surface_get_height(surface_->surface))};
}

Image Image::withTintColor(Color color, RenderingMode mode) const {
  if (isEmpty()) return Image(nullptr, mode);
  const auto s = size();
  auto tinted = std::make_shared<Surface>(
      cairo_image_surface_create(CAIRO_FORMAT_ARGB32, pixels(s.width), pixels(s.height)));
  cairo_t* cr = cairo_create(tinted->surface);
  setColor(cr, color);
  cairo_mask_surface(cr, surface_->surface, 0, 0);
  cairo_destroy(cr);
  return Image(std::move(tinted), mode);
}

Color Image::pixel(int x, int y) const {
  if (isEmpty()) return Color::clear();
  cairo_surface_t* s = surface_->surface;
  cairo_surface_flush(s);
  if (x < 0 || y < 0 || x >= cairo_image_surface_get_width(s) ||
      y >= cairo_image_surface_get_height(s))
    return Color::clear();
  const auto format = cairo_image_surface_get_format(s);
  const unsigned char* row =
      cairo_image_surface_get_data(s) + y * cairo_image_surface_get_stride(s);
  std::uint32_t argb = 0;
  if (format == CAIRO_FORMAT_ARGB32 || format == CAIRO_FORMAT_RGB24) {
    std::memcpy(&argb, row + 4 * x, 4);
    if (format == CAIRO_FORMAT_RGB24) argb |= 0xFF000000u;
  } else if (format == CAIRO_FORMAT_A8) {
    argb = static_cast<std::uint32_t>(row[x]) << 24;
  } else {
    return Color::clear();
  }
  const double a = (argb >> 24) & 0xFF;
  if (a == 0) return Color::clear();
  auto channel = [&](int shift) { return std::min(1.0, ((argb >> shift) & 0xFF) / a); };
  return {channel(16), channel(8), channel(0), a / 255.0};
}

std::optional<std::string> Image::pngData() const {
  if (isEmpty()) return std::nullopt;
  return encodePNG(surface_->surface);
}

// ---- Canvas

struct Canvas::State {
  cairo_surface_t* surface = nullptr;
  cairo_t* cr = nullptr;
  ~State() {
    if (cr) cairo_destroy(cr);
    if (surface) cairo_surface_destroy(surface);
  }
};

Canvas::Canvas(Size size) : size_(size), state_(std::make_unique<State>()) {
  state_->surface =
      cairo_image_surface_create(CAIRO_FORMAT_ARGB32, pixels(size.width), pixels(size.height));
  state_->cr = cairo_create(state_->surface);
}

Canvas::~Canvas() = default;

void Canvas::fill(Rect r, Color color) {
  cairo_t* cr = state_->cr;
  cairo_save(cr);
  cairo_set_operator(cr, CAIRO_OPERATOR_OVER);
  setColor(cr, color);
  cairo_rectangle(cr, r.x, r.y, r.width, r.height);
  cairo_fill(cr);
  cairo_restore(cr);
}

void Canvas::fillRoundedRect(Rect r, double radius, Color color) {
  cairo_t* cr = state_->cr;
  cairo_save(cr);
  setColor(cr, color);
  roundedRectPath(cr, r, radius);
  cairo_fill(cr);
  cairo_restore(cr);
}

Size Canvas::measureText(std::string_view text, const Font& font) const {
  cairo_t* cr = state_->cr;
  cairo_save(cr);
  selectFont(cr, font);
  cairo_font_extents_t fe;
  cairo_font_extents(cr, &fe);
  cairo_text_extents_t te;
  const std::string line(text);
  cairo_text_extents(cr, line.c_str(), &te);
  cairo_restore(cr);
  return {std::ceil(te.x_advance), std::ceil(fe.ascent + fe.descent)};
}

void Canvas::drawText(std::string_view text, Rect rect, const Font& font, Color color) {
  cairo_t* cr = state_->cr;
  cairo_save(cr);
  selectFont(cr, font);
  cairo_font_extents_t fe;
  cairo_font_extents(cr, &fe);
  setColor(cr, color);
  cairo_move_to(cr, rect.x, rect.y + fe.ascent);
  const std::string line(text);
  cairo_show_text(cr, line.c_str());
  cairo_new_path(cr);
  cairo_restore(cr);
}

void Canvas::drawImage(const Image& image, Rect rect, bool circular) {
  if (image.isEmpty() || rect.width <= 0 || rect.height <= 0) return;
  cairo_t* cr = state_->cr;
  const auto s = image.size();
  cairo_save(cr);
  if (circular) {
    cairo_save(cr);
    cairo_translate(cr, rect.x + rect.width / 2, rect.y + rect.height / 2);
    cairo_scale(cr, rect.width / 2, rect.height / 2);
    cairo_arc(cr, 0, 0, 1, 0, 2 * std::numbers::pi);
    cairo_restore(cr);
    cairo_clip(cr);
  }
  cairo_translate(cr, rect.x, rect.y);
  cairo_scale(cr, rect.width / s.width, rect.height / s.height);
  cairo_set_source_surface(cr, image.surface_->surface, 0, 0);
  // Edge pixels repeat outwards so that a scaled image keeps a hard border.
  cairo_pattern_set_extend(cairo_get_source(cr), CAIRO_EXTEND_PAD);
  cairo_rectangle(cr, 0, 0, s.width, s.height);
  cairo_fill(cr);
  cairo_restore(cr);
}

Image Canvas::image() const {
  cairo_surface_flush(state_->surface);
  auto copy = std::make_shared<Image::Surface>(
      cairo_image_surface_create(CAIRO_FORMAT_ARGB32, pixels(size_.width), pixels(size_.height)));
  cairo_t* cr = cairo_create(copy->surface);
  cairo_set_source_surface(cr, state_->surface, 0, 0);
  cairo_set_operator(cr, CAIRO_OPERATOR_SOURCE);
  cairo_paint(cr);
  cairo_destroy(cr);
  return Image(std::move(copy), RenderingMode::automatic);
}

std::optional<std::string> Canvas::pngData() const {
  return encodePNG(state_->surface);
}

}  // namespace platform
