// Feeds arbitrary bytes to the sandbox's GraphQL parser as a query document, and what parses to
// validation against the inbox schema. Whatever a client sends (half a query, nesting
// thousands deep, bytes that are not UTF-8, fragments spread in cycles), the parser must either
// return a document or throw its SyntaxError with a place inside the text, and validation must
// return its errors; any other exception, a crash or a sanitizer report is a finding.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "herald-sandbox/graphql/document.hpp"
#include "herald-sandbox/graphql/schemas.hpp"
#include "herald-sandbox/graphql/validation.hpp"

namespace {

// The longest line and the number of lines bound where an error may point.
bool inside(std::string_view text, sandbox::graphql::Location location) {
  std::size_t lines = 1, longest = 0, column = 0;
  for (const char c : text) {
    if (c == '\n' || c == '\r') {
      ++lines;
      column = 0;
    } else {
      longest = std::max(longest, ++column);
    }
  }
  return location.line >= 1 && location.line <= lines && location.column >= 1 &&
         location.column <= longest + 1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  try {
    const auto document = sandbox::graphql::parse(text);
    if (document.operations.empty() && document.fragments.empty()) __builtin_trap();
    for (const auto& operation : document.operations)
      if (!inside(text, operation.location)) __builtin_trap();
    for (const auto& error : sandbox::graphql::validate(sandbox::inboxSchema(), document))
      for (const auto& location : error.locations)
        if (!inside(text, location)) __builtin_trap();
  } catch (const sandbox::graphql::SyntaxError& error) {
    if (size <= sandbox::graphql::ParseLimits{}.bytes && !inside(text, error.location))
      __builtin_trap();
  } catch (...) {
    __builtin_trap();
  }
  return 0;
}
