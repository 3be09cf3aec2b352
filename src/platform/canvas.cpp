#include "platform/canvas.hpp"

#include <cairo-ft.h>
#include <cairo.h>
#include <ft2build.h>
#include FT_FREETYPE_H
#include <jpeglib.h>

#include <algorithm>
#include <cmath>
#include <csetjmp>
#include <cstdint>
#include <cstdio>
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

constexpr const char* kSystemFontDirectory = "/usr/share/fonts/truetype/dejavu/";

int pixels(double points) {
  return std::max(0, static_cast<int>(std::ceil(points)));
}

void setColor(cairo_t* cr, Color c) {
  cairo_set_source_rgba(cr, c.red, c.green, c.blue, c.alpha);
}

// The system font straight from its file. Going through fontconfig instead costs its whole
// configuration (about 15 ms and 1 MB at the first text of a process), which a notification
// extension with one line of initials to draw cannot spare. The faces live for the process.
cairo_font_face_t* loadSystemFace(const char* file) {
  static FT_Library library = [] {
    FT_Library lib = nullptr;
    return FT_Init_FreeType(&lib) == 0 ? lib : nullptr;
  }();
  if (!library) return nullptr;
  FT_Face face = nullptr;
  if (FT_New_Face(library, (std::string(kSystemFontDirectory) + file).c_str(), 0, &face) != 0)
    return nullptr;
  cairo_font_face_t* fontFace = cairo_ft_font_face_create_for_ft_face(face, 0);
  if (cairo_font_face_status(fontFace) != CAIRO_STATUS_SUCCESS) {
    cairo_font_face_destroy(fontFace);
    FT_Done_Face(face);
    return nullptr;
  }
  return fontFace;
}

// Each weight is loaded at its first use: most processes draw one of them only, and a face
// costs its file's pages and FreeType's parse.
cairo_font_face_t* systemFace(bool bold) {
  if (bold) {
    static cairo_font_face_t* boldFace = loadSystemFace("DejaVuSans-Bold.ttf");
    return boldFace;
  }
  static cairo_font_face_t* regular = loadSystemFace("DejaVuSans.ttf");
  return regular;
}

void selectFont(cairo_t* cr, const Font& font) {
  cairo_font_face_t* face = font.family == "sans-serif" ? systemFace(font.bold) : nullptr;
  if (face)
    cairo_set_font_face(cr, face);
  else  // another family, or no DejaVu file where Debian puts it: let fontconfig find one
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

// libjpeg reports a fatal error by calling error_exit, which must not return; jumping back
// to the decoder's frame keeps a corrupt file from ending the process.
struct JPEGErrorManager {
  jpeg_error_mgr base;
  std::jmp_buf jump;
};

void onJPEGError(j_common_ptr info) {
  std::longjmp(reinterpret_cast<JPEGErrorManager*>(info->err)->jump, 1);
}

void ignoreJPEGMessage(j_common_ptr) {}

constexpr long long kMaxDecodedPixels = 40'000'000;

// Decodes into a cairo surface; returns null on any error. Kept free of C++ objects with
// destructors between setjmp and the last libjpeg call, as longjmp skips them.
cairo_surface_t* decodeJPEG(const unsigned char* data, unsigned long size) {
  jpeg_decompress_struct info;
  JPEGErrorManager error;
  info.err = jpeg_std_error(&error.base);
  error.base.error_exit = onJPEGError;
  error.base.output_message = ignoreJPEGMessage;
  cairo_surface_t* volatile surface = nullptr;
  unsigned char* volatile row = nullptr;
  if (setjmp(error.jump)) {
    jpeg_destroy_decompress(&info);
    if (surface) cairo_surface_destroy(surface);
    std::free(row);
    return nullptr;
  }
  jpeg_create_decompress(&info);
  jpeg_mem_src(&info, data, size);
  jpeg_read_header(&info, TRUE);
  const bool cmyk = info.jpeg_color_space == JCS_CMYK || info.jpeg_color_space == JCS_YCCK;
  info.out_color_space = cmyk ? JCS_CMYK : JCS_RGB;
  jpeg_start_decompress(&info);
  const auto width = static_cast<int>(info.output_width);
  const auto height = static_cast<int>(info.output_height);
  // A picture larger than any screen is refused rather than given gigabytes of memory.
  if (static_cast<long long>(width) * height > kMaxDecodedPixels) std::longjmp(error.jump, 1);
  surface = cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height);
  if (cairo_surface_status(surface) != CAIRO_STATUS_SUCCESS) std::longjmp(error.jump, 1);
  row = static_cast<unsigned char*>(std::malloc(static_cast<std::size_t>(width) * 4));
  unsigned char* pixels = cairo_image_surface_get_data(surface);
  const int stride = cairo_image_surface_get_stride(surface);
  while (info.output_scanline < info.output_height) {
    const auto y = static_cast<int>(info.output_scanline);
    JSAMPROW rows[1] = {row};
    jpeg_read_scanlines(&info, rows, 1);
    auto* out = reinterpret_cast<std::uint32_t*>(pixels + y * stride);
    for (int x = 0; x < width; ++x) {
      std::uint32_t r, g, b;
      if (cmyk) {  // Adobe writes inverted CMYK; multiplying by K gives RGB
        const unsigned char* p = row + 4 * x;
        r = p[0] * p[3] / 255u, g = p[1] * p[3] / 255u, b = p[2] * p[3] / 255u;
      } else {
        const unsigned char* p = row + 3 * x;
        r = p[0], g = p[1], b = p[2];
      }
      out[x] = 0xFF000000u | r << 16 | g << 8 | b;
    }
  }
  jpeg_finish_decompress(&info);
  jpeg_destroy_decompress(&info);
  std::free(row);
  cairo_surface_mark_dirty(surface);
  return surface;
}

