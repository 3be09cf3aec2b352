#pragma once
// What the destinations share: their messages on standard output, and the check that a
// value can be written as JSON.

#include <boost/json/fwd.hpp>
#include <cstdio>
#include <string_view>

namespace logwell::detail {

/// Writes `text` and a line feed to `stream` in one piece and flushes it.
void printLine(std::string_view text, std::FILE* stream = stdout);

/// False when a text is not valid UTF-8 or a number is not finite.
bool isJSONSerializable(const boost::json::value& value);

}  // namespace logwell::detail
