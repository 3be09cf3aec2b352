#pragma once
// Encoded images with metadata spliced in (a Display P3 profile in JPEG APP2 chunks), shared
// by the tests and the benchmark. Header-only: each includer links lcms2 itself.

#include <lcms2.h>

#include <cstdint>
#include <string>
#include <vector>

namespace imaging_test {

using Bytes = std::vector<unsigned char>;

inline void put32be(Bytes& b, std::uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) b.push_back(static_cast<unsigned char>(v >> shift));
}
inline void put32le(Bytes& b, std::uint32_t v) {
  for (int shift = 0; shift < 32; shift += 8) b.push_back(static_cast<unsigned char>(v >> shift));
}
inline void put16le(Bytes& b, std::uint32_t v) {
  for (int shift = 0; shift < 16; shift += 8) b.push_back(static_cast<unsigned char>(v >> shift));
}
inline Bytes bytesOf(const std::string& s) {
  return {s.begin(), s.end()};
}
inline Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// The profile's bytes; the profile is closed.
inline Bytes savedAndClosed(cmsHPROFILE profile) {
  cmsUInt32Number size = 0;
  cmsSaveProfileToMem(profile, nullptr, &size);
  Bytes bytes(size);
  cmsSaveProfileToMem(profile, bytes.data(), &size);
  cmsCloseProfile(profile);
  return bytes;
}

// Display P3 as phones tag their photos: P3 primaries, D65, the sRGB curve.
inline Bytes displayP3() {
  const cmsCIExyY d65{0.3127, 0.3290, 1.0};
  const cmsCIExyYTRIPLE primaries{{0.680, 0.320, 1.0}, {0.265, 0.690, 1.0}, {0.150, 0.060, 1.0}};
  const double params[] = {2.4, 1 / 1.055, 0.055 / 1.055, 1 / 12.92, 0.04045};
  cmsToneCurve* curve = cmsBuildParametricToneCurve(nullptr, 4, params);
  cmsToneCurve* curves[] = {curve, curve, curve};
  Bytes bytes = savedAndClosed(cmsCreateRGBProfile(&d65, &primaries, curves));
  cmsFreeToneCurve(curve);
  return bytes;
}

inline Bytes withJpegSegment(const Bytes& jpeg, int marker, const Bytes& data) {
  Bytes segment{0xFF, static_cast<unsigned char>(marker),
                static_cast<unsigned char>((data.size() + 2) >> 8),
                static_cast<unsigned char>(data.size() + 2)};
  return Bytes(jpeg.begin(), jpeg.begin() + 2) + segment + data +
         Bytes(jpeg.begin() + 2, jpeg.end());
}

// The profile in two APP2 chunks, as writers split profiles past 64 KB.
inline Bytes withJpegProfile(const Bytes& jpeg, const Bytes& profile) {
  const auto half = static_cast<std::ptrdiff_t>(profile.size() / 2);
  const auto chunk = [&](int index, Bytes part) {
    return bytesOf(std::string("ICC_PROFILE\0", 12)) + Bytes{static_cast<unsigned char>(index), 2} +
           part;
  };
  // Second chunk first: the order of the sequence numbers counts, not that of the segments.
  return withJpegSegment(
      withJpegSegment(jpeg, 0xE2, chunk(1, Bytes(profile.begin(), profile.begin() + half))), 0xE2,
      chunk(2, Bytes(profile.begin() + half, profile.end())));
}

}  // namespace imaging_test
