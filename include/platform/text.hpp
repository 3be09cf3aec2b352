#pragma once
/// Small ASCII text helpers that header names, file extensions and content types need.
///
///   platform::lowercased("JPG") == "jpg";
///   platform::equalsIgnoringCase("content-length", "Content-Length");

#include <algorithm>
#include <cctype>
#include <string>
#include <string_view>

namespace platform {

inline std::string lowercased(std::string_view text) {
  std::string out(text);
  for (auto& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

inline bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, [](char x, char y) {
    return std::tolower(static_cast<unsigned char>(x)) ==
           std::tolower(static_cast<unsigned char>(y));
  });
}

}  // namespace platform
