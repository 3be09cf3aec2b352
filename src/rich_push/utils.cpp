#include "rich_push/utils.hpp"

#include <boost/url/parse.hpp>
#include <cctype>

#include "platform/paths.hpp"

namespace rich_push {

std::vector<std::string_view> StringPath::segments() const {
  std::vector<std::string_view> out;
  std::string_view rest(path);
  for (;;) {
    const auto dot = rest.find('.');
    out.push_back(rest.substr(0, dot));
    if (dot == std::string_view::npos) return out;
    rest.remove_prefix(dot + 1);
  }
}

const boost::json::value* dig(const boost::json::object& object, const StringPath& path) {
  const auto segments = path.segments();
  const boost::json::object* current = &object;
  const boost::json::value* found = nullptr;
  for (std::size_t i = 0; i < segments.size(); ++i) {
    found = current->if_contains(segments[i]);
    if (!found) return nullptr;
    if (i + 1 < segments.size()) {
      if (!found->is_object()) return nullptr;
      current = &found->get_object();
    }
  }
  return found;
}

namespace {

bool isHex(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// The characters a URL holds literally: unreserved and reserved ones (RFC 3986).
bool allowedLiterally(unsigned char c) {
  if (c >= 0x80 || c <= 0x20 || c == 0x7F) return false;
  static constexpr std::string_view kAllowed =
      "-._~:/?#[]@!$&'()*+,;="
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  return kAllowed.find(static_cast<char>(c)) != std::string_view::npos;
}

}  // namespace

std::optional<std::string> parseURL(std::string_view text) {
  if (platform::isValidURL(text)) return std::string(text);
  // Blanks around the URL are padding from whoever wrote the payload, not part of it.
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front())))
    text.remove_prefix(1);
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())))
    text.remove_suffix(1);
  if (text.empty()) return std::nullopt;
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string encoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    const bool escape = c == '%' && i + 2 < text.size() && isHex(text[i + 1]) && isHex(text[i + 2]);
    if (escape || allowedLiterally(c)) {
      encoded.push_back(static_cast<char>(c));
    } else {
      encoded.push_back('%');
      encoded.push_back(kHex[c >> 4]);
      encoded.push_back(kHex[c & 0x0F]);
    }
  }
  if (!boost::urls::parse_uri_reference(encoded)) return std::nullopt;
  return encoded;
}

std::string sha256Hex(std::string_view text) {
  return platform::sha256Hex(text);
}

}  // namespace rich_push
