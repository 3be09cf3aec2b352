#pragma once

#include <opencv2/core/mat.hpp>
#include <string>

namespace imaging::internal {

/// `pixels` (grey, BGR or BGRA; 8-bit, 16-bit or float; straight alpha) rendered from the
/// ICC profile `profile` into sRGB at the same depth: grey becomes BGR, alpha is kept. A
/// profile that cannot serve for these pixels leaves them as they are (taken as sRGB) and
/// is reported in the log once per profile and pixel layout.
cv::Mat toSrgb(cv::Mat pixels, const std::string& profile);

}  // namespace imaging::internal
