// Feeds a destination's format text and one entry through the format language, as a
// destination's queue does, and the date tokens' pattern through the date formatter. A
// format can hold anything a user types, so every text must give a line; findings are a
// crash, a sanitizer report, or one of the checks below:
// - texts that are valid UTF-8 give a line that is valid UTF-8 (padding and the trimming of
//   trailing white space must not cut a character);
// - "$J" writes JSON that reads back with the same message;
// - the date formatter's reuse of its last text within a second (only the fraction digits
//   rewritten), after any earlier pattern, gives what a fresh formatter gives for that instant.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "logwell/base_destination.hpp"
#include "logwell/internal/format_state.hpp"
#include "logwell/internal/text.hpp"
#include "platform/json.hpp"

namespace {

// Named zones only: an empty zone keeps the one last set, which a fresh formatter cannot know.
const char* const kZones[] = {
    "UTC", "Europe/Paris", "PST", "Asia/Kathmandu", "Australia/Lord_Howe", "Nowhere/Else"};
const char* const kCalendars[] = {"",        "gregorian", "buddhist", "japanese", "hebrew",
                                  "islamic", "chinese",   "ethiopic", "persian",  "no-such"};

template <class T, std::size_t N>
const T& pick(FuzzedDataProvider& in, const T (&options)[N]) {
  return options[in.ConsumeIntegralInRange<std::size_t>(0, N - 1)];
}

logwell::BaseDestination& destination() {
  static const auto dest = [] {
    auto d = std::make_shared<logwell::BaseDestination>();
    d->escape = "\x1b[38;5;";
    d->reset = "\x1b[0m";
    d->levelColor.error = "196m";
    d->levelString.warning = "⚠️ WARNING";
    return d;
  }();
  return *dest;
}

// The text after `token` up to the next "$": a date token's ICU pattern.
std::optional<std::string> datePattern(const std::string& format, std::string_view token) {
  const auto at = format.find(token);
  if (at == std::string::npos) return std::nullopt;
  const auto end = format.find('$', at + 2);
  return format.substr(at + 2, end == std::string::npos ? end : end - at - 2);
}

// One formatter, as a destination holds it, formats an earlier pattern (the format's other
// date token, or this one) and then this pattern twice; the second time is what a fresh
// formatter gives.
void checkDateReuse(FuzzedDataProvider& in, const std::string& pattern,
                    const std::string& earlierPattern) {
  // Instants the formatter is given are "now": keep them within a few centuries of 1970.
  const auto first = in.ConsumeIntegralInRange<std::int64_t>(-(1LL << 42), 1LL << 43);
  const auto later = first + in.ConsumeIntegralInRange<std::int64_t>(0, 1999);
  const std::string zones[2] = {pick(in, kZones), pick(in, kZones)};
  const std::string calendars[2] = {pick(in, kCalendars), pick(in, kCalendars)};

  logwell::detail::DateFormatter reused;
  reused.format(earlierPattern, zones[0], calendars[0], first);
  reused.format(pattern, zones[1], calendars[1], first);
  const std::string patched = reused.format(pattern, zones[1], calendars[1], later);
  logwell::detail::DateFormatter fresh;
  if (patched != fresh.format(pattern, zones[1], calendars[1], later)) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider in(data, size);
  const auto format = in.ConsumeRandomLengthString(256);
  const auto message = in.ConsumeRandomLengthString(128);
  const auto file = in.ConsumeRandomLengthString(64);
  const auto rawFunction = in.ConsumeRandomLengthString(128);
  const auto thread = in.ConsumeRandomLengthString(32);
  const auto level = static_cast<logwell::Level>(in.ConsumeIntegralInRange<int>(0, 6));
  const int line = in.ConsumeIntegral<int>();
  const auto contextText = in.ConsumeRandomLengthString(128);

  logwell::Context context;
  if (auto value = platform::tryParseJSON(contextText)) context = std::move(*value);

  // The function goes through the same stripping as a logged entry's.
  const auto stripped = logwell::detail::stripFunctionParameters(rawFunction);
  if (stripped.base.data() < rawFunction.data() ||
      stripped.base.data() + stripped.base.size() > rawFunction.data() + rawFunction.size())
    __builtin_trap();
  const std::string function = std::string(stripped.base) + (stripped.addParentheses ? "()" : "");

  auto& dest = destination();
  const std::string out =
      dest.formatMessage(format, level, message, thread, file, function, line, context);
  using logwell::detail::isValidUTF8;
  const bool utf8In = isValidUTF8(format) && isValidUTF8(message) && isValidUTF8(file) &&
                      isValidUTF8(rawFunction) && isValidUTF8(thread);
  if (utf8In && !isValidUTF8(out)) __builtin_trap();

  dest.format = "$J" + format;
  if (const auto json = dest.send(level, message, thread, file, function, line, context)) {
    const auto value = platform::parseJSON(*json);
    if (value.at("message").as_string() != message) __builtin_trap();
  } else if (utf8In && !context) {
    __builtin_trap();
  }

  if (const auto local = datePattern(format, "$D"))
    checkDateReuse(in, *local, datePattern(format, "$Z").value_or(*local));
  return 0;
}
