#include "core/dates.hpp"

#include <unicode/calendar.h>
#include <unicode/datefmt.h>
#include <unicode/locid.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <cmath>
#include <mutex>
#include <stdexcept>

namespace core {
namespace {

// ICU's parser divides by zero on a number of 35 digits or more (a fraction of a second, at
// least). No date of any pattern holds a run of more than 20 digits, so a text that does is
// no date, whatever sent it.
bool hasEndlessNumber(std::string_view text) {
  std::size_t run = 0;
  for (char c : text) {
    run = c >= '0' && c <= '9' ? run + 1 : 0;
    if (run > 20) return true;
  }
  return false;
}

icu::UnicodeString unicode(std::string_view text) {
  return icu::UnicodeString::fromUTF8(
      icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
}

std::string utf8(const icu::UnicodeString& text) {
  std::string out;
  text.toUTF8String(out);
  return out;
}

UDate toUDate(Date date) {
  auto ms = std::chrono::floor<std::chrono::milliseconds>(date.time_since_epoch()).count();
  return static_cast<UDate>(ms);
}

// A Date counts nanoseconds in 64 bits (years 1677 to 2262); ICU reaches far wider.
bool representable(UDate udate) {
  constexpr double limit = static_cast<double>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Date::duration::max()).count());
  return std::isfinite(udate) && std::fabs(udate) < limit;
}

Date fromUDate(UDate udate) {
  return Date(std::chrono::duration_cast<Date::duration>(
      std::chrono::milliseconds(static_cast<std::int64_t>(std::llround(udate)))));
}

std::unique_ptr<icu::TimeZone> makeTimeZone(std::string_view id) {
  if (id.empty()) return std::unique_ptr<icu::TimeZone>(icu::TimeZone::createDefault());
  std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createTimeZone(unicode(id)));
  if (*zone == icu::TimeZone::getUnknown()) {
    throw std::invalid_argument("unknown time zone \"" + std::string(id) + "\"");
  }
  return zone;
}

icu::Locale makeLocale(std::string_view id, std::string_view calendar) {
  icu::Locale locale =
      id.empty() ? icu::Locale::getDefault() : icu::Locale(std::string(id).c_str());
  if (locale.isBogus()) throw std::invalid_argument("unknown locale \"" + std::string(id) + "\"");
  if (!calendar.empty()) {
    UErrorCode status = U_ZERO_ERROR;
    locale.setKeywordValue("calendar", std::string(calendar).c_str(), status);
    if (U_FAILURE(status)) {
      throw std::invalid_argument("unknown calendar \"" + std::string(calendar) + "\"");
    }
  }
  return locale;
}

// Pattern-less formatters (the style presets) are made from the locale alone, so both
// construction paths finish here.
std::unique_ptr<icu::DateFormat> configure(std::unique_ptr<icu::DateFormat> format,
                                           std::string_view timeZone, const icu::Locale& locale) {
  auto zone = makeTimeZone(timeZone);
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::Calendar> calendar(icu::Calendar::createInstance(*zone, locale, status));
  if (U_FAILURE(status)) {
    throw std::invalid_argument(std::string("cannot make a calendar: ") + u_errorName(status));
  }
  format->adoptCalendar(calendar.release());
  format->setLenient(false);
  return format;
}

}  // namespace

std::string_view rawValue(DateFormat format) {
  switch (format) {
    case DateFormat::export_:
      return "yyyyMMdd_HHmmss";
  }
  return {};
}

struct DateFormatter::Impl {
  std::unique_ptr<icu::DateFormat> format;
  // ICU formatters keep a working calendar; one call at a time.
  mutable std::mutex mutex;
};