// Encodes opaque pixels of an ARGB32 or RGB24 surface; null output on any error.
bool encodeJPEG(cairo_surface_t* s, int quality, std::string& out) {
  jpeg_compress_struct info;
  JPEGErrorManager error;
  info.err = jpeg_std_error(&error.base);
  error.base.error_exit = onJPEGError;
  error.base.output_message = ignoreJPEGMessage;
  // libjpeg grows the output by replacing `target` through its address, so the error path
  // frees whatever it holds then.
  unsigned char* target = nullptr;
  unsigned long size = 0;
  unsigned char* volatile row = nullptr;
  if (setjmp(error.jump)) {
    jpeg_destroy_compress(&info);
    std::free(target);
    std::free(row);
    return false;
  }
  jpeg_create_compress(&info);
  jpeg_mem_dest(&info, &target, &size);
  const bool opaque = cairo_image_surface_get_format(s) == CAIRO_FORMAT_RGB24;
  const int width = cairo_image_surface_get_width(s);
  const int height = cairo_image_surface_get_height(s);
  info.image_width = static_cast<JDIMENSION>(width);
  info.image_height = static_cast<JDIMENSION>(height);
  info.input_components = 3;
  info.in_color_space = JCS_RGB;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, quality, TRUE);
  jpeg_start_compress(&info, TRUE);
  row = static_cast<unsigned char*>(std::malloc(static_cast<std::size_t>(width) * 3));
  const unsigned char* pixels = cairo_image_surface_get_data(s);
  const int stride = cairo_image_surface_get_stride(s);
  while (info.next_scanline < info.image_height) {
    const auto* in = reinterpret_cast<const std::uint32_t*>(
        pixels + static_cast<int>(info.next_scanline) * stride);
    for (int x = 0; x < width; ++x) {
      const std::uint32_t p = opaque ? (in[x] | 0xFF000000u) : in[x];
      const std::uint32_t white = 255 - (p >> 24);  // premultiplied colour over white
      row[3 * x] = static_cast<unsigned char>(((p >> 16) & 0xFF) + white);
      row[3 * x + 1] = static_cast<unsigned char>(((p >> 8) & 0xFF) + white);
      row[3 * x + 2] = static_cast<unsigned char>((p & 0xFF) + white);
    }
    JSAMPROW rows[1] = {row};
    jpeg_write_scanlines(&info, rows, 1);
  }
  jpeg_finish_compress(&info);
  out.assign(reinterpret_cast<const char*>(target), size);
  jpeg_destroy_compress(&info);
  std::free(target);
  std::free(row);
  return true;
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

std::optional<Image> Image::fromJPEG(std::string_view bytes) {
  if (bytes.size() < 3 || static_cast<unsigned char>(bytes[0]) != 0xFF ||
      static_cast<unsigned char>(bytes[1]) != 0xD8)
    return std::nullopt;
  cairo_surface_t* surface =
      decodeJPEG(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
  if (!surface) return std::nullopt;
  return Image(std::make_shared<Surface>(surface), RenderingMode::automatic);
}

std::optional<Image> Image::fromData(std::string_view bytes) {
  if (bytes.starts_with("\x89PNG")) return fromPNG(bytes);
  return fromJPEG(bytes);
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

std::optional<std::string> Image::jpegData(double quality) const {
  if (isEmpty()) return std::nullopt;
  cairo_surface_t* s = surface_->surface;
  cairo_surface_flush(s);
  const auto format = cairo_image_surface_get_format(s);
  if (format != CAIRO_FORMAT_ARGB32 && format != CAIRO_FORMAT_RGB24) return std::nullopt;
  std::string out;
  const int q = static_cast<int>(std::lround(std::clamp(quality, 0.0, 1.0) * 100));
  if (!encodeJPEG(s, std::max(1, q), out)) return std::nullopt;
  return out;
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

void Canvas::drawImageAspectFill(const Image& image, Rect rect, double cornerRadius) {
  if (image.isEmpty() || rect.width <= 0 || rect.height <= 0) return;
  cairo_t* cr = state_->cr;
  const auto s = image.size();
  const double scale = std::max(rect.width / s.width, rect.height / s.height);
  cairo_save(cr);
  roundedRectPath(cr, rect, cornerRadius);
  cairo_clip(cr);
  cairo_translate(cr, rect.x + (rect.width - s.width * scale) / 2,
                  rect.y + (rect.height - s.height * scale) / 2);
  cairo_scale(cr, scale, scale);
  cairo_set_source_surface(cr, image.surface_->surface, 0, 0);
  cairo_pattern_set_extend(cairo_get_source(cr), CAIRO_EXTEND_PAD);
  cairo_paint(cr);
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
