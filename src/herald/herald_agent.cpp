#include "herald/herald_agent.hpp"

#include <mutex>

namespace herald {
namespace {

struct CurrentAgent {
  std::mutex mutex;
  HeraldAgent agent = HeraldAgent::nativeIOS("5.5.5");
};

CurrentAgent& currentAgent() {
  static CurrentAgent current;
  return current;
}

}  // namespace

HeraldAgent::HeraldAgent(std::string agentType, std::string version)
    : agentType(std::move(agentType)), version(std::move(version)) {}

HeraldAgent HeraldAgent::nativeIOS(std::string version) {
  return HeraldAgent("herald-ios", std::move(version));
}

HeraldAgent HeraldAgent::reactNativeIOS(std::string version) {
  return HeraldAgent("herald-react-native-ios", std::move(version));
}

HeraldAgent HeraldAgent::flutterIOS(std::string version) {
  return HeraldAgent("herald-flutter-ios", std::move(version));
}

HeraldAgent HeraldAgent::current() {
  auto& current = currentAgent();
  std::lock_guard lock(current.mutex);
  return current.agent;
}

void HeraldAgent::setCurrent(HeraldAgent agent) {
  auto& current = currentAgent();
  std::lock_guard lock(current.mutex);
  current.agent = std::move(agent);
}

}  // namespace herald
