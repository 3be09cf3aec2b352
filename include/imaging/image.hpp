#pragma once
/// Images for the machine-learning side of the application: loading, resizing and scaling,
/// and conversion into float tensors.
///
///   auto image = imaging::Image::load("photo.jpg");          // std::optional<Image>
///   auto input = image->resizedToMaxSideLength(512, imaging::SamplingAlgorithm::lanczos)
///                    .toMLMultiArray(false);                  // shape [1, 3, H, W]
///   float red = input->at(0, 0, 10, 20);                      // row 10, column 20
///
/// An image holds the pixels a person sees, in OpenCV's order: blue, green, red, and alpha
/// when the source had one. Loading makes them so, once:
///
/// - Colour: an embedded ICC profile (PNG iCCP, JPEG APP2, TIFF, WebP ICCP) is converted to
///   sRGB by LittleCMS with the relative colorimetric intent: colours inside sRGB keep their
///   exact values and only those outside are clipped to its edge, which is what a
///   colour-managed viewer shows on an sRGB screen. The perceptual intent would move every
///   colour to make room for the few outside, and the profiles phones and cameras write
///   (Display P3, Adobe RGB) are matrix-shaper profiles with no perceptual table, for which
///   LittleCMS falls back to colorimetric anyway: one intent gives one answer for every file.
///   An image without a profile is sRGB; a profile that cannot be read, or does not fit the
///   pixels, is reported once in the log (per profile) and the pixels are taken as sRGB.
/// - Orientation: the EXIF orientation (all eight values) of a JPEG, PNG (eXIf), WebP or TIFF
///   is applied, alpha included, so the extent is the one the person sees.
/// - Alpha: pixels are straight (not premultiplied), whatever the reader hands back: a TIFF
///   whose file stores associated alpha, and an 8-bit TIFF with unassociated alpha (which
///   libtiff premultiplies under OpenCV), are divided back.
/// - Depth: 8-bit, 16-bit and float sources keep their depth (float stays 32-bit) until the
///   tensor is made.
///
/// Its extent is its pixel size with the origin at (0, 0).
///
/// Sizes that cannot be pixel counts (not finite, not positive, or a side past `kMaxSide`)
/// are a programming error: the resizing operations throw `std::invalid_argument` for them.

#include <cstdint>
#include <filesystem>
#include <opencv2/core/mat.hpp>
#include <optional>
#include <span>
#include <vector>

namespace imaging {

/// The longest side a resizing operation may produce.
inline constexpr int kMaxSide = 1 << 15;

struct Size {
  double width = 0;
  double height = 0;
};

struct Point {
  double x = 0;
  double y = 0;
};

struct Rect {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;
};

/// Components from 0 to 1, not premultiplied.
struct Color {
  double red = 0;
  double green = 0;
  double blue = 0;
  double alpha = 1;
};

/// How pixels are resampled. Each case is OpenCV's interpolation of the same name:
/// bilinear is INTER_LINEAR, bicubic INTER_CUBIC, lanczos INTER_LANCZOS4 (8 by 8 taps).
enum class SamplingAlgorithm { bilinear, bicubic, lanczos };

/// OpenCV's interpolation flag for `sampling`.
int interpolationFlag(SamplingAlgorithm sampling);

/// What the conversions share, built once for the process: the table that makes sRGB values
/// linear. Reading it from several threads at once is safe.
struct RenderContext {
  /// 1 x 256, 32-bit float: the linear value of each 8-bit sRGB value.
  cv::Mat srgbToLinear;
};

/// Holds the rendering context every conversion uses.
struct CIContextWrapper {
  RenderContext context;

  static const CIContextWrapper& shared();
};

/// A float32 tensor of shape [N, C, H, W]: channel-first planes, each row-major.
class MultiArray {
 public:
  /// `blob` must be a continuous 4-dimensional CV_32F matrix.
  explicit MultiArray(cv::Mat blob);

  std::vector<int> shape() const;
  /// Every value, in [N, C, H, W] order.
  std::span<const float> values() const;
  float at(int n, int c, int y, int x) const;
  /// The tensor as OpenCV's dnn module takes it (`cv::dnn::Net::setInput`).
  const cv::Mat& blob() const { return blob_; }

