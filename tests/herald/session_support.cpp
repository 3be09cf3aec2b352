#include "session_support.hpp"

#include <cstdlib>

#include "platform/paths.hpp"

namespace session_support {

TemporaryFolder::TemporaryFolder() {
  std::string pattern = (platform::temporaryDirectory() / "herald-session-XXXXXX").string();
  path_ = ::mkdtemp(pattern.data());
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ec;
  std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::add, ec);
  std::filesystem::remove_all(path_, ec);
}

Session::Session(testing_support::HttpServer::Handler handler)
    : defaults(folder.path() / "defaults.json"),
      users(defaults),
      server(handler ? std::move(handler)
                     : [](const testing_support::RecordedRequest&) {
                         return testing_support::ScriptedResponse{204};
                       }),
      herald(herald::Herald::create(users, center)) {
  herald::Endpoints::setCurrent(herald::Endpoints::localService(server.baseURL()));
}

Session::~Session() {
  platform::waitForIdle(std::chrono::seconds(5));
  drainMainQueue();
  herald::Endpoints::setCurrent(std::nullopt);
}

std::size_t Session::drainMainQueue(std::chrono::milliseconds limit) {
  return platform::MainQueue::shared().runFor(limit);
}

std::vector<std::string> Session::wire() const {
  std::vector<std::string> lines;
  for (const auto& request : server.requests()) lines.push_back(request.method + " " + request.target);
  return lines;
}

}  // namespace session_support
