#include "imaging/internal/container.hpp"

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string_view>

using namespace std::literals;

namespace imaging::internal {
namespace {

using Bytes = std::span<const unsigned char>;

// ICC profiles are a few kilobytes; a compressed one that inflates past this is an attack.
constexpr std::size_t kMaxProfileBytes = 4u << 20;

std::uint32_t be16(Bytes b, std::size_t at) {
  return (b[at] << 8) | b[at + 1];
}
std::uint32_t be32(Bytes b, std::size_t at) {
  return (std::uint32_t{b[at]} << 24) | (b[at + 1] << 16) | (b[at + 2] << 8) | b[at + 3];
}
std::uint32_t le16(Bytes b, std::size_t at) {
  return b[at] | (b[at + 1] << 8);
}
std::uint32_t le24(Bytes b, std::size_t at) {
  return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16);
}
std::uint32_t le32(Bytes b, std::size_t at) {
  return le24(b, at) | (std::uint32_t{b[at + 3]} << 24);
}

bool startsWith(Bytes b, std::string_view prefix, std::size_t at = 0) {
  return b.size() >= at + prefix.size() &&
         std::memcmp(b.data() + at, prefix.data(), prefix.size()) == 0;
}

std::string text(Bytes b) {
  return {reinterpret_cast<const char*>(b.data()), b.size()};
}

// The tags of a TIFF structure's first directory that matter here. The same structure is a
// TIFF file and the body of every EXIF block (JPEG APP1, PNG eXIf, WebP EXIF).
struct TiffTags {
  std::uint64_t width = 0;
  std::uint64_t height = 0;
  int orientation = 1;
  int extraSamples = 0;  // 1 associated alpha, 2 unassociated
  Bytes icc;
};

TiffTags readTiff(Bytes tiff) {
  TiffTags tags;
  if (tiff.size() < 8) return tags;
  const bool little = startsWith(tiff, "II*\0"sv);
  if (!little && !startsWith(tiff, "MM\0*"sv)) return tags;
  const auto u16 = [&](std::size_t at) { return little ? le16(tiff, at) : be16(tiff, at); };
  const auto u32 = [&](std::size_t at) { return little ? le32(tiff, at) : be32(tiff, at); };
  const std::size_t ifd = u32(4);
  if (ifd + 2 > tiff.size()) return tags;
  const std::size_t count = u16(ifd);
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t entry = ifd + 2 + i * 12;
    if (entry + 12 > tiff.size()) break;
    const auto tag = u16(entry);
    const auto type = u16(entry + 2);
    const auto n = u32(entry + 4);
    // A SHORT sits in the first two bytes of the value field, a LONG fills it.
    const std::uint64_t value = type == 3 ? u16(entry + 8) : u32(entry + 8);
    switch (tag) {
      case 256:
        tags.width = value;
        break;
      case 257:
        tags.height = value;
        break;
      case 274:
        tags.orientation = value >= 1 && value <= 8 ? static_cast<int>(value) : 1;
        break;
      case 338:
        tags.extraSamples = static_cast<int>(value);
        break;
      case 34675:
        if (n > 4 && n <= tiff.size() && value <= tiff.size() - n)
          tags.icc = tiff.subspan(value, n);
        break;
      default:
        break;
    }
  }
  return tags;
}

// zlib data inflated, or empty with `problem` set.
std::string inflated(Bytes data, std::string& problem) {
  std::string out;
  z_stream stream{};
  if (inflateInit(&stream) != Z_OK) {
    problem = "zlib cannot start";
    return out;
  }
  stream.next_in = const_cast<Bytef*>(data.data());
  stream.avail_in = static_cast<uInt>(data.size());
  int status = Z_OK;
  unsigned char chunk[16384];
  while (status == Z_OK) {
    stream.next_out = chunk;
    stream.avail_out = sizeof chunk;
    status = inflate(&stream, Z_NO_FLUSH);
    out.append(reinterpret_cast<const char*>(chunk), sizeof chunk - stream.avail_out);
    if (out.size() > kMaxProfileBytes) status = Z_MEM_ERROR;
  }
  inflateEnd(&stream);
  if (status != Z_STREAM_END) {
    problem = out.size() > kMaxProfileBytes ? "the profile inflates past 4 MB"
                                            : "the compressed profile is damaged";
    out.clear();
  }
  return out;
}

