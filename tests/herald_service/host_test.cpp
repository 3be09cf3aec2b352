// The application's extension in the real host against the local service: the JSON lines the
// phone would get, the files beside them, and the requests the service saw.
#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

#include "integration/processes.hpp"
#include "platform/canvas.hpp"
#include "platform/json.hpp"
#include "platform/paths.hpp"

namespace {

using namespace integration;
namespace json = boost::json;

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

class ServiceHost : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = platform::temporaryDirectory() / ("service-host-" + platform::newUUID());
    std::filesystem::create_directories(dir_);
    // The host's attachments and drawn avatars land here and go with the test.
    if (const char* tmp = std::getenv("TMPDIR")) oldTmp_ = tmp;
    setenv("TMPDIR", dir_.c_str(), 1);
  }
  void TearDown() override {
    if (oldTmp_)
      setenv("TMPDIR", oldTmp_->c_str(), 1);
    else
      unsetenv("TMPDIR");
    std::filesystem::remove_all(dir_);
  }

  // Runs the host's default extension on `payload` (plus "aps"); returns each JSON line.
  std::vector<json::object> deliver(json::object payload, std::vector<std::string> options = {}) {
    payload["aps"] = {{"alert", {{"title", "New comment"}, {"body", "Nice shadow!"}}},
                      {"mutable-content", 1}};
    const auto file = dir_ / "payload.json";
    std::ofstream(file) << platform::toJSON(payload);
    options.insert(options.begin(), program("notification-service"));
    options.push_back(file.string());
    last_ = run(options);
    EXPECT_EQ(last_.exitCode, 0) << last_.err;
    std::vector<json::object> result;
    for (const auto& line : lines(last_.out))
      result.push_back(platform::parseJSON(line).as_object());
    return result;
  }

  static const json::value& sender(const json::object& line) {
    return line.at("content").at("communication").at("sender");
  }

  static platform::Image drawnAvatar(const json::object& line) {
    const auto path = std::string(sender(line).at("image").at("png").as_string());
    return platform::Image::fromPNG(readFile(path)).value_or(platform::Image());
  }

  std::vector<std::string> journal() const {
    std::vector<std::string> out;
    for (const auto& r : sandbox_.journal())
      out.push_back(std::string(r.at("method").as_string()) + " " +
                    std::string(r.at("path").as_string()));
    return out;
  }

  Sandbox sandbox_;
  std::filesystem::path dir_;
  std::optional<std::string> oldTmp_;
  Finished last_;
};

TEST_F(ServiceHost, ThePictureIsPassedByURLAndOnlyTheReportReachesTheService) {
  const auto picture = sandbox_.url() + "/_sandbox/bytes/900.jpg";
  const auto delivered = deliver({{"user_name", "Ada"},
                                  {"profile_picture_url", picture},
                                  {"trackingUrl", sandbox_.url() + "/track/m1"}});
  ASSERT_EQ(delivered.size(), 1u);
  EXPECT_EQ(sender(delivered[0]),
            platform::parseJSON(R"({"displayName": "Ada", "image": {"url": ")" + picture + "\"}}"));
  EXPECT_EQ(delivered[0].at("donatedInteractions").at(0).at("direction"), "incoming");
  EXPECT_EQ(journal(), std::vector<std::string>{"POST /track/m1"});
  EXPECT_EQ(sandbox_.journal().at(0).at("body"), R"({"event":"DELIVERED"})");
}

TEST_F(ServiceHost, ADrawnAvatarIsWrittenBesideTheOutput) {
  const auto dark =
      deliver({{"user_initials", "AB"}, {"profile_picture_background_color", "FFFF"}});
  ASSERT_EQ(dark.size(), 1u);
  EXPECT_EQ(sender(dark[0]).at("displayName"), nullptr);
  const auto avatar = drawnAvatar(dark[0]);
  EXPECT_EQ(avatar.size(), (platform::Size{80, 80}));
  EXPECT_EQ(avatar.pixel(3, 3), (platform::Color{1 / 255.0, 1 / 255.0, 0, 1}));
}

