#include <gtest/gtest.h>

#include <stdexcept>

#include "logwell/logwell.hpp"
#include "support.hpp"

using logwell::BaseDestination;
using logwell::Level;
namespace Filters = logwell::Filters;

TEST(Filters, ExcludesVetoesAsSoonAsOneTextIsMissing) {
  BaseDestination d;
  d.addFilter(Filters::Path.excludes({"/vendor/", "/gen/"}));
  EXPECT_FALSE(d.shouldLevelBeLogged(Level::error, "/vendor/x.cpp", "f"));  // lacks "/gen/"
  EXPECT_FALSE(d.shouldLevelBeLogged(Level::error, "/app/x.cpp", "f"));
  EXPECT_TRUE(d.shouldLevelBeLogged(Level::error, "/vendor/gen/x.cpp", "f"));

  BaseDestination retries;  // the example of the public header
  retries.addFilter(Filters::Message.excludes({"retry"}));
  EXPECT_TRUE(retries.shouldLevelBeLogged(Level::info, "p", "f", "will retry in 2 s"));
  EXPECT_FALSE(retries.shouldLevelBeLogged(Level::info, "p", "f", "sent"));
}

TEST(Filters, RequiredFiltersDecideBeforeTheLevel) {
  BaseDestination d;
  d.minLevel = Level::warning;
  auto required = Filters::Function.startsWith({"Upload"}, false, true);
  d.addFilter(required);
  d.addFilter(Filters::Path.contains({"net"}, true));
  // A failing required filter vetoes even an entry whose level passes.
  EXPECT_FALSE(d.shouldLevelBeLogged(Level::fault, "/net/a.cpp", "download()"));
  // All required filters matching take the entry even below the destination's level; the
  // comparison ignores case by default.
  EXPECT_TRUE(d.shouldLevelBeLogged(Level::debug, "/x.cpp", "uploadFile()"));

  d.removeFilter(required);
  EXPECT_EQ(d.filters.size(), 1u);
  // Non-required: a full match takes it, a condition match below the filter's level refuses
  // it, no match at all falls back to the destination's level.
  EXPECT_TRUE(d.shouldLevelBeLogged(Level::verbose, "/net/a.cpp", "f"));
  EXPECT_FALSE(d.shouldLevelBeLogged(Level::verbose, "/NET/a.cpp", "f"));  // case-sensitive
  EXPECT_TRUE(d.shouldLevelBeLogged(Level::error, "/ui/a.cpp", "f"));
  EXPECT_FALSE(d.shouldLevelBeLogged(Level::info, "/ui/a.cpp", "f"));

  d.filters.clear();
  d.addFilter(Filters::Message.contains({"retry"}, false, false, Level::error));
  EXPECT_FALSE(d.shouldLevelBeLogged(Level::info, "/a", "f", "Retry later"));
  EXPECT_TRUE(d.shouldLevelBeLogged(Level::error, "/a", "f", "Retry later"));
  EXPECT_TRUE(d.shouldLevelBeLogged(Level::warning, "/a", "f", std::nullopt));  // level fallback
}

TEST(Filters, ComparisonsAndCustomPredicates) {
  EXPECT_TRUE(Filters::Message.endsWith({"done", "ok"})->apply("all OK"));
  EXPECT_FALSE(Filters::Message.endsWith({"ok"}, true)->apply("all OK"));
  EXPECT_TRUE(Filters::Message.equals({"\xC3\x89T\xC3\x89"})->apply("\xC3\xA9t\xC3\xA9"));
  EXPECT_FALSE(Filters::Message.equals({"abc"})->apply("abcd"));
  EXPECT_TRUE(Filters::Path.custom([](std::string_view p) { return p.size() == 3; })->apply("abc"));
  EXPECT_FALSE(Filters::Path.contains({"a"})->apply(std::nullopt));
}

TEST(Filters, DebugPrintSaysWhy) {
  BaseDestination d;
  d.debugPrint = true;
  d.minLevel = Level::info;
  logwell_test::CaptureStream out(stdout);
  d.shouldLevelBeLogged(Level::debug, "p", "f");
  d.shouldLevelBeLogged(Level::info, "p", "f");
  d.addFilter(Filters::Message.excludes({"secret"}));
  d.shouldLevelBeLogged(Level::info, "p", "f", "a secret");  // holds its one text
  d.shouldLevelBeLogged(Level::info, "p", "f", "public");
  EXPECT_EQ(out.text(),
            "filters are empty and level < minLevel\n"
            "filters are empty and level >= minLevel\n"
            "filters are empty and level >= minLevel\n"
            "filters are not empty and message was excluded\n");
}

TEST(Filters, APredicateThatThrowsIsAFilterThatDoesNotMatch) {
  auto broken = [](std::string_view) -> bool { throw std::runtime_error("bug in a predicate"); };
  BaseDestination d;
  d.minLevel = Level::warning;
  d.addFilter(Filters::Message.custom(broken));
  // Not matching, the level decides, as for any other filter that does not match.
  EXPECT_TRUE(d.shouldLevelBeLogged(Level::error, "p", "f", "m"));
  EXPECT_FALSE(d.shouldLevelBeLogged(Level::info, "p", "f", "m"));
  d.addFilter(Filters::Path.custom(broken, true));
  EXPECT_FALSE(d.shouldLevelBeLogged(Level::error, "p", "f", "m"));  // a required one vetoes

  // Nor does it reach a caller of the facade.
  auto recorder = std::make_shared<logwell_test::Recorder>();
  recorder->addFilter(Filters::Function.custom(broken, false, Level::error));
  logwell::Logwell::addDestination(recorder);
  EXPECT_NO_THROW(logwell::Logwell::info("kept"));
  EXPECT_TRUE(logwell::Logwell::flush(5));
  logwell::Logwell::removeDestination(recorder);
  EXPECT_EQ(recorder->log->lines, std::vector<std::string>{"kept"});
}