 private:
  cv::Mat blob_;
};

/// What decoding may take on, against decompression bombs: a small file that declares a
/// huge picture is refused before its pixels are made (from the header of a PNG, JPEG, WebP,
/// TIFF or BMP; other formats are checked once decoded, their bytes being bounded).
struct DecodeLimits {
  std::uint64_t maxBytes = std::uint64_t{256} << 20;
  std::uint64_t maxPixels = std::uint64_t{1} << 28;
};

class Image {
 public:
  /// An empty image (extent 0 by 0).
  Image() = default;
  /// `pixels` must be 8-bit, 16-bit or 32-bit float with 1 (grey), 3 (BGR) or 4 (BGRA)
  /// channels, sRGB, straight alpha; grey becomes BGR. The pixels are shared, not copied.
  /// Throws `std::invalid_argument` for anything else.
  explicit Image(cv::Mat pixels);

  /// Any format OpenCV reads (JPEG, PNG, WebP, TIFF, BMP, ...), made into what a person sees
  /// (above). None, and one line in the log (subsystem "app.herald.imaging"), when the file
  /// cannot be read or decoded: missing, a directory or a device, past `limits`, or not an
  /// image. A JPEG cut short gives the part that is there (the rest grey) and a log line;
  /// other formats cut short give none. Nothing is thrown.
  static std::optional<Image> load(const std::filesystem::path& path,
                                   const DecodeLimits& limits = {});
  static std::optional<Image> decode(std::span<const unsigned char> bytes,
                                     const DecodeLimits& limits = {});

  Rect extent() const;
  bool empty() const { return pixels_.empty(); }
  bool hasAlpha() const { return pixels_.channels() == 4; }
  /// BGR or BGRA, sRGB, straight alpha; 8-bit (CV_8U), 16-bit (CV_16U) or float (CV_32F).
  const cv::Mat& pixels() const { return pixels_; }

  /// The width given, the height that keeps the aspect ratio.
  Image resizedToWidth(double width,
                       SamplingAlgorithm sampling = SamplingAlgorithm::bilinear) const;
  /// The height given, the width that keeps the aspect ratio.
  Image resizedToHeight(double height,
                        SamplingAlgorithm sampling = SamplingAlgorithm::bilinear) const;
  /// Exactly `size`; the aspect ratio is not kept.
  Image resizedTo(Size size, SamplingAlgorithm sampling = SamplingAlgorithm::bilinear) const;
  /// The longer side becomes `length` (up or down), the aspect ratio is kept.
  Image resizedToMaxSideLength(double length,
                               SamplingAlgorithm sampling = SamplingAlgorithm::bilinear) const;
  /// Both sides times `factor`.
  Image scaledBy(double factor, SamplingAlgorithm sampling = SamplingAlgorithm::bilinear) const;
  /// Width times `scaleX`, height times `scaleY`.
  Image scaledBy(double scaleX, double scaleY,
                 SamplingAlgorithm sampling = SamplingAlgorithm::bilinear) const;
  /// The largest size (up or down) that fits in `maxDimensions` with the aspect ratio kept.
  Image scaledToMaxDimensions(Size maxDimensions,
                              SamplingAlgorithm sampling = SamplingAlgorithm::bilinear) const;
  /// Exactly `size`: scaled with the aspect ratio kept until it covers `size`, then cropped.
  /// The crop is centred and moved by `offset` (in pixels of the result, x to the right,
  /// y down), but never past the scaled image's edges.
  Image resizeAspectFill(Size size, Point offset = {},
                         SamplingAlgorithm sampling = SamplingAlgorithm::bilinear) const;
  /// Exactly `size`: scaled with the aspect ratio kept until it fits, centred on `fillColor`.
  /// The result has an alpha channel when the image or a translucent fill needs one.
  Image resizeAspectFit(Size size, SamplingAlgorithm sampling = SamplingAlgorithm::bilinear,
                        Color fillColor = {0, 0, 0, 1}) const;

  /// The image as a model input: shape [1, 3, H, W] with red, green and blue planes in sRGB
  /// from 0 to 1, or with `monochrome` [1, 1, H, W] with the luminance in linear grey (see
  /// the source for the weights). Values come from the pixels at their own depth (a 16-bit
  /// source keeps its 65536 steps). Translucent pixels are composited over black once, here,
  /// on the sRGB-encoded values (colour c at alpha a gives c times a), not in linear light:
  /// that is how browsers and image viewers blend, so it is what the person saw; the
  /// monochrome plane is the linear luminance of that composite. None when the image is
  /// empty or memory runs out.
  std::optional<MultiArray> toMLMultiArray(bool monochrome) const;
  /// The images stacked along the batch dimension: [N, C, H, W]. None when there are no
  /// images, one is empty, or their sizes differ.
  static std::optional<MultiArray> toMLMultiArray(std::span<const Image> images, bool monochrome);

 private:
  cv::Mat pixels_;
};

}  // namespace imaging
