#include <gtest/gtest.h>

#include <regex>

#include "logwell/internal/format_state.hpp"
#include "logwell/internal/text.hpp"
#include "logwell/logwell.hpp"
#include "platform/json.hpp"
#include "support.hpp"

using logwell::BaseDestination;
using logwell::Level;

namespace {

std::string format(std::string_view fmt, std::string_view msg = "x",
                   const logwell::Context& context = {}, Level level = Level::info,
                   std::string_view file = "/src/app/Upload.Task.swift") {
  BaseDestination d;
  return d.formatMessage(fmt, level, msg, "main", file, "run()", 42, context);
}

}  // namespace

TEST(Format, TokensPaddingPlainTextAndStrayDollars) {
  EXPECT_EQ(format("$L: $M"), "INFO: x");
  EXPECT_EQ(format("[$5L]"), "[ INFO]");
  EXPECT_EQ(format("[$-5L]"), "[INFO ]");
  EXPECT_EQ(format("[$2L]"), "[INFO]");                      // never cut
  EXPECT_EQ(format("[$-4M]", "\xC3\xA9"), "[\xC3\xA9   ]");  // widths count characters
  EXPECT_EQ(format("$N|$n|$F|$l|$T"), "Upload|Upload.Task.swift|run()|42|main");
  EXPECT_EQ(format("$N|$n", "x", {}, Level::info, ""), "|");
  EXPECT_EQ(format("just text  \t"), "just text");
  EXPECT_EQ(format("  lead and inner  space"), "  lead and inner  space");
  // Unknown tokens and stray dollars are copied without their dollar.
  EXPECT_EQ(format("a$Qrest b"), "aQrest b");
  EXPECT_EQ(format("a$$b$M"), "abx");
  EXPECT_EQ(format("$-x $M"), "-x x");
  EXPECT_EQ(format("$5"), "5");
  EXPECT_EQ(format("$99999999999999999999L"), "99999999999999999999L");
  EXPECT_EQ(format("$"), "");
}

TEST(Format, ContextColourAndTrailingWhiteSpace) {
  EXPECT_EQ(format("$M $X"), "x");  // the blank left by an absent context goes
  EXPECT_EQ(format("$M $-8X"), "x");
  EXPECT_EQ(format("$M $X", "x", {{"a", 1}}), R"(x {"a":1})");
  EXPECT_EQ(format("$M $X", "x", std::string("  padded\n")), "x padded");
  EXPECT_EQ(format("$M\xE3\x80\x80 \n"), "x");  // ideographic space is white space too

  BaseDestination d;
  d.escape = "<";
  d.reset = ">";
  d.levelColor.error = "red";
  EXPECT_EQ(d.formatMessage("$C$L$c $M", Level::error, "boom", "", "", "", 1), "<redERROR> boom");
}

TEST(Format, DateAndUptimeTokensInsertOnlyTheirValue) {
  const std::regex clock(R"(\d{2}:\d{2}:\d{2}\.\d{3} INFO x)");
  EXPECT_TRUE(std::regex_match(format("$DHH:mm:ss.SSS$d $L $M"), clock));
  const std::regex utc(R"(<\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}Z>)");
  EXPECT_TRUE(std::regex_match(format("<$Zyyyy-MM-dd'T'HH:mm:ssXXX$z>"), utc));
  EXPECT_TRUE(std::regex_match(format("$U"), std::regex(R"(00:00:00\.\d{3})")));
  EXPECT_TRUE(std::regex_match(format("[$-14DHH:mm$d]"), std::regex(R"(\[\d{2}:\d{2} {9}\])")));
}

