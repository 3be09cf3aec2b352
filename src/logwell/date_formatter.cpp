#include <unicode/calendar.h>
#include <unicode/fieldpos.h>
#include <unicode/fpositer.h>
#include <unicode/locid.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <limits>

#include "logwell/internal/format_state.hpp"

namespace logwell::detail {
namespace {

icu::UnicodeString fromUTF8(std::string_view text) {
  return icu::UnicodeString::fromUTF8(
      icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
}

std::int64_t floorDiv(std::int64_t a, std::int64_t b) {
  std::int64_t q = a / b;
  if ((a % b != 0) && ((a < 0) != (b < 0))) --q;
  return q;
}

}  // namespace

const std::string& defaultCalendarType() {
  static const std::string type = [] {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Calendar> calendar(icu::Calendar::createInstance(status));
    if (U_FAILURE(status) || !calendar) return std::string("gregorian");
    return std::string(calendar->getType());
  }();
  return type;
}

struct DateFormatter::Impl {
  std::unique_ptr<icu::SimpleDateFormat> formatter;
  bool usable = false;
  bool patternApplied = false;
  std::string pattern, zone, calendar;

  std::int64_t cachedMs = std::numeric_limits<std::int64_t>::min();
  std::int64_t cachedSecond = std::numeric_limits<std::int64_t>::min();
  bool cacheValid = false;
  bool patchable = false;  // only fraction digits depend on the time within a second
  std::size_t fractionAt = 0, fractionLength = 0;
  std::string text;

  void ensureFormatter() {
    if (formatter) return;
    UErrorCode status = U_ZERO_ERROR;
    formatter = std::make_unique<icu::SimpleDateFormat>(status);
    if (U_FAILURE(status)) {
      status = U_ZERO_ERROR;
      formatter = std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString(u"HH:mm:ss"),
                                                          icu::Locale::getRoot(), status);
    }
    usable = U_SUCCESS(status);
  }

  void configure(std::string_view newPattern, std::string_view newZone,
                 const std::string& newCalendar) {
    ensureFormatter();
    if (!usable) return;
    if (newCalendar != calendar) {
      UErrorCode status = U_ZERO_ERROR;
      icu::Locale locale = icu::Locale::getDefault();
      locale.setKeywordValue(
          "calendar", newCalendar.empty() ? defaultCalendarType().c_str() : newCalendar.c_str(),
          status);
      std::unique_ptr<icu::Calendar> cal(
          icu::Calendar::createInstance(formatter->getTimeZone().clone(), locale, status));
      if (U_SUCCESS(status) && cal) formatter->adoptCalendar(cal.release());
      calendar = newCalendar;
      cacheValid = false;
    }
    if (!newZone.empty() && newZone != zone) {
      std::unique_ptr<icu::TimeZone> tz(icu::TimeZone::createTimeZone(fromUTF8(newZone)));
      // An unknown abbreviation leaves the formatter on the local zone.
      if (!tz || *tz == icu::TimeZone::getUnknown()) tz.reset(icu::TimeZone::createDefault());
      formatter->adoptTimeZone(tz.release());
      zone = newZone;
      cacheValid = false;
    }
    // Any text is a pattern a user may write, so the first one is told apart by a flag.
    if (!patternApplied || newPattern != pattern) {
      formatter->applyPattern(fromUTF8(newPattern));
      pattern = newPattern;
      patternApplied = true;
      cacheValid = false;
    }
  }

  void fullFormat(std::int64_t ms) {
    icu::UnicodeString out;
    icu::FieldPositionIterator fields;
    UErrorCode status = U_ZERO_ERROR;
    formatter->format(static_cast<UDate>(ms), out, &fields, status);
    text.clear();
    if (U_FAILURE(status)) {
      patchable = false;
      return;
    }
    out.toUTF8String(text);

    // The position is the new text's own: none unless this pattern has fraction digits.
    patchable = true;
    fractionAt = fractionLength = 0;
    int fractions = 0;
    icu::FieldPosition position;
    while (fields.next(position)) {
      const int field = position.getField();
      if (field == UDAT_MILLISECONDS_IN_DAY_FIELD) patchable = false;
      if (field != UDAT_FRACTIONAL_SECOND_FIELD) continue;
      if (++fractions > 1) patchable = false;
      std::string before, digits;
      out.tempSubStringBetween(0, position.getBeginIndex()).toUTF8String(before);
      out.tempSubStringBetween(position.getBeginIndex(), position.getEndIndex())
          .toUTF8String(digits);
      fractionAt = before.size();
      fractionLength = digits.size();
      for (char c : digits)
        if (c < '0' || c > '9') patchable = false;
    }
  }

  void patchFraction(std::int64_t ms) {
    const auto withinSecond = static_cast<int>(ms - cachedSecond * 1000);
    const char digits[3] = {static_cast<char>('0' + withinSecond / 100),
                            static_cast<char>('0' + withinSecond / 10 % 10),
                            static_cast<char>('0' + withinSecond % 10)};
    for (std::size_t i = 0; i < fractionLength; ++i) text[fractionAt + i] = i < 3 ? digits[i] : '0';
  }
};

DateFormatter::DateFormatter() : impl_(std::make_unique<Impl>()) {}
DateFormatter::~DateFormatter() = default;

const std::string& DateFormatter::format(std::string_view pattern, std::string_view zone,
                                         const std::string& calendar, std::int64_t ms) {
  Impl& d = *impl_;
  d.configure(pattern, zone, calendar);
  if (!d.usable) {
    d.text.clear();
    return d.text;
  }
  if (d.cacheValid && ms == d.cachedMs) return d.text;
  const std::int64_t second = floorDiv(ms, 1000);
  if (d.cacheValid && d.patchable && second == d.cachedSecond) {
    d.patchFraction(ms);
  } else {
    d.fullFormat(ms);
    d.cachedSecond = second;
    d.cacheValid = true;
  }
  d.cachedMs = ms;
  return d.text;
}

}  // namespace logwell::detail
