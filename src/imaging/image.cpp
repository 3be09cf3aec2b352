#include "imaging/image.hpp"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/clamping.hpp"
#include "imaging/internal/colour.hpp"
#include "imaging/internal/container.hpp"
#include "imaging/internal/log.hpp"

namespace imaging {
namespace {

// Rounded to whole pixels, at least one: a scaled thumbnail of a very wide image must keep
// a row rather than vanish.
int pixelCount(double side, const char* what) {
  if (!std::isfinite(side) || side <= 0)
    throw std::invalid_argument(std::string(what) + " must be a finite positive size, not " +
                                std::to_string(side));
  const double rounded = std::max(1.0, std::round(side));
  if (rounded > kMaxSide)
    throw std::invalid_argument(std::string(what) + " of " + std::to_string(side) +
                                " pixels is past the limit of " + std::to_string(kMaxSide));
  return static_cast<int>(rounded);
}

double positive(double value, const char* what) {
  if (!std::isfinite(value) || value <= 0)
    throw std::invalid_argument(std::string(what) + " must be finite and positive, not " +
                                std::to_string(value));
  return value;
}

// Grey becomes BGR; doubles become floats; any other depth or channel count is refused.
cv::Mat normalised(cv::Mat pixels) {
  if (pixels.empty()) return pixels;
  if (pixels.depth() == CV_64F) pixels.convertTo(pixels, CV_32F);
  const int depth = pixels.depth();
  if (depth != CV_8U && depth != CV_16U && depth != CV_32F) return {};
  switch (pixels.channels()) {
    case 1:
      cv::cvtColor(pixels, pixels, cv::COLOR_GRAY2BGR);
      return pixels;
    case 3:
    case 4:
      return pixels;
    default:
      return {};
  }
}

// Divides premultiplied colour by its alpha; a transparent pixel keeps its zeros.
template <typename T>
void unpremultiply(cv::Mat& pixels, double full) {
  for (int y = 0; y < pixels.rows; ++y) {
    auto* p = pixels.ptr<cv::Vec<T, 4>>(y);
    for (int x = 0; x < pixels.cols; ++x) {
      const double alpha = p[x][3];
      if (alpha <= 0 || alpha >= full) continue;
      for (int c = 0; c < 3; ++c)
        p[x][c] = cv::saturate_cast<T>(std::min(full, p[x][c] * full / alpha));
    }
  }
}

cv::Mat oriented(const cv::Mat& pixels, int orientation) {
  cv::Mat out;
  switch (orientation) {
    case 2:
      cv::flip(pixels, out, 1);
      return out;
    case 3:
      cv::rotate(pixels, out, cv::ROTATE_180);
      return out;
    case 4:
      cv::flip(pixels, out, 0);
      return out;
    case 5:
      cv::transpose(pixels, out);
      return out;
    case 6:
      cv::rotate(pixels, out, cv::ROTATE_90_CLOCKWISE);
      return out;
    case 7:
      cv::transpose(pixels, out);
      cv::rotate(out, out, cv::ROTATE_180);
      return out;
    case 8:
      cv::rotate(pixels, out, cv::ROTATE_90_COUNTERCLOCKWISE);
      return out;
    default:
      return pixels;
  }
}

std::string count(std::uint64_t n) {
  return std::to_string(n);
}

// The image, or none with the reason; an image with a reason is partial.
struct Decoded {
  std::optional<Image> image;
  std::string problem;
};

Decoded decodeBytes(std::span<const unsigned char> bytes, const DecodeLimits& limits) {
  if (bytes.empty()) return {std::nullopt, "there are no bytes"};
  if (bytes.size() > limits.maxBytes)
    return {std::nullopt,
            count(bytes.size()) + " bytes are past the limit of " + count(limits.maxBytes)};
  const auto container = internal::inspect(bytes);
  const auto tooMany = [&](std::uint64_t width, std::uint64_t height) {
    return width * height > limits.maxPixels || (height != 0 && width > limits.maxPixels / height);
  };
  const auto pixelProblem = [&](std::uint64_t width, std::uint64_t height) {
    return count(width) + " x " + count(height) + " pixels are past the limit of " +
           count(limits.maxPixels);
  };
  if (tooMany(container.width, container.height))
    return {std::nullopt, pixelProblem(container.width, container.height)};
  cv::Mat pixels;
  try {
    // imdecode reads without copying when handed a matrix over the caller's bytes.
    const cv::Mat encoded(1, static_cast<int>(bytes.size()), CV_8UC1,
                          const_cast<unsigned char*>(bytes.data()));
    pixels = cv::imdecode(encoded, cv::IMREAD_UNCHANGED);
  } catch (const cv::Exception& e) {
    return {std::nullopt, "OpenCV cannot decode it: " + e.msg};
  }
  if (pixels.empty())
    return {std::nullopt,
            container.truncated ? "the data ends early" : "it is not an image OpenCV decodes"};
  if (tooMany(static_cast<std::uint64_t>(pixels.cols), static_cast<std::uint64_t>(pixels.rows)))
    return {std::nullopt, pixelProblem(static_cast<std::uint64_t>(pixels.cols),
                                       static_cast<std::uint64_t>(pixels.rows))};
  if (pixels.depth() == CV_64F) pixels.convertTo(pixels, CV_32F);
  // OpenCV reads 8-bit TIFFs through libtiff's RGBA interface, which premultiplies alpha the
  // file calls unassociated and passes associated (premultiplied) alpha through; deeper TIFFs
  // come as stored. Unspecified alpha is taken as straight, as libtiff passes it.
  const bool tiff = container.format == internal::Format::tiff;
  const int extra = container.tiffExtraSamples;
  if (tiff && pixels.channels() == 4 && (extra == 1 || (extra == 2 && pixels.depth() == CV_8U))) {
    if (pixels.depth() == CV_8U) unpremultiply<uchar>(pixels, 255);
    if (pixels.depth() == CV_16U) unpremultiply<ushort>(pixels, 65535);
    if (pixels.depth() == CV_32F) unpremultiply<float>(pixels, 1);
  }
  if (!container.iccProblem.empty())
    internal::log().error(container.iccProblem + "; the pixels are taken as sRGB");
  // OpenCV's TIFF reader applies the orientation itself, even with IMREAD_UNCHANGED.
  pixels = normalised(oriented(internal::toSrgb(std::move(pixels), container.iccProfile),
                               tiff ? 1 : container.orientation));
  if (pixels.empty()) return {std::nullopt, "its pixels are neither 8-bit, 16-bit nor float"};
  Decoded decoded{Image(std::move(pixels)), {}};
  if (container.truncated) decoded.problem = "the data ends early; the image is partial";
  return decoded;
}

// The file's bytes, or none with the reason in `problem`. Only regular files are read: a
// device such as /dev/zero would never end.
std::optional<std::vector<unsigned char>> readFile(const std::filesystem::path& path,
                                                   const DecodeLimits& limits,
                                                   std::string& problem) {
  std::error_code error;
  const auto status = std::filesystem::status(path, error);
  if (error) {
    problem = error.message();
    return std::nullopt;
  }
  if (std::filesystem::is_directory(status)) {
    problem = "it is a directory";
    return std::nullopt;
  }
  if (!std::filesystem::is_regular_file(status)) {
    problem = "it is not a regular file";
    return std::nullopt;
  }
  const auto size = std::filesystem::file_size(path, error);
  if (error) {
    problem = error.message();
    return std::nullopt;
  }
  if (size > limits.maxBytes) {
    problem = count(size) + " bytes are past the limit of " + count(limits.maxBytes);
    return std::nullopt;
  }
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"), std::fclose);
  if (!file) {
    problem = std::strerror(errno);
    return std::nullopt;
  }
  std::vector<unsigned char> bytes(size);
  if (std::fread(bytes.data(), 1, bytes.size(), file.get()) != bytes.size()) {
    problem = std::ferror(file.get()) ? std::strerror(errno) : "the file shrank while it was read";
    return std::nullopt;
  }
  return bytes;
}

}  // namespace

int interpolationFlag(SamplingAlgorithm sampling) {
  switch (sampling) {
    case SamplingAlgorithm::bicubic:
      return cv::INTER_CUBIC;
    case SamplingAlgorithm::lanczos:
      return cv::INTER_LANCZOS4;
    case SamplingAlgorithm::bilinear:
      break;
  }
  return cv::INTER_LINEAR;
}

Image::Image(cv::Mat pixels) {
  if (pixels.empty()) return;
  const int depth = pixels.depth();
  if (depth != CV_8U && depth != CV_16U && depth != CV_32F)
    throw std::invalid_argument("an image takes 8-bit, 16-bit or float pixels");
  pixels_ = normalised(std::move(pixels));
  if (pixels_.empty()) throw std::invalid_argument("an image takes grey, BGR or BGRA pixels");
}

// Read here rather than by cv::imread, which reports a missing file on standard error.
std::optional<Image> Image::load(const std::filesystem::path& path, const DecodeLimits& limits) {
  std::string problem;
  Decoded decoded;
  try {
    if (const auto bytes = readFile(path, limits, problem)) decoded = decodeBytes(*bytes, limits);
  } catch (const std::exception& e) {
    problem = e.what();
  } catch (...) {
    problem = "an unknown failure";
  }
  if (!decoded.problem.empty()) problem = decoded.problem;
  if (!problem.empty()) internal::log().error("image " + path.string() + ": " + problem);
  return std::move(decoded.image);
}

std::optional<Image> Image::decode(std::span<const unsigned char> bytes,
                                   const DecodeLimits& limits) {
  Decoded decoded;
  try {
    decoded = decodeBytes(bytes, limits);
  } catch (const std::exception& e) {
    decoded = {std::nullopt, e.what()};
  } catch (...) {
    decoded = {std::nullopt, "an unknown failure"};
  }
  if (!decoded.problem.empty())
    internal::log().error("image of " + count(bytes.size()) + " bytes: " + decoded.problem);
  return std::move(decoded.image);
}

Rect Image::extent() const {
  return Rect{0, 0, static_cast<double>(pixels_.cols), static_cast<double>(pixels_.rows)};
}

Image Image::resizedTo(Size size, SamplingAlgorithm sampling) const {
  const cv::Size target(pixelCount(size.width, "width"), pixelCount(size.height, "height"));
  if (empty()) throw std::invalid_argument("an empty image cannot be resized");
  if (target == pixels_.size()) return *this;
  cv::Mat out;
  cv::resize(pixels_, out, target, 0, 0, interpolationFlag(sampling));
  return Image(std::move(out));
}

Image Image::resizedToWidth(double width, SamplingAlgorithm sampling) const {
  positive(width, "width");
  return scaledBy(width / pixels_.cols, sampling);
}

Image Image::resizedToHeight(double height, SamplingAlgorithm sampling) const {
  positive(height, "height");
  return scaledBy(height / pixels_.rows, sampling);
}

Image Image::resizedToMaxSideLength(double length, SamplingAlgorithm sampling) const {
  positive(length, "max side length");
  return scaledBy(length / std::max(pixels_.cols, pixels_.rows), sampling);
}

Image Image::scaledBy(double factor, SamplingAlgorithm sampling) const {
  return scaledBy(factor, factor, sampling);
}

Image Image::scaledBy(double scaleX, double scaleY, SamplingAlgorithm sampling) const {
  positive(scaleX, "horizontal scale");
  positive(scaleY, "vertical scale");
  return resizedTo({pixels_.cols * scaleX, pixels_.rows * scaleY}, sampling);
}

Image Image::scaledToMaxDimensions(Size maxDimensions, SamplingAlgorithm sampling) const {
  positive(maxDimensions.width, "maximum width");
  positive(maxDimensions.height, "maximum height");
  return scaledBy(std::min(maxDimensions.width / pixels_.cols, maxDimensions.height / pixels_.rows),
                  sampling);
}

Image Image::resizeAspectFill(Size size, Point offset, SamplingAlgorithm sampling) const {
  const int width = pixelCount(size.width, "width");
  const int height = pixelCount(size.height, "height");
  if (empty()) throw std::invalid_argument("an empty image cannot be resized");
  const double scale = std::max(static_cast<double>(width) / pixels_.cols,
                                static_cast<double>(height) / pixels_.rows);
  // Each side at least the target's: rounding must not leave the crop a pixel short.
  const cv::Size scaled(std::max(width, pixelCount(pixels_.cols * scale, "scaled width")),
                        std::max(height, pixelCount(pixels_.rows * scale, "scaled height")));
  cv::Mat resized;
  cv::resize(pixels_, resized, scaled, 0, 0, interpolationFlag(sampling));
  const auto origin = [](int available, int wanted, double shift) {
    const double centred = (available - wanted) / 2.0 + (std::isfinite(shift) ? shift : 0.0);
    return static_cast<int>(
        std::lround(core::clamped(centred, 0.0, static_cast<double>(available - wanted))));
  };
  const cv::Rect crop(origin(scaled.width, width, offset.x),
                      origin(scaled.height, height, offset.y), width, height);
  return Image(resized(crop).clone());
}

Image Image::resizeAspectFit(Size size, SamplingAlgorithm sampling, Color fillColor) const {
  const int width = pixelCount(size.width, "width");
  const int height = pixelCount(size.height, "height");
  if (empty()) throw std::invalid_argument("an empty image cannot be resized");
  const double scale = std::min(static_cast<double>(width) / pixels_.cols,
                                static_cast<double>(height) / pixels_.rows);
  const cv::Size scaled(std::min(width, pixelCount(pixels_.cols * scale, "scaled width")),
                        std::min(height, pixelCount(pixels_.rows * scale, "scaled height")));
  // The fill at the pixels' own depth: 255, 65535 or 1 is a full component.
  const double full = pixels_.depth() == CV_8U ? 255 : pixels_.depth() == CV_16U ? 65535 : 1;
  const auto level = [full](double component) {
    const double value = core::clamped(component, 0.0, 1.0) * full;
    return full > 1 ? std::round(value) : value;
  };
  const bool alpha = hasAlpha() || level(fillColor.alpha) < full;
  cv::Mat source = pixels_;
  if (alpha && !hasAlpha()) cv::cvtColor(pixels_, source, cv::COLOR_BGR2BGRA);
  cv::Mat canvas(height, width, CV_MAKETYPE(pixels_.depth(), alpha ? 4 : 3),
                 cv::Scalar(level(fillColor.blue), level(fillColor.green), level(fillColor.red),
                            level(fillColor.alpha)));
  const cv::Rect place((width - scaled.width) / 2, (height - scaled.height) / 2, scaled.width,
                       scaled.height);
  cv::Mat target = canvas(place);
  cv::resize(source, target, scaled, 0, 0, interpolationFlag(sampling));
  return Image(std::move(canvas));
}

}  // namespace imaging
