// Generated avatars, colour texts from payloads, and thumbnail attachment files.
#include "herald_service/avatar.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "core/constants.hpp"
#include "herald_service/attachment_file.hpp"
#include "platform/assets.hpp"
#include "platform/error.hpp"
#include "platform/paths.hpp"

namespace {

using platform::Color;
using namespace herald_service;

Color rgb(int r, int g, int b) {
  return {r / 255.0, g / 255.0, b / 255.0, 1};
}

// Pixels hold 8 bits per component, so a drawn colour is within half a step of the asked one.
void expectColor(Color actual, Color expected, double tolerance = 1e-9) {
  EXPECT_NEAR(actual.red, expected.red, tolerance);
  EXPECT_NEAR(actual.green, expected.green, tolerance);
  EXPECT_NEAR(actual.blue, expected.blue, tolerance);
  EXPECT_NEAR(actual.alpha, expected.alpha, tolerance);
}
constexpr double kPixelStep = 0.5 / 255;

TEST(HexColor, ReadsSixAndThreeDigitsAndFallsBackToNearBlack) {
  const Color nearBlack = rgb(1, 1, 0);
  struct Case {
    const char* text;
    Color expected;
  } cases[] = {
      {"#3A7BD5", rgb(0x3A, 0x7B, 0xD5)},
      {"  #3a7bd5;\n", rgb(0x3A, 0x7B, 0xD5)},  // trimmed at both ends
      {"#FFF", rgb(255, 255, 255)},
      {"abc", rgb(0xAA, 0xBB, 0xCC)},
      {"#12G456", rgb(0, 0, 0x12)},  // reading stops at the first non-hex digit
      {"#GGGGGG", rgb(0, 0, 0)},     // six characters, no number: black, not the fallback
      {"#ÀBC", rgb(0, 0, 0)},        // three characters (four bytes): no number
      {"#FFFF", nearBlack},
      {"#12345678", nearBlack},
      {"#", nearBlack},
      {"", nearBlack},
      {"#F-F-F", nearBlack},  // inner characters are not trimmed
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    expectColor(colorFromHex(c.text, 1.0), c.expected);
  }
  EXPECT_EQ(colorFromHex("#FFF", 0.25).alpha, 0.25);
}

TEST(Avatar, InitialsAreWhiteAndCentredOnTheBackground) {
  const Color blue = rgb(0x20, 0x40, 0xC0);
  const auto image = drawInitialsImage("AB", blue);
  ASSERT_EQ(image.size(), (platform::Size{80, 80}));
  expectColor(image.pixel(0, 0), blue, kPixelStep);
  expectColor(image.pixel(79, 79), blue, kPixelStep);
  int left = 80, right = -1, top = 80, bottom = -1;
  for (int y = 0; y < 80; ++y)
    for (int x = 0; x < 80; ++x)
      if (image.pixel(x, y) == Color::white()) {
        left = std::min(left, x), right = std::max(right, x);
        top = std::min(top, y), bottom = std::max(bottom, y);
      }
  ASSERT_GE(right, 0) << "no white pixel";
  EXPECT_NEAR(left, 79 - right, 3);  // as much room on the left as on the right
  EXPECT_GT(top, 10);
  EXPECT_LT(bottom, 70);
}

TEST(Avatar, TheIconIsTintedWhiteInTheCentredSquare) {
  const auto icon = platform::namedImage(K::Images::personIcon);
  ASSERT_TRUE(icon);
  const Color grape = platform::namedColor(K::Colors::secondaryMoonGrape).value();
  const auto image = drawIconImage(*icon, grape);
  // The icon's head is at (16, 10) of its 32-point square, which starts at (24, 24).
  expectColor(image.pixel(24 + 16, 24 + 10), Color::white());
  expectColor(image.pixel(24 + 16, 24 + 28), Color::white());  // shoulders
  for (auto [x, y] : {std::pair{0, 0}, {22, 40}, {57, 40}, {40, 22}, {25, 25}})
    expectColor(image.pixel(x, y), grape, kPixelStep);
  const auto plain = drawIconImage(platform::Image(), grape);
  expectColor(plain.pixel(40, 34), grape, kPixelStep);
}

class ScopedTemporaryDirectory {
 public:
  ScopedTemporaryDirectory() : path_(std::filesystem::temp_directory_path() / platform::newUUID()) {
    std::filesystem::create_directories(path_);
    const char* old = std::getenv("TMPDIR");
    if (old) old_ = old;
    setenv("TMPDIR", path_.c_str(), 1);
  }
  ~ScopedTemporaryDirectory() {
    if (old_.empty())
      unsetenv("TMPDIR");
    else
      setenv("TMPDIR", old_.c_str(), 1);
    std::filesystem::remove_all(path_);
  }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
  std::string old_;
};

TEST(Attachment, TheFileIsNamedAfterItsIdentifierAndHoldsTheBytes) {
  ScopedTemporaryDirectory tmp;
  const std::string jpeg = "\xFF\xD8\xFF\xE0 a tiny jpeg";
  const auto attachment = makeAttachment(jpeg, "jpg");
  const auto dir = tmp.path() / platform::processGloballyUniqueString();
  const auto file = dir / (attachment.identifier + ".jpg");
  EXPECT_EQ(attachment.url, platform::fileURL(file));
  EXPECT_EQ(attachment.type, "public.jpeg");
  std::ifstream in(file, std::ios::binary);
  std::stringstream bytes;
  bytes << in.rdbuf();
  EXPECT_EQ(bytes.str(), jpeg);

  // A second file gets its own name and nothing half-written is left beside them.
  const auto second = makeAttachment(jpeg, "JPEG");
  EXPECT_NE(second.identifier, attachment.identifier);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir), {}), 2);
}

TEST(Attachment, UnwritableDirectoriesAndRefusedFilesAreErrors) {
  ScopedTemporaryDirectory tmp;
  // The bytes are written, but the system refuses a JPEG that is not one; the file goes.
  EXPECT_THROW(makeAttachment("<html>", "jpg"), platform::Error);
  EXPECT_TRUE(std::filesystem::is_empty(tmp.path() / platform::processGloballyUniqueString()));
  // A file where the directory should be.
  std::ofstream(tmp.path() / "blocker") << "x";
  setenv("TMPDIR", (tmp.path() / "blocker").c_str(), 1);
  try {
    makeAttachment("\xFF\xD8\xFF", "jpg");
    FAIL() << "wrote below a plain file";
  } catch (const platform::Error& e) {
    EXPECT_NE(e.localizedDescription().find("blocker"), std::string::npos);
  }
}

}  // namespace
