#pragma once
// What an encoded image says about itself beside its pixels, read from the file's own
// structure: OpenCV's readers either skip these facts (orientation and colour profiles when
// alpha is kept) or do not expose them at all (the profile, the pixel size before decoding,
// how a TIFF stores its alpha).

#include <cstdint>
#include <span>
#include <string>

namespace imaging::internal {

enum class Format { unknown, jpeg, png, webp, tiff, bmp };

struct Container {
  Format format = Format::unknown;
  /// The pixel size the header declares; 0 when the format's header is not read here.
  std::uint64_t width = 0;
  std::uint64_t height = 0;
  /// EXIF orientation, 1 to 8 (1 when absent or out of range).
  int orientation = 1;
  /// The embedded ICC profile's bytes; empty when there is none.
  std::string iccProfile;
  /// Why an embedded profile could not be taken out of the file (empty when it could).
  std::string iccProblem;
  /// A TIFF's ExtraSamples: 1 when its alpha is associated (premultiplied) in the file, 2 when
  /// unassociated, 0 when unspecified or absent.
  int tiffExtraSamples = 0;
  /// The data ends before the format's end marker (JPEG EOI, PNG IEND).
  bool truncated = false;
};

Container inspect(std::span<const unsigned char> bytes);

}  // namespace imaging::internal
