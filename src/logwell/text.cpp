#include "logwell/internal/text.hpp"

#include <unicode/locid.h>
#include <unicode/unistr.h>

#include <algorithm>

namespace logwell::detail {
namespace {

// Decodes the code point at `i`; invalid bytes decode as themselves, one byte each.
char32_t decodeAt(std::string_view s, std::size_t& i) {
  const auto b0 = static_cast<unsigned char>(s[i]);
  auto cont = [&](std::size_t k) {
    return i + k < s.size() && (static_cast<unsigned char>(s[i + k]) & 0xC0) == 0x80;
  };
  auto at = [&](std::size_t k) { return static_cast<unsigned char>(s[i + k]) & 0x3F; };
  if (b0 < 0x80) {
    ++i;
    return b0;
  }
  if ((b0 & 0xE0) == 0xC0 && cont(1)) {
    char32_t cp = ((b0 & 0x1F) << 6) | at(1);
    i += 2;
    return cp;
  }
  if ((b0 & 0xF0) == 0xE0 && cont(1) && cont(2)) {
    char32_t cp = ((b0 & 0x0F) << 12) | (at(1) << 6) | at(2);
    i += 3;
    return cp;
  }
  if ((b0 & 0xF8) == 0xF0 && cont(1) && cont(2) && cont(3)) {
    char32_t cp = ((b0 & 0x07) << 18) | (at(1) << 12) | (at(2) << 6) | at(3);
    i += 4;
    return cp;
  }
  ++i;
  return b0;
}

bool extendsPrevious(char32_t cp) {
  return (cp >= 0x0300 && cp <= 0x036F) ||  // combining diacritical marks
         (cp >= 0x1AB0 && cp <= 0x1AFF) || (cp >= 0x1DC0 && cp <= 0x1DFF) ||
         (cp >= 0x20D0 && cp <= 0x20FF) || (cp >= 0xFE20 && cp <= 0xFE2F) ||
         (cp >= 0xFE00 && cp <= 0xFE0F) ||    // variation selectors
         (cp >= 0x1F3FB && cp <= 0x1F3FF) ||  // skin tones
         (cp >= 0xE0100 && cp <= 0xE01EF);
}

bool isSpaceSeparator(char32_t cp) {
  return cp == 0x20 || cp == 0xA0 || cp == 0x1680 || (cp >= 0x2000 && cp <= 0x200A) ||
         cp == 0x2028 || cp == 0x2029 || cp == 0x202F || cp == 0x205F || cp == 0x3000;
}

bool isRegexSpace(char32_t cp) {
  return cp == '\t' || cp == '\n' || cp == '\f' || cp == '\r' || isSpaceSeparator(cp);
}

bool isWhiteSpaceOrNewline(char32_t cp) {
  return (cp >= 0x09 && cp <= 0x0D) || cp == 0x85 || isSpaceSeparator(cp);
}

// Start of the code point that ends just before `end`.
std::size_t previousStart(std::string_view s, std::size_t end) {
  std::size_t i = end - 1;
  while (i > 0 && end - i < 4 && (static_cast<unsigned char>(s[i]) & 0xC0) == 0x80) --i;
  return i;
}

bool isIdentifierChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

}  // namespace

// End of the character that starts at `i`: a code point with the marks that extend it, and
// whatever a zero-width joiner glues to it.
static std::size_t characterEnd(std::string_view text, std::size_t i) {
  decodeAt(text, i);
  while (i < text.size()) {
    std::size_t k = i;
    const char32_t cp = decodeAt(text, k);
    if (cp == 0x200D) {
      i = k;
      if (i < text.size()) decodeAt(text, i);
    } else if (extendsPrevious(cp)) {
      i = k;
    } else {
      break;
    }
  }
  return i;
}

std::size_t characterCount(std::string_view text) {
  std::size_t count = 0;
  for (std::size_t i = 0; i < text.size(); ++count) {
    if (static_cast<unsigned char>(text[i]) < 0x80 &&
        (i + 1 == text.size() || static_cast<unsigned char>(text[i + 1]) < 0x80))
      ++i;
    else
      i = characterEnd(text, i);
  }
  return count;
}

void appendPadded(std::string& out, std::string_view text, int length, bool truncating) {
  if (length == 0) {
    out.append(text);
    return;
  }
  const std::size_t width =
      static_cast<std::size_t>(length < 0 ? -static_cast<long>(length) : static_cast<long>(length));
  const std::size_t count = characterCount(text);
  if (length > 0) {
    if (count < width) out.append(width - count, ' ');
    out.append(text);
    return;
  }
  if (truncating && count > width) {
    std::size_t end = 0;
    for (std::size_t n = 0; n < width; ++n) end = characterEnd(text, end);
    out.append(text.substr(0, end));
    return;
  }
  out.append(text);
  if (count < width) out.append(width - count, ' ');
}

void trimTrailingWhiteSpace(std::string& text) {
  std::size_t end = text.size();
  while (end > 0) {
    const auto b = static_cast<unsigned char>(text[end - 1]);
    if (b < 0x80) {
      if (!isRegexSpace(b)) break;
      --end;
      continue;
    }
    std::size_t start = previousStart(text, end);
    std::size_t i = start;
    const char32_t cp = decodeAt(text, i);
    if (i != end || !isRegexSpace(cp)) break;
    end = start;
  }
  text.resize(end);
}

std::string_view trimWhiteSpaceAndNewlines(std::string_view text) {
  std::size_t begin = 0;
  while (begin < text.size()) {
    std::size_t i = begin;
    if (!isWhiteSpaceOrNewline(decodeAt(text, i))) break;
    begin = i;
  }
  std::size_t end = text.size();
  while (end > begin) {
    std::size_t start = previousStart(text, end);
    std::size_t i = start;
    const char32_t cp = decodeAt(text, i);
    if (i != end || !isWhiteSpaceOrNewline(cp)) break;
    end = start;
  }
  return text.substr(begin, end - begin);
}

std::string lowercased(std::string_view text) {
  std::string out(text);
  bool ascii = true;
  for (char& c : out) {
    if (static_cast<unsigned char>(c) >= 0x80) {
      ascii = false;
      break;
    }
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  if (ascii) return out;
  out.clear();
  icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())))
      .toLower(icu::Locale::getRoot())
      .toUTF8String(out);
  return out;
}

