// Images into float tensors, written straight into the tensor's planes in one pass over the
// pixels, strip by strip so that a strip's intermediates stay in the cache:
//   8-bit colour      split into byte planes, each converted into its float plane;
//   8-bit monochrome  three table look-ups per pixel (linear value times its weight);
//   anything else     (alpha, 16-bit, float) the strip made float once, split into the planes,
//                     then composited over black or made linear luminance.
// cv::dnn::blobFromImage, by contrast, makes a float copy of the whole image before it splits.

#include <algorithm>
#include <array>
#include <cmath>
#include <new>
#include <opencv2/core.hpp>
#include <stdexcept>

#include "imaging/image.hpp"

namespace imaging {
namespace {

// Linear-light luminance of sRGB's primaries (ITU-R BT.709), in OpenCV's blue, green, red
// order. These are the weights a linear grey colour space applies to linear sRGB.
constexpr std::array<float, 3> kLuminanceWeights{0.0722f, 0.7152f, 0.2126f};

// Rows per strip: 16 rows of a 2048-pixel BGRA image in floats are 512 KB.
constexpr int kStripRows = 16;

double srgbToLinear(double v) {
  return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
}

RenderContext makeContext() {
  RenderContext context;
  context.srgbToLinear.create(1, 256, CV_32FC1);
  for (int i = 0; i < 256; ++i)
    context.srgbToLinear.at<float>(0, i) = static_cast<float>(srgbToLinear(i / 255.0));
  return context;
}

// The linear value of an sRGB value at any precision: a table of 4096 steps between 0 and 1,
// interpolated (within 3e-8 of the curve), and the formula outside it.
class Lineariser {
 public:
  static constexpr int kSteps = 4096;

  Lineariser() {
    for (int i = 0; i <= kSteps; ++i)
      table_[i] = static_cast<float>(srgbToLinear(double(i) / kSteps));
  }

  float operator()(float v) const {
    if (v <= 0.04045f) return v / 12.92f;
    if (v >= 1.0f) return static_cast<float>(srgbToLinear(v));
    const float position = v * kSteps;
    const int i = static_cast<int>(position);
    return table_[i] + (table_[i + 1] - table_[i]) * (position - static_cast<float>(i));
  }

 private:
  std::array<float, kSteps + 1> table_{};
};

// Each 8-bit value's linear light times its channel's weight, blue, green, red.
struct WeightedTables {
  std::array<std::array<float, 256>, 3> weighted{};

