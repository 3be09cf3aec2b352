// The principal class in process: what the handler receives, what reaches the network, and
// what is logged, for the payloads the application sends.
#include "herald_service/notification_service.hpp"

#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <thread>

#include "logwell/base_destination.hpp"
#include "logwell/logwell.hpp"
#include "platform/canvas.hpp"
#include "platform/executor.hpp"
#include "platform/intents.hpp"
#include "platform/json.hpp"
#include "platform/paths.hpp"
#include "support/http_server.hpp"

namespace {

using namespace std::chrono_literals;
using testing_support::HttpServer;
using testing_support::RecordedRequest;
using testing_support::ScriptedResponse;

// Keeps every entry the facade hands it as "LINE FUNCTION MESSAGE"; all come at debug level
// from the service's own file.
class CapturingDestination : public logwell::BaseDestination {
 public:
  CapturingDestination() { setAsynchronously(false); }
  std::optional<std::string> send(logwell::Level level, std::string_view msg, std::string_view,
                                  std::string_view file, std::string_view function, int line,
                                  const logwell::Context&) override {
    EXPECT_EQ(level, logwell::Level::debug);
    EXPECT_EQ(file, "HeraldService/NotificationService");
    std::lock_guard lock(mutex_);
    lines_.push_back(std::to_string(line) + " " + std::string(function) + " " + std::string(msg));
    return std::nullopt;
  }
  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

const std::string kJPEG = std::string("\xFF\xD8\xFF\xE0", 4) + std::string(2000, 'j');

class NotificationServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::clearDonatedInteractions();
    logwell::Logwell::addDestination(log_);
    server_.setHandler([](const RecordedRequest& r) {
      ScriptedResponse response;
      if (r.target.starts_with("/track")) {
        response.body = R"({"tracked":"DELIVERED"})";
      } else {
        response.headers = {{"Content-Type", "image/jpeg"}};
        response.body = kJPEG;
      }
      return response;
    });
  }
  void TearDown() override {
    EXPECT_TRUE(platform::waitForIdle(10s));
    logwell::Logwell::removeDestination(log_);
  }
  // The attachment files of every test share the process's directory.
  static void TearDownTestSuite() {
    std::filesystem::remove_all(platform::temporaryDirectory() /
                                platform::processGloballyUniqueString());
  }

  std::string url(const std::string& path) const { return server_.baseURL() + path; }

  platform::NotificationRequest request(boost::json::object userInfo) {
    platform::NotificationContent content;
    content.title = "Ada commented";
    content.body = "Nice shadow!";
    content.userInfo = std::move(userInfo);
    return {"request-1", content.copy()};
  }

  // Runs the service on a request and returns every content the handler received.
  std::vector<platform::NotificationContent> deliver(const platform::NotificationRequest& r) {
    std::vector<platform::NotificationContent> delivered;
    herald_service::NotificationService service;
    service.didReceive(r, [&](const platform::NotificationContent& c) { delivered.push_back(c); });
    return delivered;
  }

  std::vector<std::string> paths() const {
    std::vector<std::string> out;
    for (const auto& r : server_.requests()) out.push_back(r.method + " " + r.target);
    return out;
  }

  std::vector<std::string> messages() const { return log_->lines(); }

  HttpServer server_;
  std::shared_ptr<CapturingDestination> log_ = std::make_shared<CapturingDestination>();
};

platform::Image decodedAvatar(const platform::NotificationContent& content) {
  EXPECT_TRUE(content.communication && content.communication->imagePNG);
  if (!content.communication || !content.communication->imagePNG) return {};
  return platform::Image::fromPNG(*content.communication->imagePNG).value_or(platform::Image());
}