TEST_F(ServiceHost, AStalledThumbnailMissesTheDeadlineAndArrivesInASecondCall) {
  const auto delivered =
      deliver({{"user_name", "Ada"},
               {"thumbnail_url", sandbox_.url() + "/_sandbox/bytes/4000.jpg?stall=3"}},
              {"--deadline", "0.5", "--grace", "10"});
  ASSERT_EQ(delivered.size(), 2u) << last_.out;
  for (const auto& line : delivered) EXPECT_EQ(sender(line).at("displayName"), "Ada");
  EXPECT_EQ(delivered[0].at("content").at("attachments"), json::array());
  const auto& attachments = delivered[1].at("content").at("attachments").as_array();
  ASSERT_EQ(attachments.size(), 1u);
  const auto file = platform::pathFromFileURL(attachments[0].at("url").as_string());
  ASSERT_TRUE(file);
  EXPECT_EQ(std::filesystem::file_size(*file), 4000u);
  // The donation comes after the deadline call and before the last one.
  EXPECT_EQ(delivered[0].at("donatedInteractions"), json::array());
  EXPECT_EQ(delivered[1].at("donatedInteractions").as_array().size(), 1u);
}

TEST_F(ServiceHost, OnceTheContentIsHandedBackTheDeadlineIsNotCalledButTheReportIsAwaited) {
  const auto delivered =
      deliver({{"user_name", "Ada"}, {"trackingUrl", sandbox_.url() + "/track/m1?delay=1.5"}},
              {"--deadline", "0.3", "--grace", "10"});
  EXPECT_EQ(delivered.size(), 1u) << last_.out;
  EXPECT_EQ(journal(), std::vector<std::string>{"POST /track/m1?delay=1.5"});
}

TEST_F(ServiceHost, ADeepPayloadAndAnEndlessTrackingAnswerStillDeliverTheSender) {
  json::value deep = "bottom";
  for (int i = 0; i < 200; ++i) deep = json::object{{"level", deep}};
  const auto delivered =
      deliver({{"user_name", "Ada"}, {"notes", deep}, {"trackingUrl", "file:///dev/zero"}});
  ASSERT_EQ(delivered.size(), 1u) << last_.err;
  EXPECT_EQ(sender(delivered[0]).at("displayName"), "Ada");
  EXPECT_EQ(delivered[0].at("content").at("userInfo").at("notes"), deep);
}

TEST_F(ServiceHost, ThePreviewShowsTheAvatarAndTheThumbnail) {
  Sandbox media({"--files", std::string(std::getenv("HERALD_SOURCE_DIR")) + "/samples/media"});
  const auto preview = dir_ / "preview.png";
  deliver({{"user_name", "Ada"},
           {"user_initials", "AB"},
           {"profile_picture_background_color", "#3A7BD5"},
           {"thumbnail_url", media.url() + "/files/sunset.jpg"}},
          {"--preview", preview.string()});
  const auto image = platform::Image::fromPNG(readFile(preview));
  ASSERT_TRUE(image) << last_.err;
  EXPECT_EQ(image->size().width, 760);
  // The avatar's circle holds the payload's colour near its edge; the corner of its square
  // is outside the circle and shows the card.
  const auto blue = image->pixel(20 + 24 + 44, 20 + 24 + 6);
  EXPECT_NEAR(blue.red, 0x3A / 255.0, 0.02);
  EXPECT_NEAR(blue.blue, 0xD5 / 255.0, 0.02);
  EXPECT_GT(image->pixel(20 + 24 + 2, 20 + 24 + 2).red, 0.9);
  // The thumbnail sits at the right, below the header: the sample's sky is blue.
  const auto sky = image->pixel(760 - 20 - 24 - 56, 20 + 24 + 40);
  EXPECT_GT(sky.blue, sky.red + 0.2);

  const auto bad = run({program("notification-service"), "--preview", "/no/such/dir/p.png",
                        (dir_ / "payload.json").string()});
  EXPECT_EQ(bad.exitCode, 2);
  EXPECT_NE(bad.err.find("--preview"), std::string::npos);
}

}  // namespace
