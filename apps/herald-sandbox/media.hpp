#pragma once
// Content types by file extension, and made-up media files of any size.

#include <cstddef>
#include <string>
#include <string_view>

namespace sandbox {

/// The content type of a file extension (any case); "application/octet-stream" if unknown.
std::string contentTypeFor(std::string_view extension);

/// `size` bytes that start like a real file of the type (JPEG, PNG and GIF signatures and
/// headers, an MP4 "ftyp" box, an ID3 tag, a RIFF/WAVE header), so that attachment checks
/// that look at the first bytes accept them. A JPEG long enough also ends with its
/// end-of-image marker.
std::string generatedMedia(std::size_t size, std::string_view extension);

}  // namespace sandbox
