// Embedded profiles through LittleCMS, with relative colorimetric intent (the reason is in
// image.hpp). A photo library holds few distinct profiles (the phone's Display P3, sRGB,
// a camera's Adobe RGB), so each profile's conversions are made once per pixel layout and
// kept for the process; past kMaxProfiles distinct profiles one is made per image.
//
// The profiles phones and cameras write are matrix-shaper profiles: three tone curves and a
// 3 x 3 matrix. For those, on 8-bit pixels (nearly every photo), the conversion is done
// here from what LittleCMS reads out of both profiles (curves, colorants), as tables and a
// matrix in one pass over the pixels, in place: LittleCMS's own 8-bit transform costs about
// five JPEG decodes of the same image, this about half of one. It agrees with LittleCMS's
// transform within one level. Every other case (16-bit, float, grey, profiles with lookup
// tables) goes through cmsDoTransform.

#include "imaging/internal/colour.hpp"

#include <lcms2.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <memory>
#include <mutex>
#include <opencv2/core.hpp>
#include <opencv2/core/hal/intrin.hpp>
#include <utility>

#include "imaging/internal/log.hpp"

namespace imaging::internal {
namespace {

constexpr std::size_t kMaxProfiles = 64;

struct ProfileCloser {
  void operator()(void* profile) const { cmsCloseProfile(profile); }
};
struct TransformDeleter {
  void operator()(void* transform) const { cmsDeleteTransform(transform); }
};
using ProfileHandle = std::unique_ptr<void, ProfileCloser>;
using TransformHandle = std::unique_ptr<void, TransformDeleter>;

cmsHPROFILE srgb() {
  static const ProfileHandle profile(cmsCreate_sRGBProfile());
  return profile.get();
}

// An 8-bit matrix-shaper conversion: each value made linear by its curve, the matrix from
// the profile's linear RGB to sRGB's, and sRGB's curve on a fine grid of linear values.
struct MatrixShaper {
  static constexpr int kGrid = 16383;  // fine enough near black, where sRGB's curve is steep

  std::array<std::array<float, 256>, 3> linear{};  // red, green, blue
  cv::Matx33f toSrgb;
  std::array<uchar, kGrid + 1> encode{};

