// Embedded profiles through LittleCMS, with relative colorimetric intent (the reason is in
// image.hpp). A photo library holds few distinct profiles (the phone's Display P3, sRGB,
// a camera's Adobe RGB), so each profile's transforms are made once per pixel layout and
// kept for the process; past kMaxProfiles distinct profiles a transform is made per image.

#include "imaging/internal/colour.hpp"

#include <lcms2.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <opencv2/core.hpp>
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

// One profile on pixels of one OpenCV type: either a transform, or nothing to do (the
// profile is sRGB in all but name), or the reason it cannot serve.
struct Conversion {
  TransformHandle transform;
  bool identity = false;
  std::string problem;
};

cmsUInt32Number lcmsFormat(int type) {
  switch (type) {
    case CV_8UC1: return TYPE_GRAY_8;
    case CV_8UC3: return TYPE_BGR_8;
    case CV_8UC4: return TYPE_BGRA_8;
    case CV_16UC1: return TYPE_GRAY_16;
    case CV_16UC3: return TYPE_BGR_16;
    case CV_16UC4: return TYPE_BGRA_16;
    case CV_32FC1: return TYPE_GRAY_FLT;
    case CV_32FC3: return TYPE_BGR_FLT;
    case CV_32FC4: return TYPE_BGRA_FLT;
    default: return 0;
  }
}

// Grey becomes BGR; alpha stays.
int outputType(int type) {
  return CV_MAKETYPE(CV_MAT_DEPTH(type), CV_MAT_CN(type) == 1 ? 3 : CV_MAT_CN(type));
}

cmsHPROFILE srgb() {
  static const ProfileHandle profile(cmsCreate_sRGBProfile());
  return profile.get();
}

TransformHandle makeTransform(cmsHPROFILE profile, int type) {
  // NOCACHE: the one-pixel cache is what makes a transform unsafe to share between threads.
  return TransformHandle(cmsCreateTransform(profile, lcmsFormat(type), srgb(),
                                            lcmsFormat(outputType(type)), INTENT_RELATIVE_COLORIMETRIC,
                                            cmsFLAGS_NOCACHE | cmsFLAGS_COPY_ALPHA));
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
    grid.at<cv::Vec3b>(0, i) = cv::Vec3b(static_cast<uchar>((i & 15) * 17),
                                         static_cast<uchar>(((i >> 4) & 15) * 17),
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
  if (!conversion->transform) return pixels;
  cv::Mat out(pixels.size(), outputType(pixels.type()));
  const auto transform = conversion->transform.get();
  cv::parallel_for_(cv::Range(0, pixels.rows), [&](const cv::Range& rows) {
    for (int y = rows.start; y < rows.end; ++y)
      cmsDoTransform(transform, pixels.ptr(y), out.ptr(y), static_cast<cmsUInt32Number>(pixels.cols));
  });
  return out;
}

}  // namespace imaging::internal
