#include <gtest/gtest.h>

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
  auto applies = [](const std::shared_ptr<logwell::CompareFilter>& f, std::string_view v) {
    return f->apply(v);
  };
  EXPECT_TRUE(applies(Filters::Message.endsWith({"done", "ok"}), "all OK"));
  EXPECT_FALSE(applies(Filters::Message.endsWith({"ok"}, true), "all OK"));
  EXPECT_TRUE(applies(Filters::Message.equals({"\xC3\x89T\xC3\x89"}), "\xC3\xA9t\xC3\xA9"));
  EXPECT_FALSE(applies(Filters::Message.equals({"abc"}), "abcd"));
  EXPECT_TRUE(
      applies(Filters::Path.custom([](std::string_view p) { return p.size() == 3; }), "abc"));
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
