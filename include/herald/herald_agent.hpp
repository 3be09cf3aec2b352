#pragma once
/// The calling SDK's name and version, sent with every request as "User-Agent".
///
///   herald::HeraldAgent::setCurrent(herald::HeraldAgent::reactNativeIOS("1.2.0"));
///   herald::HeraldAgent::current().value();  // "herald-react-native-ios/1.2.0"

#include <string>

namespace herald {

class HeraldAgent {
 public:
  std::string agentType;
  std::string version;

  HeraldAgent(std::string agentType, std::string version);

  static HeraldAgent nativeIOS(std::string version);
  static HeraldAgent reactNativeIOS(std::string version);
  static HeraldAgent flutterIOS(std::string version);

  /// agentType + "/" + version, the "User-Agent" value.
  std::string value() const { return agentType + "/" + version; }
  bool isReactNative() const { return agentType == "herald-react-native-ios"; }

  /// The process-wide agent read by every request; "herald-ios/5.5.5" until set.
  static HeraldAgent current();
  static void setCurrent(HeraldAgent agent);
};

}  // namespace herald