  WeightedTables() {
    const auto& linear = CIContextWrapper::shared().context.srgbToLinear;
    for (int c = 0; c < 3; ++c)
      for (int i = 0; i < 256; ++i) weighted[c][i] = kLuminanceWeights[c] * linear.at<float>(0, i);
  }
};

double fullScale(int depth) {
  return depth == CV_8U ? 255.0 : depth == CV_16U ? 65535.0 : 1.0;
}

// One image into its planes of the tensor (`planes[0]` red, then green, blue; or the one
// luminance plane), for the strips in `strips`.
void fillStrips(const cv::Mat& pixels, const std::vector<cv::Mat>& planes, bool monochrome,
                const cv::Range& strips) {
  static const Lineariser linearise;
  static const WeightedTables tables;
  const int width = pixels.cols;
  const int channels = pixels.channels();
  const bool bytes = pixels.depth() == CV_8U && channels == 3;
  cv::Mat work, alpha;
  std::vector<cv::Mat> parts(static_cast<std::size_t>(channels));
  for (int strip = strips.start; strip < strips.end; ++strip) {
    const cv::Range rows(strip * kStripRows, std::min(pixels.rows, (strip + 1) * kStripRows));
    const cv::Mat source = pixels.rowRange(rows);
    if (bytes && monochrome) {
      cv::Mat out = planes[0].rowRange(rows);
      for (int y = 0; y < source.rows; ++y) {
        const uchar* p = source.ptr<uchar>(y);
        float* o = out.ptr<float>(y);
        for (int x = 0; x < width; ++x, p += 3)
          o[x] = tables.weighted[0][p[0]] + tables.weighted[1][p[1]] + tables.weighted[2][p[2]];
      }
      continue;
    }
    if (bytes) {
      cv::split(source, parts);
      for (int c = 0; c < 3; ++c) {
        cv::Mat out = planes[2 - c].rowRange(rows);
        parts[c].convertTo(out, CV_32F, 1.0 / 255);
      }
      continue;
    }
    source.convertTo(work, CV_32F, 1.0 / fullScale(pixels.depth()));
    if (monochrome) {
      cv::Mat out = planes[0].rowRange(rows);
      for (int y = 0; y < work.rows; ++y) {
        const float* p = work.ptr<float>(y);
        float* o = out.ptr<float>(y);
        for (int x = 0; x < width; ++x, p += channels) {
          const float a = channels == 4 ? p[3] : 1.0f;
          o[x] = kLuminanceWeights[0] * linearise(p[0] * a) +
                 kLuminanceWeights[1] * linearise(p[1] * a) +
                 kLuminanceWeights[2] * linearise(p[2] * a);
        }
      }
      continue;
    }
    for (int c = 0; c < 3; ++c) parts[c] = planes[2 - c].rowRange(rows);
    if (channels == 4) parts[3] = alpha;
    cv::split(work, parts);
    if (channels == 4) {
      for (int c = 0; c < 3; ++c) cv::multiply(parts[c], parts[3], parts[c]);
      alpha = parts[3];  // kept for the next strip, so that split has nowhere to allocate
    }
  }
}

std::optional<MultiArray> convert(std::span<const Image> images, bool monochrome) {
  if (images.empty()) return std::nullopt;
  const cv::Size size = images.front().pixels().size();
  for (const auto& image : images)
    if (image.empty() || image.pixels().size() != size) return std::nullopt;
  const int channels = monochrome ? 1 : 3;
  const int shape[] = {static_cast<int>(images.size()), channels, size.height, size.width};
  cv::Mat blob(4, shape, CV_32F);
  const int strips = (size.height + kStripRows - 1) / kStripRows;
  for (std::size_t n = 0; n < images.size(); ++n) {
    std::vector<cv::Mat> planes;
    for (int c = 0; c < channels; ++c) {
      const int index[] = {static_cast<int>(n), c, 0, 0};
      planes.emplace_back(size.height, size.width, CV_32FC1, blob.ptr<float>(index));
    }
    const cv::Mat& pixels = images[n].pixels();
    cv::parallel_for_(cv::Range(0, strips), [&](const cv::Range& range) {
      fillStrips(pixels, planes, monochrome, range);
    });
  }
  return MultiArray(std::move(blob));
}

}  // namespace

const CIContextWrapper& CIContextWrapper::shared() {
  static const CIContextWrapper wrapper{makeContext()};
  return wrapper;
}

MultiArray::MultiArray(cv::Mat blob) : blob_(std::move(blob)) {
  if (blob_.dims != 4 || blob_.type() != CV_32F || !blob_.isContinuous())
    throw std::invalid_argument("a multi-array is a continuous 4-dimensional float matrix");
}

std::vector<int> MultiArray::shape() const {
  return {blob_.size[0], blob_.size[1], blob_.size[2], blob_.size[3]};
}

std::span<const float> MultiArray::values() const {
  return {blob_.ptr<float>(), blob_.total()};
}

float MultiArray::at(int n, int c, int y, int x) const {
  const int index[] = {n, c, y, x};
  for (int i = 0; i < 4; ++i)
    if (index[i] < 0 || index[i] >= blob_.size[i])
      throw std::out_of_range("multi-array index out of range");
  return blob_.at<float>(index);
}

std::optional<MultiArray> Image::toMLMultiArray(bool monochrome) const {
  return toMLMultiArray(std::span<const Image>(this, 1), monochrome);
}

std::optional<MultiArray> Image::toMLMultiArray(std::span<const Image> images, bool monochrome) {
  try {
    return convert(images, monochrome);
  } catch (const cv::Exception&) {
    return std::nullopt;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

}  // namespace imaging
