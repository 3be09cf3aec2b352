#include "media.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <utility>

#include "platform/text.hpp"

namespace sandbox {
namespace {

constexpr std::array<std::pair<std::string_view, std::string_view>, 25> kTypes{{
    {"jpg", "image/jpeg"},
    {"jpeg", "image/jpeg"},
    {"png", "image/png"},
    {"gif", "image/gif"},
    {"webp", "image/webp"},
    {"svg", "image/svg+xml"},
    {"mp4", "video/mp4"},
    {"mpg", "video/mpeg"},
    {"mpeg", "video/mpeg"},
    {"mpeg2", "video/mpeg"},
    {"avi", "video/x-msvideo"},
    {"mp3", "audio/mpeg"},
    {"m4a", "audio/mp4"},
    {"wav", "audio/wav"},
    {"aif", "audio/aiff"},
    {"aiff", "audio/aiff"},
    {"json", "application/json"},
    {"txt", "text/plain; charset=utf-8"},
    {"html", "text/html; charset=utf-8"},
    {"htm", "text/html; charset=utf-8"},
    {"css", "text/css"},
    {"js", "text/javascript"},
    {"zip", "application/zip"},
    {"woff2", "font/woff2"},
    {"ttf", "font/ttf"},
}};

std::string bytes(std::initializer_list<int> values) {
  std::string out;
  for (int v : values) out.push_back(static_cast<char>(v));
  return out;
}

void appendBigEndian(std::string& out, std::uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<char>(value >> shift));
}

void appendLittleEndian(std::string& out, std::uint32_t value) {
  for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<char>(value >> shift));
}

std::uint32_t crc32(std::string_view data) {
  std::uint32_t crc = 0xFFFFFFFFu;
  for (unsigned char c : data) {
    crc ^= c;
    for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

std::string header(const std::string& type, std::size_t size) {
  if (type == "jpg" || type == "jpeg")  // SOI, then a JFIF APP0 segment
    return bytes({0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x10, 'J',  'F',  'I',  'F',
                  0x00, 0x01, 0x01, 0x00, 0x00, 0x01, 0x00, 0x01, 0x00, 0x00});
  if (type == "png") {  // signature, then an IHDR chunk for a 1 x 1 RGB image
    std::string out = bytes({0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A});
    std::string chunk = "IHDR";
    appendBigEndian(chunk, 1);
    appendBigEndian(chunk, 1);
    chunk += bytes({8, 2, 0, 0, 0});
    appendBigEndian(out, 13);
    out += chunk;
    appendBigEndian(out, crc32(chunk));
    return out;
  }
  if (type == "gif") return "GIF89a" + bytes({1, 0, 1, 0, 0, 0, 0});
  if (type == "mp4" || type == "m4a") {
    std::string out;
    appendBigEndian(out, 24);
    out += type == "mp4" ? "ftypmp42" : "ftypM4A ";
    appendBigEndian(out, 0);
    out += "isommp42";
    return out;
  }
  if (type == "mp3") return "ID3" + bytes({3, 0, 0, 0, 0, 0, 0});
  if (type == "wav") {
    std::string out = "RIFF";
    appendLittleEndian(out, static_cast<std::uint32_t>(size >= 8 ? size - 8 : 0));
    return out + "WAVE";
  }
  return {};
}

}  // namespace

std::string contentTypeFor(std::string_view extension) {
  const auto ext = platform::lowercased(extension);
  for (const auto& [known, type] : kTypes)
    if (ext == known) return std::string(type);
  return "application/octet-stream";
}

std::string generatedMedia(std::size_t size, std::string_view extension) {
  const auto type = platform::lowercased(extension);
  std::string out = header(type, size);
  const bool jpeg = type == "jpg" || type == "jpeg";
  const std::size_t trailer = jpeg ? 2 : 0;
  // Filler that never forms a JPEG marker (no 0xFF), so the file stays well formed.
  for (std::size_t i = out.size(); out.size() + trailer < size; ++i)
    out.push_back(static_cast<char>(i % 251));
  if (jpeg && out.size() + 2 <= size) out += bytes({0xFF, 0xD9});
  out.resize(size);
  return out;
}

}  // namespace sandbox
