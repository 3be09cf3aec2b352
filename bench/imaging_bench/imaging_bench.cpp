// What a model input costs, measured on a 2048 x 2048 JPEG (made once, before any timing):
//   colour, monochrome  toMLMultiArray of the decoded pixels (red, green and blue planes from
//                       0 to 1; the linear luminance plane);
//   blobFromImage       cv::dnn::blobFromImage on the same pixels, scaled to 0 to 1: OpenCV's
//                       own way to a float, channel-first tensor (the peer);
//   memcpy              a new matrix of the tensor's size filled by memcpy from another: the
//                       least that allocating and writing the tensor costs (the memory floor);
//   load ... srgb / p3  decoding the JPEG untagged, or tagged Display P3 (converted to sRGB
//                       by LittleCMS), then the tensor: what a profile adds to a photo.
// Large blocks are kept by malloc rather than handed back to the kernel after each
// iteration (M_MMAP_THRESHOLD, M_TRIM_THRESHOLD), as in a process that makes tensors all day:
// otherwise every 48 MB tensor is faulted in afresh, which on a virtual machine costs more
// than filling it and drowns what is measured (run with --fresh-pages to see that).
// The ratios are printed last ("ratio colour / blobFromImage: 0.55" means 45% under it), in
// real time and in CPU time, which other work on a busy machine disturbs less.

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstring>
#include <opencv2/dnn/dnn.hpp>
#include <opencv2/imgcodecs.hpp>
#include <string_view>
#include <vector>

#include "imaging/image.hpp"
#include "imaging/tagged_files.hpp"
#include "support/ratio_reporter.hpp"

namespace {

constexpr int kSide = 2048;

// A photograph-like picture (gradients and noise), so that the JPEG decodes to varied values.
const imaging_test::Bytes& jpeg() {
  static const imaging_test::Bytes bytes = [] {
    cv::Mat pixels(kSide, kSide, CV_8UC3);
    for (int y = 0; y < kSide; ++y)
      for (int x = 0; x < kSide; ++x)
        pixels.at<cv::Vec3b>(y, x) = cv::Vec3b(static_cast<uchar>(x / 8), static_cast<uchar>(y / 8),
                                               static_cast<uchar>((x + y) / 16));
    cv::Mat noise(kSide, kSide, CV_8UC3);
    cv::randu(noise, 0, 32);
    pixels += noise;
    imaging_test::Bytes out;
    cv::imencode(".jpg", pixels, out, {cv::IMWRITE_JPEG_QUALITY, 90});
    return out;
  }();
  return bytes;
}

const imaging_test::Bytes& p3Jpeg() {
  static const imaging_test::Bytes bytes =
      imaging_test::withJpegProfile(jpeg(), imaging_test::displayP3());
  return bytes;
}

const imaging::Image& picture() {
  static const imaging::Image image = imaging::Image::decode(jpeg()).value();
  return image;
}

void tensor(benchmark::State& state, bool monochrome) {
  const auto& image = picture();
  for (auto _ : state) {
    auto t = image.toMLMultiArray(monochrome);
    benchmark::DoNotOptimize(t->values().data());
  }
}
void BM_Colour(benchmark::State& state) {
  tensor(state, false);
}
void BM_Monochrome(benchmark::State& state) {
  tensor(state, true);
}

void BM_BlobFromImage(benchmark::State& state) {
  const cv::Mat& pixels = picture().pixels();
  for (auto _ : state) {
    cv::Mat blob = cv::dnn::blobFromImage(pixels, 1.0 / 255);
    benchmark::DoNotOptimize(blob.data);
  }
}

void memcpyFloor(benchmark::State& state, int planes) {
  const int shape[] = {1, planes, kSide, kSide};
  const cv::Mat source(4, shape, CV_32F, cv::Scalar(0.5));
  for (auto _ : state) {
    cv::Mat out(4, shape, CV_32F);
    std::memcpy(out.data, source.data, source.total() * sizeof(float));
    benchmark::DoNotOptimize(out.data);
  }
}
void BM_MemcpyColour(benchmark::State& state) {
  memcpyFloor(state, 3);
}
void BM_MemcpyMonochrome(benchmark::State& state) {
  memcpyFloor(state, 1);
}

void load(benchmark::State& state, const imaging_test::Bytes& bytes, bool monochrome) {
  for (auto _ : state) {
    auto t = imaging::Image::decode(bytes)->toMLMultiArray(monochrome);
    benchmark::DoNotOptimize(t->values().data());
  }
}
void BM_LoadColourSrgb(benchmark::State& state) {
  load(state, jpeg(), false);
}
void BM_LoadColourP3(benchmark::State& state) {
  load(state, p3Jpeg(), false);
}
void BM_LoadMonochromeSrgb(benchmark::State& state) {
  load(state, jpeg(), true);
}
void BM_LoadMonochromeP3(benchmark::State& state) {
  load(state, p3Jpeg(), true);
}

BENCHMARK(BM_Colour)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Monochrome)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BlobFromImage)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MemcpyColour)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MemcpyMonochrome)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadColourSrgb)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadColourP3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadMonochromeSrgb)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadMonochromeP3)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::string_view(argv[argc - 1]) == "--fresh-pages") {
    --argc;
  } else {
    mallopt(M_MMAP_THRESHOLD, 1 << 30);
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  picture();  // the JPEGs are made and decoded before anything is timed
  p3Jpeg();
  bench_support::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.printRatios("BM_BlobFromImage", {{"BM_Colour", "colour / blobFromImage"},
                                            {"BM_Monochrome", "monochrome / blobFromImage"}});
  reporter.printRatios("BM_MemcpyColour", {{"BM_Colour", "colour / memcpy"}});
  reporter.printRatios("BM_MemcpyMonochrome", {{"BM_Monochrome", "monochrome / memcpy"}});
  reporter.printRatios("BM_LoadColourSrgb", {{"BM_LoadColourP3", "colour load P3 / sRGB"}});
  reporter.printRatios("BM_LoadMonochromeSrgb",
                       {{"BM_LoadMonochromeP3", "monochrome load P3 / sRGB"}});
  benchmark::Shutdown();
  return 0;
}