void readJpeg(Bytes b, Container& c) {
  std::map<int, Bytes> iccChunks;  // by sequence number, which starts at 1
  int iccCount = 0;
  std::size_t at = 2;
  bool scan = false;
  while (at + 4 <= b.size() && !scan) {
    if (b[at] != 0xFF) break;
    const int marker = b[at + 1];
    if (marker == 0xFF) {  // fill byte
      ++at;
      continue;
    }
    if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD8)) {
      at += 2;
      continue;
    }
    const std::size_t length = be16(b, at + 2);
    if (length < 2 || at + 2 + length > b.size()) break;
    const Bytes body = b.subspan(at + 4, length - 2);
    if (marker == 0xE1 && startsWith(body, "Exif\0\0"sv)) {
      c.orientation = readTiff(body.subspan(6)).orientation;
    } else if (marker == 0xE2 && startsWith(body, "ICC_PROFILE\0"sv) && body.size() >= 14) {
      iccCount = body[13];
      iccChunks[body[12]] = body.subspan(14);
    } else if (marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 &&
               marker != 0xCC && body.size() >= 5) {
      c.height = be16(body, 1);
      c.width = be16(body, 3);
    }
    scan = marker == 0xDA;
    at += 2 + length;
  }
  if (!iccChunks.empty()) {
    bool whole = static_cast<int>(iccChunks.size()) == iccCount;
    for (int i = 1; whole && i <= iccCount; ++i) whole = iccChunks.contains(i);
    if (whole) {
      for (const auto& [index, chunk] : iccChunks) c.iccProfile += text(chunk);
    } else {
      c.iccProblem = "the profile's APP2 chunks are incomplete";
    }
  }
  // Entropy-coded data escapes every 0xFF, so an end marker after the scan header is the
  // file's own end, wherever trailing bytes put it.
  bool ended = false;
  for (std::size_t i = b.size(); !ended && i >= std::max<std::size_t>(at, 2) + 1; --i)
    ended = b[i - 2] == 0xFF && b[i - 1] == 0xD9;
  c.truncated = !ended;
}

void readPng(Bytes b, Container& c) {
  std::size_t at = 8;
  while (at + 12 <= b.size()) {
    const std::size_t length = be32(b, at);
    if (length > b.size() - at - 12) break;
    const Bytes body = b.subspan(at + 8, length);
    const auto type = text(b.subspan(at + 4, 4));
    if (type == "IHDR" && length >= 8) {
      c.width = be32(body, 0);
      c.height = be32(body, 4);
    } else if (type == "iCCP") {
      // A name of 1 to 79 bytes, its terminator, the method (0 is zlib), the data.
      const auto end = std::find(body.begin(), body.end(), 0);
      const auto offset = static_cast<std::size_t>(end - body.begin()) + 2;
      if (offset <= body.size())
        c.iccProfile = inflated(body.subspan(offset), c.iccProblem);
      else
        c.iccProblem = "the iCCP chunk is cut short";
    } else if (type == "eXIf") {
      c.orientation = readTiff(body).orientation;
    } else if (type == "IEND") {
      return;
    }
    at += 12 + length;
  }
  c.truncated = true;
}

void readWebp(Bytes b, Container& c) {
  std::size_t at = 12;
  while (at + 8 <= b.size()) {
    const auto type = text(b.subspan(at, 4));
    const std::size_t length = le32(b, at + 4);
    if (length > b.size() - at - 8) {
      c.truncated = true;
      break;
    }
    const Bytes body = b.subspan(at + 8, length);
    if (type == "VP8X" && length >= 10) {
      c.width = le24(body, 4) + 1ull;
      c.height = le24(body, 7) + 1ull;
    } else if (type == "VP8 " && length >= 10 && c.width == 0) {
      c.width = le16(body, 6) & 0x3FFF;
      c.height = le16(body, 8) & 0x3FFF;
    } else if (type == "VP8L" && length >= 5 && c.width == 0) {
      const auto bits = le32(body, 1);
      c.width = (bits & 0x3FFF) + 1ull;
      c.height = ((bits >> 14) & 0x3FFF) + 1ull;
    } else if (type == "ICCP") {
      c.iccProfile = text(body);
    } else if (type == "EXIF") {
      // Some writers keep the JPEG marker's "Exif\0\0" in front of the TIFF structure.
      const bool prefixed = startsWith(body, "Exif\0\0"sv);
      c.orientation = readTiff(body.subspan(prefixed ? 6 : 0)).orientation;
    }
    at += 8 + length + (length & 1);
  }
}

}  // namespace

Container inspect(std::span<const unsigned char> bytes) {
  Container c;
  if (startsWith(bytes, "\xFF\xD8\xFF"sv)) {
    c.format = Format::jpeg;
    readJpeg(bytes, c);
  } else if (startsWith(bytes, "\x89PNG\r\n\x1A\n"sv)) {
    c.format = Format::png;
    readPng(bytes, c);
  } else if (startsWith(bytes, "RIFF"sv) && startsWith(bytes, "WEBP"sv, 8)) {
    c.format = Format::webp;
    readWebp(bytes, c);
  } else if (startsWith(bytes, "II*\0"sv) || startsWith(bytes, "MM\0*"sv)) {
    c.format = Format::tiff;
    const auto tags = readTiff(bytes);
    c.width = tags.width;
    c.height = tags.height;
    c.orientation = tags.orientation;
    c.iccProfile = text(tags.icc);
    c.tiffExtraSamples = tags.extraSamples;
  } else if (startsWith(bytes, "BM"sv) && bytes.size() >= 26) {
    c.format = Format::bmp;
    const auto height = static_cast<std::int32_t>(le32(bytes, 22));  // negative: top-down
    c.width = le32(bytes, 18);
    c.height = static_cast<std::uint64_t>(height < 0 ? -static_cast<std::int64_t>(height) : height);
  }
  return c;
}

}  // namespace imaging::internal
