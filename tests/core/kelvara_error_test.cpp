#include "core/kelvara_error.hpp"

#include <gtest/gtest.h>

#include <set>

#include "platform/error.hpp"
#include "platform/executor.hpp"

namespace {

using core::KelvaraError;
using Domain = KelvaraError::Domain;
using Code = KelvaraError::Code;

TEST(KelvaraErrorTest, CodesKeepTheirFixedNumbers) {
  const std::vector<std::pair<Code, int>> sample = {
      {Code::fileManager, 0},
      {Code::couldNotFetchPHAsset, 12},
      {Code::firebaseDownload, 102},
      {Code::timeout, 206},
      {Code::authentication, 300},
      {Code::missingHeaders, 406},
      {Code::couldNotCreateCVPixelBuffer, 516},
      {Code::cannotAddVideoOutput, 606},
      {Code::couldNotDecodeRemoteUserProperty, 703},
      {Code::noRefinerOutput, 803},
      {Code::export_, 900},
      {Code::couldNotUnregisterFont, 1005},
      {Code::concept_, 1100},
      {Code::couldNotBuildProject, 1204},
      {Code::data, 1300},
      {Code::networkRequestNotSuccessful, 1401},
      {Code::unimplemented, 10000},
      {Code::templateNotFound, 15003},
      {Code::cancelled, 20000},
      {Code::couldNotDecodeNotificationMessage, 30019},
      {Code::unsupportedFileExtension, 30023},
      {Code::userIsNotMemberOfGivenTeamId, 30035},
      {Code::couldNotOpenEditor, 40000},
      {Code::couldNotGenerateAIImagesWithChangedPrompt, 40015},
  };
  for (auto [code, number] : sample) {
    EXPECT_EQ(core::numericCode(code), number) << core::debugCode(code);
    EXPECT_EQ(core::codeFromRawValue(number), code) << number;
  }
  EXPECT_EQ(core::debugCode(Code::export_), "export");
  EXPECT_EQ(core::debugCode(Code::unsupportedFileExtension), "unsupportedFileExtension");

  for (int gap : {1305, 13, 207, 1402, 10001, 30036, 40016, -1}) {
    EXPECT_FALSE(core::codeFromRawValue(gap)) << gap;
  }

  // Every number that names a code names exactly one, and the names are all different.
  std::set<std::string_view> names;
  for (int n = -10; n <= 50'000; ++n) {
    if (auto code = core::codeFromRawValue(n)) {
      EXPECT_EQ(core::numericCode(*code), n);
      names.insert(core::debugCode(*code));
    }
  }
  EXPECT_EQ(names.size(), 142u);
}

TEST(KelvaraErrorTest, DomainsHaveStableNames) {
  EXPECT_EQ(core::debugDomain(Domain::herald), "com.kelvara.app.herald");
  EXPECT_EQ(core::caseName(Domain::antiChurn), "antiChurn");
  EXPECT_EQ(core::caseName(Domain::export_), "export");
  EXPECT_EQ(core::caseName(Domain::text2image), "text2image");
  EXPECT_EQ(core::caseName(Domain::yourContent), "yourContent");
  EXPECT_EQ(static_cast<int>(Domain::yourContent), 39);
}

TEST(KelvaraErrorTest, DescriptionsWithoutUserInfo) {
  KelvaraError error(Domain::notification, Code::couldNotDecodeNotificationMessage);
  EXPECT_STREQ(error.what(),
               "Domain: notification - Code: 30019: couldNotDecodeNotificationMessage");
  EXPECT_EQ(error.shortDescription(), "Domain=notification Code=30019");
  EXPECT_EQ(error.debugDescription(),
            "KelvaraError\nDomain: notification\nCode: 30019\nUserInfo: \n");
  EXPECT_FALSE(error.wrappedError());
  EXPECT_FALSE(error.wrappedSource());
  EXPECT_FALSE(error.wrappedLine());

  KelvaraError withInfo(
      Domain::sync, Code::couldNotFetch,
      core::UserInfo{{"url", "https://x.example"}, {"attempt", 3}, {"retry", true}});
  EXPECT_STREQ(withInfo.what(), "Domain: sync - Code: 404: couldNotFetch");
  EXPECT_EQ(withInfo.additionalUserInfo(), "attempt: 3\nretry: true\nurl: https://x.example");
}

TEST(KelvaraErrorTest, WrappingKeepsTheOriginalErrorAndTheCallSite) {
  std::optional<KelvaraError> wrapped;
  int line = 0;
  try {
    throw platform::Error("URLErrorDomain", -1001, "The request timed out.");
  } catch (const std::exception& e) {
    line = __LINE__ + 1;
    wrapped = KelvaraError::wrap(e, Domain::herald, Code::timeout, core::UserInfo{{"try", 2u}});
  }
  ASSERT_TRUE(wrapped);
  ASSERT_TRUE(wrapped->wrappedError());
  EXPECT_EQ(wrapped->wrappedError()->description, "The request timed out.");
  EXPECT_EQ(wrapped->wrappedError()->typeName, "platform::Error");
  // The kept exception is the original object, not a copy cut down to std::exception.
  try {
    std::rethrow_exception(wrapped->wrappedError()->error);
  } catch (const platform::Error& original) {
    EXPECT_EQ(original.code(), -1001);
    EXPECT_EQ(original.domain(), "URLErrorDomain");
  } catch (...) {
    ADD_FAILURE() << "the wrapped error lost its type";
  }
  EXPECT_EQ(wrapped->wrappedLine(), static_cast<std::uint64_t>(line));
  auto source = wrapped->wrappedSource().value_or("");
  EXPECT_EQ(source.rfind("kelvara_error_test.", 0), 0u) << source;
  EXPECT_NE(source.find("TestBody"), std::string::npos) << source;
  EXPECT_EQ(std::string(wrapped->what()),
            "Domain: herald - Code: 206: timeout - Source: " + source +
                " - Line: " + std::to_string(line) + " - Wrapped Error: The request timed out.");
  EXPECT_EQ(*wrapped->userInfo()->at("try").get<std::uint64_t>(), 2u);

  // A wrapped KelvaraError carries its whole description into the outer one.
  auto outer = KelvaraError::wrap(*wrapped, Domain::notification, Code::couldNotDownloadImage);
  EXPECT_EQ(outer.wrappedError()->description, wrapped->description());
  EXPECT_TRUE(core::isKelvaraError(outer, Code::couldNotDownloadImage));
  EXPECT_FALSE(core::isKelvaraError(outer, Code::timeout));
  EXPECT_TRUE(core::isKelvaraError(outer.wrappedError()->error, Code::timeout));
}

TEST(KelvaraErrorTest, RethrowWrapsOnlyFailures) {
  EXPECT_EQ(core::rethrow(Domain::helpers, Code::couldNotReadFile, [] { return 7; }), 7);

  std::exception_ptr thrown;
  try {
    core::rethrow(Domain::helpers, Code::couldNotReadFile, core::UserInfo{{"path", "/nope"}},
                  []() -> int { throw std::runtime_error("no such file"); });
  } catch (...) {
    thrown = std::current_exception();
  }
  EXPECT_TRUE(core::isKelvaraError(thrown, Code::couldNotReadFile));
  try {
    std::rethrow_exception(thrown);
  } catch (const KelvaraError& e) {
    EXPECT_EQ(e.wrappedError()->description, "no such file");
    EXPECT_EQ(*e.userInfo()->at("path").get<std::string>(), "/nope");
  }

  auto failing = []() -> boost::asio::awaitable<int> {
    throw std::out_of_range("index 9");
    co_return 0;
  };
  auto ok = []() -> boost::asio::awaitable<int> { co_return 5; };
  EXPECT_EQ(platform::blockOn(core::rethrow(Domain::engine, Code::coreML, ok())), 5);
  try {
    platform::blockOn(core::rethrow(Domain::engine, Code::coreML, failing()));
    FAIL() << "no error";
  } catch (const KelvaraError& e) {
    EXPECT_EQ(e.code(), Code::coreML);
    EXPECT_EQ(e.wrappedError()->description, "index 9");
    EXPECT_EQ(e.wrappedError()->typeName, "std::out_of_range");
  }
}

}  // namespace
