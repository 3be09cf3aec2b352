#include "imaging/pixel_buffer.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <stdexcept>
#include <vector>

namespace {

using imaging::PixelBuffer;
namespace pf = imaging::pixel_format;
using Bytes = std::array<std::uint8_t, 4>;

TEST(PixelBufferTest, BytesPerPixelOfEachFormat) {
  for (const auto format : {pf::argb32, pf::abgr32, pf::bgra32, pf::rgba32})
    EXPECT_EQ(imaging::bytesPerPixel(format), 4) << format;
  EXPECT_EQ(imaging::bytesPerPixel(pf::oneComponent8), 1);
  EXPECT_EQ(pf::bgra32, 0x42475241u);  // the code other tools write for 'BGRA'
  // 16 bits per pixel: RGB 565 and one 16-bit grey component.
  EXPECT_EQ(imaging::bytesPerPixel(imaging::fourCharCode("L565")), -1);
  EXPECT_EQ(imaging::bytesPerPixel(imaging::fourCharCode("L016")), -1);
  EXPECT_THROW(PixelBuffer(2, 2, imaging::fourCharCode("L016")), std::invalid_argument);
}

TEST(PixelBufferTest, PixelsComeBackInStoredOrder) {
  // Two rows of two pixels with padding after each row, as the platform pads rows.
  std::vector<std::uint8_t> memory{1, 2,  3,  4,  5,  6,  7,  8,  0xEE, 0xEE,  //
                                   9, 10, 11, 12, 13, 14, 15, 16, 0xEE, 0xEE};
  const auto bgra = PixelBuffer::wrapping(memory.data(), 2, 2, 10, pf::bgra32);
  const auto argb = PixelBuffer::wrapping(memory.data(), 2, 2, 10, pf::argb32);
  EXPECT_EQ(bgra.pixel(0, 0), (Bytes{1, 2, 3, 4}));  // blue, green, red, alpha
  EXPECT_EQ(bgra.pixel(1, 1), (Bytes{13, 14, 15, 16}));
  EXPECT_EQ(argb.pixel(0, 1), (Bytes{9, 10, 11, 12}));  // alpha, red, green, blue

  const auto grey = PixelBuffer::wrapping(memory.data(), 8, 2, 10, pf::oneComponent8);
  EXPECT_EQ(grey.pixel(3, 1), (Bytes{12, 0, 0, 0}));

  const auto unknown =
      PixelBuffer::wrapping(memory.data(), 2, 2, 10, imaging::fourCharCode("L565"));
  EXPECT_EQ(unknown.pixel(1, 1), (Bytes{}));
  const auto empty = PixelBuffer::wrapping(nullptr, 2, 2, 8, pf::bgra32);
  EXPECT_EQ(empty.pixel(1, 1), (Bytes{}));
  EXPECT_THROW(bgra.pixel(2, 0), std::out_of_range);
  EXPECT_THROW(bgra.pixel(0, -1), std::out_of_range);

  // An owned buffer is packed and zeroed, and its copies share its bytes.
  PixelBuffer owned(3, 2, pf::rgba32);
  EXPECT_EQ(owned.bytesPerRow(), 12u);
  const PixelBuffer copy = owned;
  owned.baseAddress()[12 + 4 + 2] = 200;  // row 1, column 1, blue
  EXPECT_EQ(copy.pixel(1, 1), (Bytes{0, 0, 200, 0}));
}

}  // namespace