TEST(Format, CachedDatesMatchAFreshFormatter) {
  // Within a second only the fraction digits are rewritten; every pattern must still read
  // exactly as ICU would write it.
  const std::int64_t base = 1'700'000'123'000;
  for (std::string pattern : {"HH:mm:ss.SSS", "ss.S", "ss.SS", "SSSS mm", "A", "HH:mm"}) {
    logwell::detail::DateFormatter cached;
    cached.format(pattern, "UTC", "gregorian", base + 5);
    for (std::int64_t ms : {base + 5, base + 987, base + 40, base + 1001}) {
      logwell::detail::DateFormatter fresh;
      EXPECT_EQ(cached.format(pattern, "UTC", "gregorian", ms),
                fresh.format(pattern, "UTC", "gregorian", ms))
          << pattern << " at " << ms;
    }
  }
  logwell::detail::DateFormatter f;
  EXPECT_EQ(f.format("HH:mm:ss.SSS", "UTC", "gregorian", base + 987), "22:15:23.987");
  // One formatter serves every pattern of a destination: a pattern without fractions must not
  // get the digits of the one before it.
  f.format("yyyy-MM-dd HH:mm", "UTC", "gregorian", base + 5);
  EXPECT_EQ(f.format("yyyy-MM-dd HH:mm", "UTC", "gregorian", base + 40), "2023-11-14 22:15");
  // Whatever a format holds is the pattern, even on a formatter's first use.
  for (const std::string odd : {"", "\x01", "'x'"}) {
    logwell::detail::DateFormatter first;
    EXPECT_EQ(first.format(odd, "UTC", "gregorian", base), odd == "'x'" ? "x" : odd);
  }
}

TEST(Format, JsonFormParsesBack) {
  BaseDestination d;
  d.format = "$J";
  auto line = d.send(Level::warning, "hi \"there\"", "t", "/a/b.cpp", "f()", 7, {{"k", 1}});
  ASSERT_TRUE(line);
  const auto v = platform::parseJSON(*line);
  const auto& o = v.as_object();
  std::vector<std::string> keys;
  for (const auto& kv : o) keys.emplace_back(kv.key());
  EXPECT_EQ(keys, (std::vector<std::string>{"timestamp", "level", "message", "thread", "file",
                                            "function", "line", "context"}));
  EXPECT_GT(o.at("timestamp").to_number<double>(), 1.6e9);
  EXPECT_EQ(o.at("level").to_number<int>(), 3);
  EXPECT_EQ(o.at("message").as_string(), "hi \"there\"");
  EXPECT_EQ(o.at("line").to_number<int>(), 7);
  EXPECT_EQ(o.at("context").at("k").to_number<int>(), 1);

  auto bare = platform::parseJSON(*d.send(Level::info, "m", "", "", "", 1));
  EXPECT_FALSE(bare.as_object().contains("context"));

  logwell_test::CaptureStream out(stdout);
  EXPECT_FALSE(d.send(Level::info, "m", "", "", "", 1, std::nan("")));
  EXPECT_FALSE(d.send(Level::info, "bad \xFF utf8", "", "", "", 1));
  EXPECT_EQ(out.text(),
            "Logwell could not create JSON from dict.\nLogwell could not create JSON from dict.\n");
}

TEST(Format, FunctionTextLosesItsParameters) {
  auto strip = [](std::string_view f) {
    auto s = logwell::detail::stripFunctionParameters(f);
    return std::string(s.base) + (s.addParentheses ? "()" : "");
  };
  EXPECT_EQ(strip("viewDidLoad(animated:)"), "viewDidLoad()");
  EXPECT_EQ(strip("run"), "run");
  EXPECT_EQ(strip("void ns::Uploader::start(int, const std::string&) const"),
            "ns::Uploader::start()");
  EXPECT_EQ(strip("std::function<void(int)> make(int)"), "make()");
  EXPECT_EQ(strip("std::map<int, int> ns::build<std::pair<int, int> >(T) [with T = int]"),
            "ns::build<std::pair<int, int> >()");
  EXPECT_EQ(strip("bool ns::operator<(const A&, const A&)"), "ns::operator<()");
  EXPECT_EQ(strip("void Callable::operator()(int)"), "Callable::operator()()");
  EXPECT_EQ(strip("void* operator new(std::size_t)"), "operator new()");
  EXPECT_EQ(strip("void (anonymous namespace)::helper(int)"), "(anonymous namespace)::helper()");
}
