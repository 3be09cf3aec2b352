#pragma once
/// Pixel buffers: rows of pixels in a stated format, read one pixel at a time.
///
///   imaging::PixelBuffer buffer(640, 480, imaging::pixel_format::bgra32);
///   auto [b, g, r, a] = buffer.pixel(10, 20);   // column 10, row 20, bytes as stored
///
/// A buffer is shared by reference, like the platform's: copies see the same bytes.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace imaging {

/// A pixel format's four-character code, as the platform numbers them.
using PixelFormat = std::uint32_t;

constexpr PixelFormat fourCharCode(const char (&code)[5]) {
  return static_cast<PixelFormat>(static_cast<unsigned char>(code[0])) << 24 |
         static_cast<PixelFormat>(static_cast<unsigned char>(code[1])) << 16 |
         static_cast<PixelFormat>(static_cast<unsigned char>(code[2])) << 8 |
         static_cast<PixelFormat>(static_cast<unsigned char>(code[3]));
}

namespace pixel_format {
/// Alpha, red, green, blue; the one format numbered 32 rather than by its letters.
inline constexpr PixelFormat argb32 = 32;
inline constexpr PixelFormat abgr32 = fourCharCode("ABGR");
inline constexpr PixelFormat bgra32 = fourCharCode("BGRA");
inline constexpr PixelFormat rgba32 = fourCharCode("RGBA");
/// One 8-bit component per pixel.
inline constexpr PixelFormat oneComponent8 = fourCharCode("L008");
}  // namespace pixel_format

/// 4 for the four 32-bit formats above, 1 for `oneComponent8`, -1 for any other format.
int bytesPerPixel(PixelFormat format);

class PixelBuffer {
 public:
  /// Zeroed rows of `width` pixels, packed. Throws `std::invalid_argument` for a format of
  /// unknown size or a negative side.
  PixelBuffer(int width, int height, PixelFormat format);

  /// A buffer over memory the caller owns and keeps alive as long as the buffer and its
  /// copies. `base` may be null: such a buffer reads as zeros.
  static PixelBuffer wrapping(std::uint8_t* base, int width, int height, std::size_t bytesPerRow,
                              PixelFormat format);

  int width() const { return width_; }
  int height() const { return height_; }
  std::size_t bytesPerRow() const { return bytesPerRow_; }
  PixelFormat pixelFormat() const { return format_; }
  int bytesPerPixel() const { return imaging::bytesPerPixel(format_); }
  std::uint8_t* baseAddress() const { return base_; }

  /// The pixel at column `x`, row `y`: its bytes in the order they are stored (blue, green,
  /// red, alpha for BGRA; alpha, red, green, blue for ARGB). A one-component pixel comes
  /// back in the first value with zeros after it. Zeros for a format of unknown size or a
  /// buffer without memory. Throws `std::out_of_range` outside the buffer.
  std::array<std::uint8_t, 4> pixel(int x, int y) const;

 private:
  PixelBuffer() = default;

  std::shared_ptr<std::uint8_t[]> storage_;
  std::uint8_t* base_ = nullptr;
  int width_ = 0;
  int height_ = 0;
  std::size_t bytesPerRow_ = 0;
  PixelFormat format_ = 0;
};

}  // namespace imaging
