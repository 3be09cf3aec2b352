// What a model input costs, measured on the pixels of a 2048 x 2048 JPEG (made and decoded
// once, before any timing):
//   colour      toMLMultiArray(false): red, green and blue planes from 0 to 1;
//   monochrome  toMLMultiArray(true): the linear luminance plane;
//   floor       cv::dnn::blobFromImage on the same pixels, scaled to 0 to 1: the least a
//               float, channel-first tensor of them costs with OpenCV.
// The ratios to the floor are printed last ("ratio colour: 1.02" means 2% over the floor), in
// real time and in CPU time, which other work on a busy machine disturbs less.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <opencv2/dnn/dnn.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "support/ratio_reporter.hpp"
#include "imaging/image.hpp"

namespace {

constexpr int kSide = 2048;

// A photograph-like picture (gradients and noise), so that the JPEG decodes to varied values.
const imaging::Image& picture() {
  static const imaging::Image image = [] {
    cv::Mat pixels(kSide, kSide, CV_8UC3);
    for (int y = 0; y < kSide; ++y)
      for (int x = 0; x < kSide; ++x)
        pixels.at<cv::Vec3b>(y, x) = cv::Vec3b(static_cast<uchar>(x / 8), static_cast<uchar>(y / 8),
                                               static_cast<uchar>((x + y) / 16));
    cv::Mat noise(kSide, kSide, CV_8UC3);
    cv::randu(noise, 0, 32);
    pixels += noise;
    std::vector<unsigned char> jpeg;
    cv::imencode(".jpg", pixels, jpeg, {cv::IMWRITE_JPEG_QUALITY, 90});
    return imaging::Image::decode(jpeg).value();
  }();
  return image;
}

void BM_Colour(benchmark::State& state) {
  const auto& image = picture();
  for (auto _ : state) {
    auto tensor = image.toMLMultiArray(false);
    benchmark::DoNotOptimize(tensor->values().data());
  }
}

void BM_Monochrome(benchmark::State& state) {
  const auto& image = picture();
  for (auto _ : state) {
    auto tensor = image.toMLMultiArray(true);
    benchmark::DoNotOptimize(tensor->values().data());
  }
}

void BM_Floor(benchmark::State& state) {
  const cv::Mat& pixels = picture().pixels();
  for (auto _ : state) {
    cv::Mat blob = cv::dnn::blobFromImage(pixels, 1.0 / 255);
    benchmark::DoNotOptimize(blob.data);
  }
}

BENCHMARK(BM_Colour)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Monochrome)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Floor)->Unit(benchmark::kMillisecond);


}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  picture();  // the JPEG is made and decoded before anything is timed
  bench_support::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.printRatios("BM_Floor", {{"BM_Colour", "colour"}, {"BM_Monochrome", "monochrome"}});
  benchmark::Shutdown();
  return 0;
}
