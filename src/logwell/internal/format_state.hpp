#pragma once
// Per-destination formatting state: the format compiled into phrases (once per format
// change) and the destination's one date formatter with its cache.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace logwell::detail {

struct Phrase {
  char token = 0;  // 0 for an unknown token: `text` is then the whole phrase
  int padding = 0;
  std::string text;  // the remainder after the token character (a date pattern for D and Z)
};

struct CompiledFormat {
  std::string source;
  std::vector<Phrase> phrases;
  bool valid = false;
};

/// Splits a format into phrases as the format language reads it.
CompiledFormat compileFormat(std::string_view format);

/// One ICU date formatter, reconfigured only when the pattern, zone or calendar changes.
/// Within one second only the fraction digits change, so a line is made from the text of the
/// last full format with its millisecond digits rewritten.
class DateFormatter {
 public:
  DateFormatter();
  ~DateFormatter();
  /// `zone` empty keeps the zone last set.
  const std::string& format(std::string_view pattern, std::string_view zone,
                            const std::string& calendar, std::int64_t epochMilliseconds);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

/// The calendar type of the user's locale ("gregorian" for most).
const std::string& defaultCalendarType();

struct FormatState {
  CompiledFormat compiled;
  DateFormatter date;
};

}  // namespace logwell::detail
