#include "herald_ui/text.hpp"

#include <cwchar>

namespace herald_ui {
namespace {

constexpr wchar_t kReplacement = 0xFFFD;
bool unicode_ = true;

wchar_t ellipsis() { return unicode_ ? wchar_t{0x2026} : L'~'; }

bool isControl(char32_t c) { return c < 0x20 || (c >= 0x7F && c < 0xA0); }

}  // namespace

void setUnicode(bool unicode) { unicode_ = unicode; }
bool unicode() { return unicode_; }
std::wstring glyph(std::wstring_view unicodeForm, std::wstring_view asciiForm) {
  return std::wstring(unicode_ ? unicodeForm : asciiForm);
}

std::wstring widen(std::string_view utf8) {
  std::wstring out;
  out.reserve(utf8.size());
  std::size_t i = 0;
  while (i < utf8.size()) {
    const auto lead = static_cast<unsigned char>(utf8[i]);
    int length = 0;
    char32_t c = 0;
    if (lead < 0x80) {
      length = 1;
      c = lead;
    } else if ((lead & 0xE0) == 0xC0) {
      length = 2;
      c = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3;
      c = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4;
      c = lead & 0x07;
    }
    bool valid = length > 0 && i + length <= utf8.size();
    for (int k = 1; valid && k < length; ++k) {
      const auto next = static_cast<unsigned char>(utf8[i + k]);
      if ((next & 0xC0) != 0x80) valid = false;
      c = (c << 6) | (next & 0x3F);
    }
    // Overlong forms, surrogates and values past the last code point are malformed too.
    constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (valid && (c < kSmallest[length] || (c >= 0xD800 && c <= 0xDFFF) || c > 0x10FFFF))
      valid = false;
    if (!valid) {
      out.push_back(unicode_ ? kReplacement : L'?');
      ++i;
      continue;
    }
    out.push_back(isControl(c) ? L' ' : !unicode_ && c >= 0x80 ? L'?' : static_cast<wchar_t>(c));
    i += length;
  }
  return out;
}

int columns(wchar_t c) {
  const int width = ::wcwidth(c);
  return width < 0 ? 1 : width;
}

int columns(std::wstring_view text) {
  int total = 0;
  for (const wchar_t c : text) total += columns(c);
  return total;
}

std::wstring fit(std::wstring_view text, int width) {
  if (width <= 0) return {};
  if (columns(text) <= width) return std::wstring(text);
  // Room for the ellipsis, then as many whole characters as fit before it.
  std::wstring out;
  int used = 0;
  for (const wchar_t c : text) {
    const int w = columns(c);
    if (used + w > width - 1) break;
    out.push_back(c);
    used += w;
  }
  out.push_back(ellipsis());
  return out;
}

std::wstring pad(std::wstring_view text, int width) {
  auto out = fit(text, width);
  out.append(static_cast<std::size_t>(std::max(0, width - columns(out))), L' ');
  return out;
}

std::vector<std::wstring> wrap(std::wstring_view text, int width, std::size_t maxLines) {
  std::vector<std::wstring> lines;
  if (width <= 0 || maxLines == 0) return lines;
  std::size_t i = 0;
  while (i < text.size() && lines.size() < maxLines) {
    while (i < text.size() && text[i] == L' ') ++i;
    if (i == text.size()) break;
    // The longest run from i that fits, then back to its last space when the text goes on.
    std::size_t end = i;
    int used = 0;
    while (end < text.size() && used + columns(text[end]) <= width) used += columns(text[end++]);
    if (end < text.size() && text[end] != L' ') {
      const auto space = text.rfind(L' ', end);
      if (space != std::wstring_view::npos && space > i) end = space;
    }
    lines.emplace_back(text.substr(i, end - i));
    i = end;
  }
  while (i < text.size() && text[i] == L' ') ++i;
  if (i < text.size() && !lines.empty()) {
    auto& last = lines.back();
    while (!last.empty() && columns(last) + 1 > width) last.pop_back();
    last.push_back(ellipsis());
  }
  return lines;
}

}  // namespace herald_ui
