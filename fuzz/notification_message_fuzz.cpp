// Feeds arbitrary bytes to the push payload decoder. Everything the decoder may do with bad
// input is throw core::DecodingError; any other exception, crash or sanitizer report is a
// finding.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "notification_message/notification_message.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  try {
    (void)notification_message::decode(text);
  } catch (const core::DecodingError& e) {
    // Every failure must say something a person can act on.
    if (*e.what() == '\0') __builtin_trap();
  }
  return 0;
}