TEST_F(NotificationServiceTest, APictureURLIsHandedOverByReferenceAndNeverDownloaded) {
  const auto delivered = deliver(request({{"user_name", "Ada"},
                                          {"profile_picture_url", url("/avatars/ada.jpg")},
                                          {"trackingUrl", url("/track/m1")}}));
  ASSERT_EQ(delivered.size(), 1u);
  const auto& content = delivered[0];
  EXPECT_EQ(content.title, "Ada commented");
  ASSERT_TRUE(content.communication);
  EXPECT_EQ(content.communication->displayName, "Ada");
  EXPECT_EQ(content.communication->imageURL, url("/avatars/ada.jpg"));
  EXPECT_TRUE(content.attachments.empty());

  ASSERT_TRUE(platform::waitForIdle(10s));
  EXPECT_EQ(paths(), std::vector<std::string>{"POST /track/m1"});
  EXPECT_EQ(server_.requests()[0].body, R"({"event":"DELIVERED"})");

  const auto donated = platform::donatedInteractions();
  ASSERT_EQ(donated.size(), 1u);
  EXPECT_EQ(donated[0].direction, platform::InteractionDirection::incoming);
  EXPECT_EQ(donated[0].intent()->sender->displayName, "Ada");
  EXPECT_TRUE(messages().empty());
}

TEST_F(NotificationServiceTest, TeamNotificationsUseOnlyTheTeamPicture) {
  const boost::json::object person{{"user_name", "Ada"},
                                   {"user_initials", "AB"},
                                   {"profile_picture_background_color", "#FFF"},
                                   {"profile_picture_url", "https://cdn.test/ada.jpg"}};
  auto team = person;
  team["is_team_notification"] = true;
  auto withTeamPicture = team;
  withTeamPicture["team_profile_picture_url"] = "https://cdn.test/team.jpg";

  EXPECT_EQ(deliver(request(person)).at(0).communication->imageURL, "https://cdn.test/ada.jpg");
  EXPECT_EQ(deliver(request(withTeamPicture)).at(0).communication->imageURL,
            "https://cdn.test/team.jpg");
  // A text that is no URL at all is passed over as if absent.
  auto unusable = person;
  unusable["profile_picture_url"] = "not a url";
  EXPECT_TRUE(deliver(request(unusable)).at(0).communication->imagePNG);
  // No team picture: the personal one is not used, the initials are drawn instead, white on
  // white here, so every pixel is white.
  const auto avatar = decodedAvatar(deliver(request(team)).at(0));
  ASSERT_EQ(avatar.size(), (platform::Size{80, 80}));
  for (int y = 0; y < 80; ++y)
    for (int x = 0; x < 80; ++x) ASSERT_EQ(avatar.pixel(x, y), platform::Color::white());
}

TEST_F(NotificationServiceTest, ABadColourGivesNearBlackAndNoColourGivesTheIcon) {
  const auto dark = decodedAvatar(
      deliver(request({{"user_initials", "AB"}, {"profile_picture_background_color", "#1234"}}))
          .at(0));
  EXPECT_EQ(dark.pixel(1, 1), (platform::Color{1 / 255.0, 1 / 255.0, 0, 1}));

  const auto icon = decodedAvatar(deliver(request({{"user_initials", "AB"}})).at(0));
  const auto corner = icon.pixel(1, 1);
  EXPECT_NEAR(corner.red, 0.447, 1 / 255.0);  // the catalogue's purple
  EXPECT_NEAR(corner.blue, 0.580, 1 / 255.0);
  EXPECT_EQ(icon.pixel(40, 34), platform::Color::white());  // the icon's head
}

TEST_F(NotificationServiceTest, OnlyJPEGThumbnailsAreDownloadedAndAttached) {
  for (const char* path : {"/thumbs/a.jpg", "/thumbs/b.jpeg", "/thumbs/c.JPG?v=2"}) {
    SCOPED_TRACE(path);
    const auto delivered = deliver(request({{"thumbnail_url", url(path)}}));
    ASSERT_EQ(delivered.at(0).attachments.size(), 1u);
    const auto& attachment = delivered[0].attachments[0];
    EXPECT_EQ(attachment.type, "public.jpeg");
    const auto file = platform::pathFromFileURL(attachment.url);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->parent_path(),
              platform::temporaryDirectory() / platform::processGloballyUniqueString());
    EXPECT_EQ(std::filesystem::file_size(*file), kJPEG.size());
  }
  EXPECT_EQ(paths().size(), 3u);
  EXPECT_TRUE(messages().empty());

  for (const char* path : {"/thumbs/d.png", "/thumbs/noextension", "/thumbs/e.jpg.gif"})
    EXPECT_TRUE(deliver(request({{"thumbnail_url", url(path)}})).at(0).attachments.empty());
  EXPECT_EQ(paths().size(), 3u) << "a refused thumbnail was downloaded";
  const std::string refused =
      "160 addAttachments() [Herald] Not able to add attachments: unsupportedFileExtension";
  EXPECT_EQ(messages(), (std::vector<std::string>{refused, refused, refused}));
}

