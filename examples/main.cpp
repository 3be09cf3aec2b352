// A program of its own that uses the installed Herald libraries: it logs through Logwell and
// reports a notification as delivered to the tracking URL it is given.
//
//   cmake -S examples -B build-example -DCMAKE_PREFIX_PATH=/path/to/herald
//   cmake --build build-example && build-example/herald-example http://127.0.0.1:8080/track/m1

#include <boost/json/object.hpp>
#include <chrono>
#include <future>
#include <iostream>
#include <memory>
#include <optional>

#include "herald/tracking.hpp"
#include "logwell/logwell.hpp"
#include "platform/version.hpp"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: herald-example TRACKING_URL\n";
    return 2;
  }
  logwell::Logwell::addDestination(std::make_shared<logwell::ConsoleDestination>());

  // A push carries its tracking URL in the payload; here the command line gives it.
  const boost::json::object userInfo{{"trackingUrl", argv[1]}};
  logwell::Logwell::info("reporting a delivery",
                         {{"url", argv[1]}, {"herald", platform::kVersion}});

  // The completion comes on another thread, and may come after a time-out here.
  auto reported = std::make_shared<std::promise<std::optional<herald::HeraldError>>>();
  auto result = reported->get_future();
  herald::trackMessage(userInfo, herald::HeraldTrackingEvent::delivered,
                       [reported](std::optional<herald::HeraldError> error) {
                         reported->set_value(std::move(error));
                       });
  int status = 0;
  if (result.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
    logwell::Logwell::error("no answer from the tracking URL within 30 s");
    status = 1;
  } else if (const auto error = result.get()) {
    logwell::Logwell::error("the delivery was not reported", {{"error", error->what()}});
    status = 1;
  } else {
    logwell::Logwell::info("delivery reported");
  }
  logwell::Logwell::flush(2);
  return status;
}
