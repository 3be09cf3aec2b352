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

// Keeps each benchmark's real and CPU time per iteration for the ratios: the median when the run is
// repeated (--benchmark_repetitions), else the one measurement.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& run : runs) {
      const auto& name = run.run_name.function_name;
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
        times_[name] = {run.GetAdjustedRealTime(), run.GetAdjustedCPUTime()};
        medians_.insert(name);
      } else if (run.run_type == Run::RT_Iteration && !medians_.contains(name)) {
        times_[name] = {run.GetAdjustedRealTime(), run.GetAdjustedCPUTime()};
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void printRatios() const {
    const auto floor = times_.find("BM_Floor");
    if (floor == times_.end() || floor->second.first <= 0 || floor->second.second <= 0) return;
    for (const auto& [name, label] : std::map<std::string, std::string>{
             {"BM_Colour", "colour"}, {"BM_Monochrome", "monochrome"}}) {
      if (const auto it = times_.find(name); it != times_.end())
        std::printf("ratio %s: %.2f (CPU time %.2f)\n", label.c_str(),
                    it->second.first / floor->second.first,
                    it->second.second / floor->second.second);
    }
  }

 private:
  std::map<std::string, std::pair<double, double>> times_;  // real, CPU
  std::set<std::string> medians_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  picture();  // the JPEG is made and decoded before anything is timed
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.printRatios();
  benchmark::Shutdown();
  return 0;
}
