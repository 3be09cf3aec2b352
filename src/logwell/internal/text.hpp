#pragma once
// Text helpers of the formatter: width in characters, padding, white space, case folding.

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/text.hpp"

namespace logwell::detail {

/// Number of user-perceived characters, close enough for column alignment: combining marks,
/// variation selectors, skin-tone modifiers and joined emoji do not count on their own.
std::size_t characterCount(std::string_view text);

/// Appends `text` padded to `length` characters: positive pads in front (right-aligned),
/// negative pads behind (left-aligned); a longer text stays whole unless `truncating`, which
/// cuts it to exactly -length characters (only for a negative length).
void appendPadded(std::string& out, std::string_view text, int length, bool truncating = false);

/// Removes trailing white space: tab, line feed, form feed, carriage return and the Unicode
/// space separators.
void trimTrailingWhiteSpace(std::string& text);
/// Removes white space and line breaks at both ends.
std::string_view trimWhiteSpaceAndNewlines(std::string_view text);

/// Lower case, Unicode-aware (ASCII text takes a fast path).
std::string lowercased(std::string_view text);

using platform::isValidUTF8;

/// The function text sent with an entry: its base name followed by "()" when it has a
/// parameter list. Handles C++ signatures as compilers write them ("void ns::A::f(int) const"
/// gives "ns::A::f"), including template arguments and operator names.
struct StrippedFunction {
  std::string_view base;
  bool addParentheses = false;
};
StrippedFunction stripFunctionParameters(std::string_view function);

}  // namespace logwell::detail
