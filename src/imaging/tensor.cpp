// Images into float tensors. The colour planes are what cv::dnn::blobFromImage makes of the
// pixels (one conversion pass, one split), so a colour tensor costs what OpenCV's own input
// preparation costs; the monochrome plane goes through the linearising table and a weighted
// sum, strip by strip, so that the float intermediate stays in the cache.

#include <algorithm>
#include <cmath>
#include <new>
#include <opencv2/core.hpp>
#include <opencv2/dnn/dnn.hpp>
#include <opencv2/imgproc.hpp>
#include <stdexcept>

#include "imaging/image.hpp"

namespace imaging {
namespace {

// Linear-light luminance of sRGB's primaries (ITU-R BT.709), in OpenCV's blue, green, red
// order. These are the weights a linear grey colour space applies to linear sRGB.
const cv::Matx13f kLuminanceWeights(0.0722f, 0.7152f, 0.2126f);

// Rows per strip of the monochrome conversion: 64 rows of a 2048-pixel image in linear
// floats are 1.5 MB.
constexpr int kStripRows = 64;

RenderContext makeContext() {
  RenderContext context;
  context.srgbToLinear.create(1, 256, CV_32FC1);
  for (int i = 0; i < 256; ++i) {
    const double v = i / 255.0;
    context.srgbToLinear.at<float>(0, i) =
        static_cast<float>(v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4));
  }
  return context;
}

// Translucent pixels are taken as seen over black, the way a premultiplied renderer writes
// them into a destination without alpha.
cv::Mat opaque(const cv::Mat& pixels) {
  if (pixels.channels() != 4) return pixels;
  cv::Mat premultiplied, bgr;
  // Only the alpha position matters to premultiplying, so the RGBA code serves BGRA.
  cv::cvtColor(pixels, premultiplied, cv::COLOR_RGBA2mRGBA);
  cv::cvtColor(premultiplied, bgr, cv::COLOR_BGRA2BGR);
  return bgr;
}

// Writes the linear luminance of `bgr` into `plane` (CV_32FC1, same size).
void fillLuminance(const cv::Mat& bgr, cv::Mat plane, const RenderContext& context) {
  cv::Mat linear;
  for (int row = 0; row < bgr.rows; row += kStripRows) {
    const cv::Range rows(row, std::min(bgr.rows, row + kStripRows));
    cv::LUT(bgr.rowRange(rows), context.srgbToLinear, linear);
    cv::Mat out = plane.rowRange(rows);
    cv::transform(linear, out, kLuminanceWeights);
  }
}

std::optional<MultiArray> convert(std::span<const Image> images, bool monochrome) {
  if (images.empty()) return std::nullopt;
  const cv::Size size = images.front().pixels().size();
  std::vector<cv::Mat> pixels;
  pixels.reserve(images.size());
  for (const auto& image : images) {
    if (image.empty() || image.pixels().size() != size) return std::nullopt;
    pixels.push_back(opaque(image.pixels()));
  }
  if (!monochrome) {
    // Swapping red and blue in the same pass puts the planes in red, green, blue order.
    return MultiArray(cv::dnn::blobFromImages(pixels, 1.0 / 255, cv::Size(), cv::Scalar(),
                                              /*swapRB=*/true, /*crop=*/false, CV_32F));
  }
  const int shape[] = {static_cast<int>(pixels.size()), 1, size.height, size.width};
  cv::Mat blob(4, shape, CV_32F);
  const auto& context = CIContextWrapper::shared().context;
  for (std::size_t n = 0; n < pixels.size(); ++n) {
    cv::Mat plane(size.height, size.width, CV_32FC1, blob.ptr<float>(static_cast<int>(n)));
    fillLuminance(pixels[n], plane, context);
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
