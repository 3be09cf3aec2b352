#include "imaging/image.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <opencv2/imgcodecs.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/paths.hpp"

namespace {

using imaging::Image;
using imaging::SamplingAlgorithm;

// Every image comes from a file written here, so loading is part of what is tested.
class ImageFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = platform::temporaryDirectory() / ("imaging-" + platform::newUUID());
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  // `bgr` filled in, written as `name` (PNG is lossless, so values survive exactly).
  Image write(const std::string& name, int width, int height, cv::Scalar bgr) {
    const auto path = dir_ / name;
    cv::Mat pixels(height, width, bgr[3] > 0 ? CV_8UC4 : CV_8UC3, bgr);
    EXPECT_TRUE(cv::imwrite(path.string(), pixels));
    auto image = Image::load(path);
    EXPECT_TRUE(image.has_value()) << name;
    return image.value_or(Image());
  }

  std::filesystem::path dir_;
};

std::vector<int> sizeOf(const Image& image) {
  return {static_cast<int>(image.extent().width), static_cast<int>(image.extent().height)};
}

TEST_F(ImageFiles, TensorShapesAndChannelPlanes) {
  const auto small = write("small.png", 3, 2, {10, 20, 30});
  EXPECT_EQ(small.toMLMultiArray(false)->shape(), (std::vector<int>{1, 3, 2, 3}));
  EXPECT_EQ(small.toMLMultiArray(true)->shape(), (std::vector<int>{1, 1, 2, 3}));

  // Pure red lands in the first plane whatever order the pixels are stored in.
  const auto red = write("red.png", 4, 3, {0, 0, 255});
  const auto planes = red.toMLMultiArray(false);
  ASSERT_TRUE(planes);
  const auto values = planes->values();
  ASSERT_EQ(values.size(), 3u * 4 * 3);
  for (std::size_t i = 0; i < values.size(); ++i)
    EXPECT_FLOAT_EQ(values[i], i < 12 ? 1.0f : 0.0f) << "value " << i;

  // A JPEG (lossy, but a flat colour survives) loads through the same path.
  const auto jpeg = write("grey.jpg", 8, 8, {128, 128, 128});
  EXPECT_NEAR(jpeg.toMLMultiArray(false)->at(0, 1, 4, 4), 128 / 255.0, 2 / 255.0);

  // Mid-grey in sRGB is about a fifth of white's light: the monochrome plane is linear.
  const auto grey = write("grey.png", 2, 2, {128, 128, 128});
  EXPECT_NEAR(grey.toMLMultiArray(true)->at(0, 0, 1, 1), 0.2158, 0.0005);
  EXPECT_NEAR(grey.toMLMultiArray(false)->at(0, 2, 1, 1), 128 / 255.0, 1e-6);
  // Green carries most of the luminance, blue the least.
  const auto green = write("green.png", 1, 1, {0, 255, 0});
  const auto blue = write("blue.png", 1, 1, {255, 0, 0});
  EXPECT_NEAR(green.toMLMultiArray(true)->at(0, 0, 0, 0), 0.7152, 1e-4);
  EXPECT_NEAR(blue.toMLMultiArray(true)->at(0, 0, 0, 0), 0.0722, 1e-4);

  EXPECT_FALSE(Image().toMLMultiArray(false));
  EXPECT_FALSE(Image::load(dir_ / "missing.png"));
}

TEST_F(ImageFiles, BatchesStackImagesOfOneSize) {
  const std::vector<Image> pair{write("a.png", 3, 2, {0, 0, 255}),
                                write("b.png", 3, 2, {255, 0, 0})};
  const auto colour = Image::toMLMultiArray(pair, false);
  ASSERT_TRUE(colour);
  EXPECT_EQ(colour->shape(), (std::vector<int>{2, 3, 2, 3}));
  EXPECT_FLOAT_EQ(colour->at(0, 0, 1, 2), 1.0f);  // the first image is red
  EXPECT_FLOAT_EQ(colour->at(0, 2, 1, 2), 0.0f);
  EXPECT_FLOAT_EQ(colour->at(1, 0, 1, 2), 0.0f);  // the second blue
  EXPECT_FLOAT_EQ(colour->at(1, 2, 1, 2), 1.0f);

  const auto mono = Image::toMLMultiArray(pair, true);
  ASSERT_TRUE(mono);
  EXPECT_EQ(mono->shape(), (std::vector<int>{2, 1, 2, 3}));
  EXPECT_NEAR(mono->at(0, 0, 0, 0), 0.2126, 1e-4);
  EXPECT_NEAR(mono->at(1, 0, 1, 2), 0.0722, 1e-4);

  const std::vector<Image> mixed{pair[0], write("c.png", 2, 3, {0, 0, 0})};
  EXPECT_FALSE(Image::toMLMultiArray(mixed, false));
  EXPECT_FALSE(Image::toMLMultiArray(mixed, true));
  EXPECT_FALSE(Image::toMLMultiArray(std::vector<Image>{}, false));
}