// A failed thumbnail costs the notification nothing but the picture, and leaves no file.
TEST_F(NotificationServiceTest, ErrorPagesAndOversizedThumbnailsAreNeitherAttachedNorKept) {
  server_.setHandler([](const RecordedRequest& r) {
    if (r.target == "/missing.jpg") return ScriptedResponse{404, {}, "<html>Not found</html>"};
    if (r.target == "/page.jpg") return ScriptedResponse{200, {}, "<html>Sign in</html>"};
    // The image limit, plus one byte.
    return ScriptedResponse{200, {}, kJPEG + std::string((10 << 20) - kJPEG.size() + 1, 'j')};
  });
  const auto folder = platform::temporaryDirectory() / platform::processGloballyUniqueString();
  auto files = [&] {
    std::error_code ec;
    return std::distance(std::filesystem::directory_iterator(folder, ec), {});
  };
  const auto before = files();
  for (const char* path : {"/missing.jpg", "/page.jpg", "/huge.jpg"}) {
    SCOPED_TRACE(path);
    const auto delivered = deliver(request({{"thumbnail_url", url(path)}}));
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_TRUE(delivered[0].attachments.empty());
  }
  const std::string failed =
      "163 addAttachments() [Herald] An unexpected error occurred while adding attachments.";
  EXPECT_EQ(messages(), (std::vector<std::string>{failed, failed, failed}));
  EXPECT_EQ(files(), before);
}

TEST_F(NotificationServiceTest, AttachmentsAreReplacedOnlyWhenAThumbnailIsAdded) {
  platform::NotificationContent content;
  content.attachments.push_back({"old-1", "file:///tmp/1.jpg", "public.jpeg", {}});
  content.attachments.push_back({"old-2", "file:///tmp/2.jpg", "public.jpeg", {}});
  auto withThumbnail = [&](const std::string& address) {
    content.userInfo = {{"thumbnail_url", address}, {"user_name", "Ada"}};
    return deliver({"r", content.copy()}).at(0).attachments;
  };
  const auto added = withThumbnail(url("/thumbs/new.jpg"));
  ASSERT_EQ(added.size(), 1u);
  EXPECT_NE(added[0].identifier, "old-1");

  // A page that is no JPEG, a file that is not there, a refused type: the old ones stay.
  server_.setHandler([](const RecordedRequest&) { return ScriptedResponse{404, {}, "<html>"}; });
  for (const auto& address : {url("/thumbs/missing.jpg"),
                              std::string("file:///nonexistent/dir/thumb.jpg"), url("/a.png")})
    EXPECT_EQ(withThumbnail(address).size(), 2u) << address;
  const std::string unexpected =
      "163 addAttachments() [Herald] An unexpected error occurred while adding attachments.";
  EXPECT_EQ(messages(),
            (std::vector<std::string>{unexpected, unexpected,
                                      "160 addAttachments() [Herald] Not able to add attachments: "
                                      "unsupportedFileExtension"}));
}