DateFormatter::DateFormatter(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

DateFormatter::DateFormatter(std::string_view pattern, std::string_view timeZone,
                             std::string_view locale, std::string_view calendar)
    : impl_(std::make_unique<Impl>()) {
  auto loc = makeLocale(locale, calendar);
  UErrorCode status = U_ZERO_ERROR;
  auto format = std::make_unique<icu::SimpleDateFormat>(unicode(pattern), loc, status);
  if (U_FAILURE(status)) {
    throw std::invalid_argument("bad date pattern \"" + std::string(pattern) +
                                "\": " + u_errorName(status));
  }
  impl_->format = configure(std::move(format), timeZone, loc);
}

DateFormatter::DateFormatter(DateFormat format) : DateFormatter(rawValue(format)) {}

DateFormatter DateFormatter::short_(std::string_view timeZone, std::string_view locale) {
  auto loc = makeLocale(locale, {});
  std::unique_ptr<icu::DateFormat> format(
      icu::DateFormat::createDateInstance(icu::DateFormat::kShort, loc));
  if (!format) throw std::invalid_argument("no short date style for the locale");
  auto impl = std::make_unique<Impl>();
  impl->format = configure(std::move(format), timeZone, loc);
  return DateFormatter(std::move(impl));
}

DateFormatter DateFormatter::longDate(std::string_view timeZone, std::string_view locale) {
  return DateFormatter("EEEE, MMMM dd, h:mm a", timeZone, locale);
}

DateFormatter DateFormatter::server() {
  return DateFormatter("yyyy-MM-dd'T'HH:mm:ss.SSSZZZZZ", "GMT+0", "en_US_POSIX", "iso8601");
}

DateFormatter::DateFormatter(DateFormatter&&) noexcept = default;
DateFormatter& DateFormatter::operator=(DateFormatter&&) noexcept = default;
DateFormatter::~DateFormatter() = default;

std::string DateFormatter::string(Date date) const {
  icu::UnicodeString out;
  std::lock_guard lock(impl_->mutex);
  impl_->format->format(toUDate(date), out);
  return utf8(out);
}

std::optional<Date> DateFormatter::date(std::string_view text) const {
  if (hasEndlessNumber(text)) return std::nullopt;
  auto input = unicode(text);
  icu::ParsePosition position(0);
  std::lock_guard lock(impl_->mutex);
  UDate parsed = impl_->format->parse(input, position);
  if (position.getErrorIndex() >= 0 || position.getIndex() != input.length()) return std::nullopt;
  if (!representable(parsed)) return std::nullopt;
  return fromUDate(parsed);
}

std::string DateFormatter::pattern() const {
  std::lock_guard lock(impl_->mutex);
  if (auto* simple = dynamic_cast<icu::SimpleDateFormat*>(impl_->format.get())) {
    icu::UnicodeString out;
    simple->toPattern(out);
    return utf8(out);
  }
  return {};
}

namespace {

const DateFormatter& withFraction() {
  static const DateFormatter formatter("yyyy-MM-dd'T'HH:mm:ss.SSSXXX", "UTC", "en_US_POSIX",
                                       "iso8601");
  return formatter;
}

const DateFormatter& withoutFraction() {
  static const DateFormatter formatter("yyyy-MM-dd'T'HH:mm:ssXXX", "UTC", "en_US_POSIX", "iso8601");
  return formatter;
}

}  // namespace

std::string ISO8601DateServerFormatter::string(Date date) const {
  return withFraction().string(date);
}

std::optional<Date> ISO8601DateServerFormatter::date(std::string_view text) const {
  if (auto parsed = withFraction().date(text)) return parsed;
  return withoutFraction().date(text);
}

Date Decodable<Date>::decode(const boost::json::value& value, std::string_view path) {
  auto text = Decodable<std::string>::decode(value, path);
  if (auto parsed = ISO8601DateServerFormatter{}.date(text)) return *parsed;
  throw DecodingError(
      DecodingError::Kind::dataCorrupted, std::string(path),
      "expected an ISO 8601 date-time such as 2026-11-22T10:00:00.000Z, found \"" + text + '"');
}

}  // namespace core