  void apply(cv::Mat& pixels) const;
};

// One profile on pixels of one OpenCV type: a transform, or nothing to do (the profile is
// sRGB in all but name), or the reason it cannot serve.
struct Conversion {
  TransformHandle transform;
  std::unique_ptr<MatrixShaper> matrixShaper;
  bool identity = false;
  std::string problem;
};

cv::Matx33d colorants(cmsHPROFILE profile) {
  cv::Matx33d m;
  const cmsTagSignature tags[] = {cmsSigRedColorantTag, cmsSigGreenColorantTag,
                                  cmsSigBlueColorantTag};
  for (int c = 0; c < 3; ++c) {
    const auto* xyz = static_cast<const cmsCIEXYZ*>(cmsReadTag(profile, tags[c]));
    if (!xyz) return cv::Matx33d::zeros();
    m(0, c) = xyz->X;
    m(1, c) = xyz->Y;
    m(2, c) = xyz->Z;
  }
  return m;
}

std::unique_ptr<MatrixShaper> makeMatrixShaper(cmsHPROFILE profile) {
  if (!cmsIsMatrixShaper(profile)) return nullptr;
  const cv::Matx33d from = colorants(profile);
  const cv::Matx33d to = colorants(srgb());
  if (std::abs(cv::determinant(to)) < 1e-9 || from == cv::Matx33d::zeros()) return nullptr;
  auto shaper = std::make_unique<MatrixShaper>();
  shaper->toSrgb = cv::Matx33f(to.inv() * from);
  const cmsTagSignature curves[] = {cmsSigRedTRCTag, cmsSigGreenTRCTag, cmsSigBlueTRCTag};
  for (int c = 0; c < 3; ++c) {
    const auto* curve = static_cast<const cmsToneCurve*>(cmsReadTag(profile, curves[c]));
    if (!curve) return nullptr;
    for (int i = 0; i < 256; ++i)
      shaper->linear[c][i] = cmsEvalToneCurveFloat(curve, static_cast<cmsFloat32Number>(i / 255.0));
  }
  const auto* srgbCurve = static_cast<const cmsToneCurve*>(cmsReadTag(srgb(), cmsSigRedTRCTag));
  cmsToneCurve* inverse = cmsReverseToneCurve(srgbCurve);
  if (!inverse) return nullptr;
  for (int i = 0; i <= MatrixShaper::kGrid; ++i)
    shaper->encode[i] = cv::saturate_cast<uchar>(
        255.0f *
        cmsEvalToneCurveFloat(inverse, static_cast<cmsFloat32Number>(i) / MatrixShaper::kGrid));
  cmsFreeToneCurve(inverse);
  return shaper;
}

// In blocks of pixels: the table look-ups one by one, the matrix over the whole block in
// OpenCV's portable SIMD registers (the tail of a row computes on zeros it does not store).
template <int kChannels>
void applyBlocks(const MatrixShaper& shaper, cv::Mat& pixels, const cv::Range& rows) {
  constexpr int kBlock = 256;
  alignas(32) float in[3][kBlock] = {};
  alignas(32) int out[3][kBlock];
  const auto& m = shaper.toSrgb;
  const cv::v_float32x4 zero = cv::v_setzero_f32(), one = cv::v_setall_f32(1.0f),
                        grid = cv::v_setall_f32(static_cast<float>(MatrixShaper::kGrid));
  for (int y = rows.start; y < rows.end; ++y) {
    uchar* row = pixels.ptr<uchar>(y);
    for (int x0 = 0; x0 < pixels.cols; x0 += kBlock) {
      const int n = std::min(kBlock, pixels.cols - x0);
      uchar* p = row + x0 * kChannels;
      for (int i = 0; i < n; ++i) {
        in[0][i] = shaper.linear[0][p[i * kChannels + 2]];
        in[1][i] = shaper.linear[1][p[i * kChannels + 1]];
        in[2][i] = shaper.linear[2][p[i * kChannels]];
      }
      for (int i = 0; i < kBlock; i += 4) {
        const cv::v_float32x4 r = cv::v_load_aligned(in[0] + i), g = cv::v_load_aligned(in[1] + i),
                              b = cv::v_load_aligned(in[2] + i);
        for (int k = 0; k < 3; ++k) {
          cv::v_float32x4 v = r * cv::v_setall_f32(m(k, 0)) + g * cv::v_setall_f32(m(k, 1)) +
                              b * cv::v_setall_f32(m(k, 2));
          v = cv::v_min(cv::v_max(v, zero), one);
          cv::v_store_aligned(out[k] + i, cv::v_round(v * grid));
        }
      }
      for (int i = 0; i < n; ++i) {
        p[i * kChannels + 2] = shaper.encode[out[0][i]];
        p[i * kChannels + 1] = shaper.encode[out[1][i]];
        p[i * kChannels] = shaper.encode[out[2][i]];
      }
    }
  }
}

void MatrixShaper::apply(cv::Mat& pixels) const {
  cv::parallel_for_(cv::Range(0, pixels.rows), [&](const cv::Range& rows) {
    if (pixels.channels() == 4)
      applyBlocks<4>(*this, pixels, rows);
    else
      applyBlocks<3>(*this, pixels, rows);
  });
}

cmsUInt32Number lcmsFormat(int type) {
  switch (type) {
    case CV_8UC1:
      return TYPE_GRAY_8;
    case CV_8UC3:
      return TYPE_BGR_8;
    case CV_8UC4:
      return TYPE_BGRA_8;
    case CV_16UC1:
      return TYPE_GRAY_16;
    case CV_16UC3:
      return TYPE_BGR_16;
    case CV_16UC4:
      return TYPE_BGRA_16;
    case CV_32FC1:
      return TYPE_GRAY_FLT;
    case CV_32FC3:
      return TYPE_BGR_FLT;
    case CV_32FC4:
      return TYPE_BGRA_FLT;
    default:
      return 0;
  }
}

// Grey becomes BGR; alpha stays.
int outputType(int type) {
  return CV_MAKETYPE(CV_MAT_DEPTH(type), CV_MAT_CN(type) == 1 ? 3 : CV_MAT_CN(type));
}

TransformHandle makeTransform(cmsHPROFILE profile, int type) {
  // NOCACHE: the one-pixel cache is what makes a transform unsafe to share between threads.
  return TransformHandle(
      cmsCreateTransform(profile, lcmsFormat(type), srgb(), lcmsFormat(outputType(type)),
                         INTENT_RELATIVE_COLORIMETRIC, cmsFLAGS_NOCACHE | cmsFLAGS_COPY_ALPHA));
}

// A profile that maps every colour of a coarse 8-bit grid onto itself, within a level, is
// sRGB under another name (cameras and editors each write their own copy): its images skip
// the transform.
bool isSrgb(cmsHPROFILE profile) {
  if (cmsGetColorSpace(profile) != cmsSigRgbData) return false;
  const TransformHandle transform = makeTransform(profile, CV_8UC3);
  if (!transform) return false;
  cv::Mat grid(1, 16 * 16 * 16, CV_8UC3);
  for (int i = 0; i < grid.cols; ++i)
    grid.at<cv::Vec3b>(0, i) =
        cv::Vec3b(static_cast<uchar>((i & 15) * 17), static_cast<uchar>(((i >> 4) & 15) * 17),
                  static_cast<uchar>((i >> 8) * 17));
  cv::Mat out(grid.size(), grid.type());
  cmsDoTransform(transform.get(), grid.data, out.data, static_cast<cmsUInt32Number>(grid.cols));
  return cv::norm(grid, out, cv::NORM_INF) <= 1;
}

Conversion makeConversion(const std::string& bytes, int type) {
  Conversion conversion;
  const ProfileHandle profile(
      cmsOpenProfileFromMem(bytes.data(), static_cast<cmsUInt32Number>(bytes.size())));
  if (!profile) {
    conversion.problem = "the embedded colour profile cannot be read";
    return conversion;
  }
  const auto space = cmsGetColorSpace(profile.get());
  const bool grey = CV_MAT_CN(type) == 1;
  if (space != (grey ? cmsSigGrayData : cmsSigRgbData)) {
    conversion.problem = grey ? "the embedded colour profile is not a grey one, as the pixels are"
                              : "the embedded colour profile is not an RGB one, as the pixels are";
    return conversion;
  }
  if (!grey && isSrgb(profile.get())) {
    conversion.identity = true;
    return conversion;
  }
  if (CV_MAT_DEPTH(type) == CV_8U && !grey)
    conversion.matrixShaper = makeMatrixShaper(profile.get());
  if (conversion.matrixShaper) return conversion;
  conversion.transform = makeTransform(profile.get(), type);
  if (!conversion.transform)
    conversion.problem = "LittleCMS cannot convert from the embedded colour profile";
  return conversion;
}

class Cache {
 public:
  // The conversion for `bytes` on `type`, made on first use; a problem is logged then.
  const Conversion* find(const std::string& bytes, int type, Conversion& uncached) {
    std::lock_guard lock(mutex_);
    const auto key = std::make_pair(bytes, type);
    if (const auto it = entries_.find(key); it != entries_.end()) return &it->second;
    Conversion conversion = makeConversion(bytes, type);
    if (!conversion.problem.empty())
      log().error(conversion.problem + "; its pixels are taken as sRGB");
    if (entries_.size() >= kMaxProfiles) {
      uncached = std::move(conversion);
      return &uncached;
    }
    return &entries_.emplace(key, std::move(conversion)).first->second;
  }

 private:
  std::mutex mutex_;
  std::map<std::pair<std::string, int>, Conversion> entries_;
};

Cache& cache() {
  static Cache instance;
  return instance;
}

}  // namespace

cv::Mat toSrgb(cv::Mat pixels, const std::string& profile) {
  if (profile.empty() || lcmsFormat(pixels.type()) == 0) return pixels;
  Conversion uncached;
  const Conversion* conversion = cache().find(profile, pixels.type(), uncached);
  if (conversion->matrixShaper) {
    conversion->matrixShaper->apply(pixels);  // the decoded pixels are ours alone
    return pixels;
  }
  if (!conversion->transform) return pixels;
  cv::Mat out(pixels.size(), outputType(pixels.type()));
  const auto transform = conversion->transform.get();
  cv::parallel_for_(cv::Range(0, pixels.rows), [&](const cv::Range& rows) {
    for (int y = rows.start; y < rows.end; ++y)
      cmsDoTransform(transform, pixels.ptr(y), out.ptr(y),
                     static_cast<cmsUInt32Number>(pixels.cols));
  });
  return out;
}

}  // namespace imaging::internal