TEST_F(NotificationServiceTest, AnUndecodablePayloadIsDeliveredPlainAfterTheReportStarted) {
  const auto r = request({{"batch", boost::json::object{}},
                          {"user_name", "Ada"},
                          {"thumbnail_url", url("/thumbs/a.jpg")},
                          {"trackingUrl", url("/track/m2")}});
  const auto delivered = deliver(r);
  ASSERT_EQ(delivered.size(), 1u);
  EXPECT_EQ(delivered[0].title, "Ada commented");
  EXPECT_EQ(delivered[0].userInfo, r.content->userInfo);
  EXPECT_FALSE(delivered[0].communication);
  EXPECT_TRUE(delivered[0].attachments.empty());
  EXPECT_TRUE(platform::donatedInteractions().empty());
  EXPECT_EQ(messages(),
            std::vector<std::string>{
                "84 didReceive() [Herald] The notification payload does not match the expected "
                "NotificationMessage format."});
  ASSERT_TRUE(server_.waitForRequests(1));
  EXPECT_EQ(paths(), std::vector<std::string>{"POST /track/m2"});
}

TEST_F(NotificationServiceTest, ContentThatCannotBeCopiedIsDeliveredUnchangedAndNotReported) {
  platform::NotificationContent content;
  content.title = "As sent";
  content.userInfo = {{"trackingUrl", url("/track/m3")}, {"user_name", "Ada"}};
  content.copyable = false;
  const auto delivered = deliver({"r", content.copy()});
  ASSERT_EQ(delivered.size(), 1u);
  EXPECT_EQ(delivered[0].title, "As sent");
  EXPECT_FALSE(delivered[0].communication);
  ASSERT_TRUE(platform::waitForIdle(10s));
  EXPECT_TRUE(server_.requests().empty());
  EXPECT_EQ(messages(),
            std::vector<std::string>{
                "71 didReceive() [Herald] Failed to create a mutable copy of the notification "
                "content."});
}

TEST_F(NotificationServiceTest, AFailedIntentUpdateIsLoggedAndTheThumbnailStillAttached) {
  const auto delivered = deliver(request(
      {{"profile_picture_url", "avatars/ada.jpg"}, {"thumbnail_url", url("/thumbs/a.jpg")}}));
  ASSERT_EQ(delivered.size(), 1u);
  EXPECT_FALSE(delivered[0].communication);
  EXPECT_EQ(delivered[0].attachments.size(), 1u);
  EXPECT_TRUE(platform::donatedInteractions().empty());
  EXPECT_EQ(messages(), std::vector<std::string>{
                            "177 addProfilePicture() [Herald] Not able to modify the request with "
                            "the intent: The sender's image URL is not an absolute http, https or "
                            "file URL: \"avatars/ada.jpg\"."});
}

TEST_F(NotificationServiceTest, TheDeadlineDeliversTheBestAttemptAndTheWorkDeliversAgain) {
  // The thumbnail is held back until the deadline has been handled.
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  server_.setHandler([released](const RecordedRequest&) {
    released.wait_for(10s);
    return ScriptedResponse{200, {{"Content-Type", "image/jpeg"}}, kJPEG};
  });
  std::mutex mutex;
  std::vector<platform::NotificationContent> delivered;
  herald_service::NotificationService service;
  service.serviceExtensionTimeWillExpire();  // nothing is being served yet: no call

  std::thread work([&] {
    service.didReceive(request({{"user_name", "Ada"}, {"thumbnail_url", url("/thumbs/t.jpg")}}),
                       [&](const platform::NotificationContent& c) {
                         std::lock_guard lock(mutex);
                         delivered.push_back(c);
                       });
  });
  // The download has begun once the server has the request; the deadline comes during it.
  EXPECT_TRUE(server_.waitForRequests(1));
  service.serviceExtensionTimeWillExpire();
  release.set_value();
  work.join();

  ASSERT_EQ(delivered.size(), 2u);
  EXPECT_TRUE(delivered[0].communication);
  EXPECT_TRUE(delivered[0].attachments.empty());
  EXPECT_EQ(delivered[1].attachments.size(), 1u);
  // Nothing is cleared: a later deadline call delivers the finished content once more.
  service.serviceExtensionTimeWillExpire();
  ASSERT_EQ(delivered.size(), 3u);
  EXPECT_EQ(delivered[2].attachments.size(), 1u);
}

}  // namespace