StrippedFunction stripFunctionParameters(std::string_view f) {
  constexpr std::string_view kOperator = "operator";
  constexpr std::string_view kAnonymous = "(anonymous namespace)";
  int angle = 0;
  std::size_t open = std::string_view::npos;
  std::size_t operatorAt = std::string_view::npos;
  for (std::size_t i = 0; i < f.size();) {
    const char c = f[i];
    if (c != '(' && c != 'o' && c != '<' && c != '>') {
      ++i;
      continue;
    }
    if (c == '(' && f.compare(i, kAnonymous.size(), kAnonymous) == 0) {
      i += kAnonymous.size();
      continue;
    }
    if (c == 'o' && f.compare(i, kOperator.size(), kOperator) == 0 &&
        (i == 0 || !isIdentifierChar(f[i - 1])) &&
        (i + kOperator.size() == f.size() || !isIdentifierChar(f[i + kOperator.size()]))) {
      // The operator's own symbol ("()", "<", "<<=", "[]") is part of the name.
      if (angle == 0) operatorAt = i;
      i += kOperator.size();
      while (i < f.size() && f[i] == ' ') ++i;
      if (f.compare(i, 2, "()") == 0 || f.compare(i, 2, "[]") == 0) {
        i += 2;
      } else {
        while (i < f.size() &&
               std::string_view("+-*/%^&|~!=<>,").find(f[i]) != std::string_view::npos)
          ++i;
      }
      continue;
    }
    if (c == '<') {
      ++angle;
    } else if (c == '>' && angle > 0) {
      --angle;
    } else if (c == '(' && angle == 0) {
      open = i;
      break;
    }
    ++i;
  }
  if (open == std::string_view::npos) return {f, false};

  // Drop a return type: the name starts after the last blank outside template arguments
  // (an operator name keeps its own blank, as in "operator new").
  const std::string_view prefix = f.substr(0, open);
  const std::size_t limit = operatorAt != std::string_view::npos ? operatorAt : prefix.size();
  std::size_t start = 0;
  int nesting = 0;
  for (std::size_t i = 0; i < limit; ++i) {
    const char c = prefix[i];
    if (c == '<' || c == '(')
      ++nesting;
    else if ((c == '>' || c == ')') && nesting > 0)
      --nesting;
    else if (c == ' ' && nesting == 0)
      start = i + 1;
  }
  return {prefix.substr(start), true};
}

}  // namespace logwell::detail
