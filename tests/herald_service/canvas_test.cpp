// The platform's drawing, asset catalogue and messaging intents, as the service uses them.
#include "platform/canvas.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/assets.hpp"
#include "platform/intents.hpp"
#include "platform/paths.hpp"

namespace {

using platform::Color;

void expectColor(Color actual, Color expected, double tolerance = 1.0 / 255) {
  EXPECT_NEAR(actual.red, expected.red, tolerance);
  EXPECT_NEAR(actual.green, expected.green, tolerance);
  EXPECT_NEAR(actual.blue, expected.blue, tolerance);
  EXPECT_NEAR(actual.alpha, expected.alpha, tolerance);
}

TEST(Canvas, FillsSurviveThePNGRoundTrip) {
  platform::Canvas canvas({10, 6});
  canvas.fill({0, 0, 5, 6}, {1, 0, 0, 1});
  canvas.fill({5, 0, 5, 6}, {0, 0, 1, 0.5});
  auto png = canvas.pngData();
  ASSERT_TRUE(png);
  auto decoded = platform::Image::fromPNG(*png);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->size(), (platform::Size{10, 6}));
  expectColor(decoded->pixel(1, 1), {1, 0, 0, 1});
  expectColor(decoded->pixel(8, 5), {0, 0, 1, 0.5});
  expectColor(decoded->pixel(10, 0), Color::clear());
  EXPECT_FALSE(platform::Image::fromPNG("not a png"));
  EXPECT_FALSE(platform::Image().pngData());
}

TEST(Canvas, JPEGKeepsColoursClosely) {
  platform::Canvas canvas({64, 32});
  canvas.fill({0, 0, 32, 32}, {0.8, 0.2, 0.1, 1});
  canvas.fill({32, 0, 32, 32}, {0, 0, 0, 0});  // transparent becomes white
  const auto jpeg = canvas.image().jpegData(0.9);
  ASSERT_TRUE(jpeg);
  const auto decoded = platform::Image::fromData(*jpeg);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->size(), (platform::Size{64, 32}));
  expectColor(decoded->pixel(8, 16), {0.8, 0.2, 0.1, 1}, 0.04);
  expectColor(decoded->pixel(56, 16), Color::white(), 0.04);
  EXPECT_FALSE(platform::Image::fromJPEG("\xFF\xD8\xFF garbage"));
  EXPECT_FALSE(platform::Image::fromData("GIF89a"));
}

TEST(Canvas, TextIsMeasuredInWholePointsAndDrawnInsideItsRect) {
  platform::Canvas canvas({200, 80});
  const auto font = platform::Font::system(40);
  const auto size = canvas.measureText("AB", font);
  EXPECT_GT(size.width, 40);
  EXPECT_GT(size.height, 40);  // a line of a 40-point font is taller than the font size
  EXPECT_EQ(size.width, std::floor(size.width));
  EXPECT_LT(canvas.measureText("A", font).width, size.width);

  const platform::Rect rect{50, 10, size.width, size.height};
  canvas.drawText("AB", rect, font, Color::white());
  const auto image = canvas.image();
  int inside = 0, outside = 0;
  for (int y = 0; y < 80; ++y)
    for (int x = 0; x < 200; ++x) {
      if (image.pixel(x, y).alpha == 0) continue;
      const bool within =
          x >= rect.x - 1 && x < rect.x + rect.width + 1 && y >= rect.y && y < rect.y + rect.height;
      (within ? inside : outside)++;
    }
  EXPECT_GT(inside, 100);
  EXPECT_EQ(outside, 0);
}

class ScopedAssetsDir {
 public:
  explicit ScopedAssetsDir(const std::filesystem::path& dir) {
    setenv("HERALD_ASSETS_DIR", dir.c_str(), 1);
  }
  ~ScopedAssetsDir() { unsetenv("HERALD_ASSETS_DIR"); }
};

TEST(Assets, AMalformedColourNamesItsFile) {
  const auto dir = platform::temporaryDirectory() / ("assets-" + platform::newUUID());
  std::filesystem::create_directories(dir / "colors");
  std::ofstream(dir / "colors" / "broken.json")
      << R"({"components": {"red": 2, "green": 0, "blue": 0}})";
  std::ofstream(dir / "colors" / "text.json") << "{";
  std::ofstream(dir / "colors" / "ok.json")
      << R"({"components": {"red": 0, "green": 0.5, "blue": 1}})";
  ScopedAssetsDir scoped(dir);
  EXPECT_EQ(platform::assetsDirectory(), dir);
  try {
    platform::namedColor("broken");
    FAIL() << "a red of 2 was accepted";
  } catch (const platform::Error& e) {
    EXPECT_NE(e.localizedDescription().find("broken.json"), std::string::npos);
    EXPECT_NE(e.localizedDescription().find("\"red\""), std::string::npos);
  }
  EXPECT_THROW(platform::namedColor("text"), platform::Error);
  EXPECT_EQ(platform::namedColor("ok"), (Color{0, 0.5, 1, 1}));
  EXPECT_FALSE(platform::namedColor("secondaryMoonGrape"));
  std::filesystem::remove_all(dir);
}

TEST(Intents, AnUpdateNeedsASenderWithAPictureTheSystemCanShow) {
  platform::NotificationContent content;
  platform::SendMessageIntent intent;
  EXPECT_THROW(platform::updatingContent(content, intent), platform::Error);
  intent.sender = platform::Person{};
  EXPECT_TRUE(platform::updatingContent(content, intent)->communication);  // no picture is fine
  for (auto image : {platform::IntentImage::withURL("ftp://example.com/ada.jpg"),
                     platform::IntentImage::withImageData("GIF89a")}) {
    intent.sender->image = image;
    try {
      platform::updatingContent(content, intent);
      FAIL() << "an image the system cannot show was accepted";
    } catch (const platform::Error& e) {
      EXPECT_EQ(e.code(), platform::intent_error::invalidImage);
    }
  }
}

}  // namespace
