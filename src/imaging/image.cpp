#include "imaging/image.hpp"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <iterator>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/clamping.hpp"

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

cv::Mat normalised(cv::Mat pixels) {
  if (pixels.empty()) return pixels;
  if (pixels.depth() == CV_16U) {
    pixels.convertTo(pixels, CV_8U, 1.0 / 257);
  } else if (pixels.depth() == CV_32F || pixels.depth() == CV_64F) {
    pixels.convertTo(pixels, CV_8U, 255);
  } else if (pixels.depth() != CV_8U) {
    return {};
  }
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
  if (pixels.depth() != CV_8U) throw std::invalid_argument("an image takes 8-bit pixels");
  pixels_ = normalised(std::move(pixels));
  if (pixels_.empty()) throw std::invalid_argument("an image takes grey, BGR or BGRA pixels");
}

// Read here rather than by cv::imread, which reports a missing file on standard error.
std::optional<Image> Image::load(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  const std::vector<unsigned char> bytes{std::istreambuf_iterator<char>(file),
                                         std::istreambuf_iterator<char>()};
  if (file.bad()) return std::nullopt;
  return decode(bytes);
}

std::optional<Image> Image::decode(std::span<const unsigned char> bytes) {
  if (bytes.empty()) return std::nullopt;
  cv::Mat pixels;
  try {
    // imdecode reads without copying when handed a matrix over the caller's bytes.
    const cv::Mat encoded(1, static_cast<int>(bytes.size()), CV_8UC1,
                          const_cast<unsigned char*>(bytes.data()));
    pixels = normalised(cv::imdecode(encoded, cv::IMREAD_UNCHANGED));
  } catch (const cv::Exception&) {
    return std::nullopt;
  }
  if (pixels.empty()) return std::nullopt;
  return Image(std::move(pixels));
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
  const auto byte = [](double component) {
    return std::round(core::clamped(component, 0.0, 1.0) * 255);
  };
  const bool alpha = hasAlpha() || byte(fillColor.alpha) < 255;
  cv::Mat source = pixels_;
  if (alpha && !hasAlpha()) cv::cvtColor(pixels_, source, cv::COLOR_BGR2BGRA);
  cv::Mat canvas(height, width, alpha ? CV_8UC4 : CV_8UC3,
                 cv::Scalar(byte(fillColor.blue), byte(fillColor.green), byte(fillColor.red),
                            byte(fillColor.alpha)));
  const cv::Rect place((width - scaled.width) / 2, (height - scaled.height) / 2, scaled.width,
                       scaled.height);
  cv::Mat target = canvas(place);
  cv::resize(source, target, scaled, 0, 0, interpolationFlag(sampling));
  return Image(std::move(canvas));
}

}  // namespace imaging
