#include <algorithm>
#include <charconv>
#include <string_view>

#include "logwell/internal/format_state.hpp"

namespace logwell::detail {
namespace {

// Wider columns than this are taken as this width: a typo must not allocate gigabytes.
constexpr long kMaxPadding = 10000;

bool isKnownToken(char c) {
  return std::string_view("ILMTNnFlDdZzUCcX").find(c) != std::string_view::npos;
}

}  // namespace

CompiledFormat compileFormat(std::string_view format) {
  CompiledFormat compiled;
  compiled.source = std::string(format);
  compiled.valid = true;

  // A leading "$I" keeps the text in front of the first "$" from being read as a token.
  std::string full = "$I";
  full += format;
  std::size_t start = 0;
  while (start <= full.size()) {
    std::size_t end = full.find('$', start);
    if (end == std::string::npos) end = full.size();
    const std::string_view piece = std::string_view(full).substr(start, end - start);
    start = end + 1;
    if (piece.empty()) continue;

    Phrase phrase;
    const bool negative = piece.front() == '-';
    const std::size_t digitsAt = negative ? 1 : 0;
    std::size_t digitsEnd = digitsAt;
    while (digitsEnd < piece.size() && piece[digitsEnd] >= '0' && piece[digitsEnd] <= '9')
      ++digitsEnd;
    std::size_t tokenAt = 0;
    long width = 0;
    const auto [ptr, ec] =
        std::from_chars(piece.data() + digitsAt, piece.data() + digitsEnd, width);
    if (digitsEnd > digitsAt && ec == std::errc()) {
      width = std::min(width, kMaxPadding);
      phrase.padding = static_cast<int>(negative ? -width : width);
      tokenAt = digitsEnd;
    } else if (digitsEnd > digitsAt) {
      // Too many digits for a number: the text reads the phrase as having no width.
      tokenAt = 0;
    }
    if (tokenAt < piece.size() && isKnownToken(piece[tokenAt])) {
      phrase.token = piece[tokenAt];
      phrase.text = std::string(piece.substr(tokenAt + 1));
    } else {
      phrase.token = 0;
      phrase.padding = 0;
      phrase.text = std::string(piece);
    }
    compiled.phrases.push_back(std::move(phrase));
  }
  return compiled;
}

}  // namespace logwell::detail