TEST_F(ImageFiles, ResizingKeepsTheAspectWhereItsNameSaysSo) {
  const auto wide = write("wide.png", 400, 200, {0, 0, 255});
  const auto tall = write("tall.jpg", 300, 600, {0, 255, 0});
  using V = std::vector<int>;

  EXPECT_EQ(sizeOf(wide.resizedToWidth(100)), (V{100, 50}));
  EXPECT_EQ(sizeOf(tall.resizedToWidth(100)), (V{100, 200}));
  EXPECT_EQ(sizeOf(wide.resizedToHeight(50, SamplingAlgorithm::bicubic)), (V{100, 50}));
  EXPECT_EQ(sizeOf(tall.resizedToHeight(50, SamplingAlgorithm::lanczos)), (V{25, 50}));
  EXPECT_EQ(sizeOf(wide.resizedTo({64, 64})), (V{64, 64}));
  EXPECT_EQ(sizeOf(wide.resizedToMaxSideLength(800)), (V{800, 400}));
  EXPECT_EQ(sizeOf(tall.resizedToMaxSideLength(120)), (V{60, 120}));
  EXPECT_EQ(sizeOf(wide.scaledBy(0.25)), (V{100, 50}));
  EXPECT_EQ(sizeOf(tall.scaledBy(2, 0.5)), (V{600, 300}));
  EXPECT_EQ(sizeOf(wide.scaledToMaxDimensions({100, 100})), (V{100, 50}));
  EXPECT_EQ(sizeOf(tall.scaledToMaxDimensions({100, 100})), (V{50, 100}));
  EXPECT_EQ(sizeOf(tall.scaledToMaxDimensions({1000, 900})), (V{450, 900}));
  // A sliver keeps a row rather than vanishing.
  EXPECT_EQ(sizeOf(wide.resizedToWidth(1)), (V{1, 1}));

  EXPECT_EQ(sizeOf(wide.resizeAspectFill({100, 100})), (V{100, 100}));
  EXPECT_EQ(sizeOf(tall.resizeAspectFill({90, 30}, {0, 1000})), (V{90, 30}));
  EXPECT_EQ(sizeOf(wide.resizeAspectFit({100, 100})), (V{100, 100}));
  EXPECT_EQ(sizeOf(tall.resizeAspectFit({90, 30})), (V{90, 30}));

  for (double bad : {0.0, -5.0, std::numeric_limits<double>::infinity(),
                     std::numeric_limits<double>::quiet_NaN(), 1e9})
    EXPECT_THROW(wide.resizedToWidth(bad), std::invalid_argument) << bad;
  EXPECT_THROW(Image().resizedTo({10, 10}), std::invalid_argument);
}

TEST_F(ImageFiles, FillCropsWhereTheOffsetSaysAndFitLetterboxes) {
  // Left half red, right half blue: where the crop lands shows in its colour.
  cv::Mat halves(100, 200, CV_8UC3, cv::Scalar(0, 0, 255));
  halves(cv::Rect(100, 0, 100, 100)).setTo(cv::Scalar(255, 0, 0));
  ASSERT_TRUE(cv::imwrite((dir_ / "halves.png").string(), halves));
  const auto image = Image::load(dir_ / "halves.png").value();

  const auto left = image.resizeAspectFill({50, 50}, {-1000, 0});  // held at the left edge
  const auto right = image.resizeAspectFill({50, 50}, {1000, 0});
  EXPECT_EQ(left.pixels().at<cv::Vec3b>(25, 25), cv::Vec3b(0, 0, 255));
  EXPECT_EQ(right.pixels().at<cv::Vec3b>(25, 25), cv::Vec3b(255, 0, 0));

  // 200 x 100 into 100 x 100: 25 rows of fill above and below a 100 x 50 picture.
  const auto fit = image.resizeAspectFit({100, 100}, SamplingAlgorithm::bilinear, {0, 1, 0, 1});
  EXPECT_FALSE(fit.hasAlpha());
  EXPECT_EQ(fit.pixels().at<cv::Vec3b>(10, 50), cv::Vec3b(0, 255, 0));
  EXPECT_EQ(fit.pixels().at<cv::Vec3b>(50, 10), cv::Vec3b(0, 0, 255));
  EXPECT_EQ(fit.pixels().at<cv::Vec3b>(90, 50), cv::Vec3b(0, 255, 0));
  const auto clear = image.resizeAspectFit({100, 100}, SamplingAlgorithm::bilinear, {0, 0, 0, 0});
  ASSERT_TRUE(clear.hasAlpha());
  EXPECT_EQ(clear.pixels().at<cv::Vec4b>(10, 50)[3], 0);
  EXPECT_EQ(clear.pixels().at<cv::Vec4b>(50, 10)[3], 255);
}

}  // namespace
