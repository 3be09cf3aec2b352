#pragma once
// Text as the terminal shows it: UTF-8 from the service turned into wide characters, measured
// in columns (a CJK character or an emoji takes two), and cut to fit without splitting one.

#include <string>
#include <string_view>
#include <vector>

namespace herald_ui {

/// Whether the terminal's locale takes UTF-8. When it does not, `widen` turns every
/// character outside ASCII into "?" and the ellipsis is "~". Set once, before the screens
/// start.
void setUnicode(bool unicode);
bool unicode();
/// `unicodeForm` when the terminal takes Unicode, else `asciiForm`.
std::wstring glyph(std::wstring_view unicodeForm, std::wstring_view asciiForm);

/// Decodes UTF-8; a malformed byte becomes U+FFFD and a control character (a line break in a
/// body, a tab) a space, so that one row stays one row.
std::wstring widen(std::string_view utf8);

/// Columns one character takes: 0 for a combining mark, 2 for a wide one, 1 otherwise
/// (also for what the locale cannot print, which `widen` has already replaced).
int columns(wchar_t c);
int columns(std::wstring_view text);

/// `text` cut to at most `width` columns, ending in "…" when something was cut.
std::wstring fit(std::wstring_view text, int width);
/// `fit`, then padded with spaces to exactly `width` columns.
std::wstring pad(std::wstring_view text, int width);

/// `text` broken into lines of at most `width` columns, at spaces where it can be; a word
/// longer than a line is cut. At most `maxLines` lines, the last ending in "…" when more
/// was left.
std::vector<std::wstring> wrap(std::wstring_view text, int width, std::size_t maxLines);

}  // namespace herald_ui
