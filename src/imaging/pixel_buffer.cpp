#include "imaging/pixel_buffer.hpp"

#include <algorithm>
#include <stdexcept>
#include <string>

namespace imaging {

int bytesPerPixel(PixelFormat format) {
  switch (format) {
    case pixel_format::argb32:
    case pixel_format::abgr32:
    case pixel_format::bgra32:
    case pixel_format::rgba32:
      return 4;
    case pixel_format::oneComponent8:
      return 1;
    default:
      return -1;
  }
}

PixelBuffer::PixelBuffer(int width, int height, PixelFormat format) {
  const int size = imaging::bytesPerPixel(format);
  if (size < 0) throw std::invalid_argument("a pixel buffer needs a format of known size");
  if (width < 0 || height < 0) throw std::invalid_argument("a pixel buffer's sides are >= 0");
  width_ = width;
  height_ = height;
  format_ = format;
  bytesPerRow_ = static_cast<std::size_t>(width) * static_cast<std::size_t>(size);
  const std::size_t total = bytesPerRow_ * static_cast<std::size_t>(height);
  if (total > 0) {
    storage_ = std::make_shared<std::uint8_t[]>(total);  // value-initialised: zeros
    base_ = storage_.get();
  }
}

PixelBuffer PixelBuffer::wrapping(std::uint8_t* base, int width, int height,
                                  std::size_t bytesPerRow, PixelFormat format) {
  if (width < 0 || height < 0) throw std::invalid_argument("a pixel buffer's sides are >= 0");
  PixelBuffer buffer;
  buffer.base_ = base;
  buffer.width_ = width;
  buffer.height_ = height;
  buffer.bytesPerRow_ = bytesPerRow;
  buffer.format_ = format;
  return buffer;
}

std::array<std::uint8_t, 4> PixelBuffer::pixel(int x, int y) const {
  if (x < 0 || y < 0 || x >= width_ || y >= height_)
    throw std::out_of_range("pixel (" + std::to_string(x) + ", " + std::to_string(y) +
                            ") is outside the buffer");
  std::array<std::uint8_t, 4> bytes{};
  const int size = bytesPerPixel();
  if (size <= 0 || base_ == nullptr) return bytes;
  const std::uint8_t* at = base_ + static_cast<std::size_t>(y) * bytesPerRow_ +
                           static_cast<std::size_t>(x) * static_cast<std::size_t>(size);
  std::copy_n(at, size, bytes.begin());
  return bytes;
}

}  // namespace imaging
