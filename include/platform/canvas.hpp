#pragma once
/// A small image renderer over cairo: a canvas of a given size (one point is one pixel
/// here), rectangle fills, text in the system font, images drawn into rectangles, and PNG
/// encoding. Colours are sRGB components between 0 and 1.
///
///   platform::Canvas canvas({80, 80});
///   canvas.fill({0, 0, 80, 80}, platform::Color{0.2, 0.4, 0.8, 1});
///   auto font = platform::Font::system(40);
///   auto size = canvas.measureText("AB", font);
///   canvas.drawText("AB", {(80 - size.width) / 2, (80 - size.height) / 2, size.width,
///                          size.height}, font, platform::Color::white());
///   std::optional<std::string> png = canvas.pngData();

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

struct Color {
  double red = 0, green = 0, blue = 0, alpha = 1;

  static Color white() { return {1, 1, 1, 1}; }
  static Color black() { return {0, 0, 0, 1}; }
  static Color clear() { return {0, 0, 0, 0}; }
  bool operator==(const Color&) const = default;
};

struct Size {
  double width = 0, height = 0;
  bool operator==(const Size&) const = default;
};

struct Rect {
  double x = 0, y = 0, width = 0, height = 0;
};

/// A font by family name; "sans-serif" is the system font (DejaVu Sans on this system).
struct Font {
  std::string family = "sans-serif";
  double size = 17;
  bool bold = false;

  static Font system(double size) { return Font{"sans-serif", size, false}; }
  static Font boldSystem(double size) { return Font{"sans-serif", size, true}; }
};

/// How an image is drawn when the place it is drawn into has a tint of its own.
/// `alwaysTemplate` images take that tint (only their alpha counts); `alwaysOriginal` images
/// are drawn with their own colours. The canvas itself has no tint, so it draws every image
/// as it is; the mode is carried for the views that do.
enum class RenderingMode { automatic, alwaysOriginal, alwaysTemplate };

/// A bitmap with premultiplied alpha, shared by its copies (it is never changed in place).
class Image {
 public:
  /// An image of no pixels; drawing it draws nothing.
  Image();
  /// Decodes PNG bytes; none when they are not a PNG image.
  static std::optional<Image> fromPNG(std::string_view bytes);
  /// Decodes baseline or progressive JPEG bytes (greyscale, RGB or CMYK); none when they are
  /// not a JPEG image or hold more than 40 million pixels. A file cut short decodes with its
  /// missing rows grey, as viewers show it.
  static std::optional<Image> fromJPEG(std::string_view bytes);
  /// PNG or JPEG, told apart by their first bytes; none for anything else.
  static std::optional<Image> fromData(std::string_view bytes);

  bool isEmpty() const;
  Size size() const;
  RenderingMode renderingMode() const { return mode_; }

  /// A new image of the same size whose every pixel has `color`, with the alpha of this
  /// image's pixel (times the colour's alpha): the icon's shape painted in one colour.
  /// `mode` is stored on the result: `alwaysOriginal` keeps that colour wherever it is drawn.
  Image withTintColor(Color color, RenderingMode mode = RenderingMode::automatic) const;

  /// The colour of one pixel, not premultiplied; clear outside the image.
  Color pixel(int x, int y) const;

  /// PNG bytes; none when encoding fails or the image is empty.
  std::optional<std::string> pngData() const;
  /// JPEG bytes at a quality between 0 and 1, composited on white (JPEG has no alpha); none
  /// when encoding fails or the image is empty.
  std::optional<std::string> jpegData(double quality) const;

  struct Surface;  // the cairo surface; defined in the source file

 private:
  explicit Image(std::shared_ptr<Surface> surface, RenderingMode mode);
  friend class Canvas;
  std::shared_ptr<Surface> surface_;
  RenderingMode mode_ = RenderingMode::automatic;
};

/// A transparent drawing surface. Not for use by two threads at once; separate canvases on
/// separate threads are fine.
class Canvas {
 public:
  explicit Canvas(Size size);
  ~Canvas();
  Canvas(const Canvas&) = delete;
  Canvas& operator=(const Canvas&) = delete;

  Size size() const { return size_; }

  void fill(Rect rect, Color color);
  /// Fills a rectangle with rounded corners.
  void fillRoundedRect(Rect rect, double radius, Color color);

  /// The size a single line of `text` takes: its advance width and the font's line height
  /// (ascent plus descent), in whole points.
  Size measureText(std::string_view text, const Font& font) const;
  /// Draws one line of `text` with its top at the top of `rect`, starting at its left edge.
  /// The text is not wrapped or clipped.
  void drawText(std::string_view text, Rect rect, const Font& font, Color color);

  /// Draws `image` scaled to fill `rect`; with `circular` the image is clipped to the
  /// ellipse inscribed in `rect`.
  void drawImage(const Image& image, Rect rect, bool circular = false);

  /// Draws `image` scaled to cover `rect` (keeping its aspect ratio, centred, the overflow cut
  /// off) and clipped to `rect` with rounded corners; a radius of half the side makes a circle.
  void drawImageAspectFill(const Image& image, Rect rect, double cornerRadius = 0);

  /// A snapshot of what has been drawn so far.
  Image image() const;
  /// PNG bytes of what has been drawn so far; none when encoding fails.
  std::optional<std::string> pngData() const;

 private:
  struct State;
  Size size_;
  std::unique_ptr<State> state_;
};

}  // namespace platform
