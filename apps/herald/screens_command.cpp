// `herald ui`: the terminal screens over the signed-in user's live inbox and preferences.

#include "commands.hpp"
#include "herald/herald.hpp"
#include "herald_ui/ui.hpp"

namespace cli {
namespace {

// The sign-in command as this person would type it, with the options that point this
// command at its service and its files.
std::string signInCommand(const ScreensRequest& request) {
  std::string command = "herald";
  if (!request.endpoint.empty()) command += " --endpoint " + request.endpoint;
  if (!request.configDir.empty()) command += " --config-dir " + request.configDir;
  return command + " signin --user ID --jwt TOKEN";
}

}  // namespace

int screens(const ScreensRequest& request, Context& context) {
  // Nobody signed in is for the screen to say, with the command to run.
  if (herald::Herald::shared().userId()) {
    EndOnSignal endOnSignal;
    const auto session = platform::blockOn(resumeSession(context));
    if (!session.client) return session.status;
  }
  herald_ui::Options options;
  if (!request.brandId.empty()) options.brandId = request.brandId;
  options.pageSize = request.pageSize;
  options.signInCommand = signInCommand(request);
  options.logFile = request.logFile;
  switch (herald_ui::run(options)) {
    case herald_ui::kQuit: return ExitStatus::success;
    case herald_ui::kNoTerminal: return ExitStatus::usage;
    default: return ExitStatus::refused;
  }
}

}  // namespace cli
