#pragma once
/// The application's constants, in one place: where the service lives, how much of its
/// answers is read, the catalogue's names, and the defaults the extension runs with. Code
/// that needs one of these values names it from here rather than writing it again.
///
///   auto url = std::string(K::Service::apiBaseURL) + std::string(K::Service::graphQLPath);
///   auto purple = platform::namedColor(K::Colors::secondaryMoonGrape)
///                     .value_or(K::Colors::secondaryMoonGrapeFallback);

#include <cstddef>
#include <string_view>

#include "platform/canvas.hpp"

namespace K {

/// The application itself.
namespace Application {
/// The bundle identifier the phone knows the application by; the device's vendor identifier
/// and the "app_id" of its push tokens come from it.
inline constexpr std::string_view bundleIdentifier = "app.kelvara.photo";
}  // namespace Application

/// The hosted service and the paths below a base URL.
namespace Service {
inline constexpr std::string_view apiBaseURL = "https://api.heraldhq.com";
inline constexpr std::string_view inboxGraphQLURL = "https://inbox.heraldhq.com/q";
inline constexpr std::string_view realtimeSocketURL = "wss://realtime.heraldhq.com";
/// GraphQL on the API host.
inline constexpr std::string_view graphQLPath = "/client/q";
/// REST resources of one user on the API host ("/users/<id>/...").
inline constexpr std::string_view usersPath = "/users/";
/// The inbox's GraphQL endpoint and the realtime socket when one local service serves all.
inline constexpr std::string_view localInboxGraphQLPath = "/inbox/q";
inline constexpr std::string_view localRealtimePath = "/realtime";
}  // namespace Service

/// How much of an answer is read.
namespace Limits {
/// The largest body taken from the service; hundreds of times a full inbox page.
inline constexpr std::size_t serviceResponseBytes = 16 << 20;
/// A tracking answer: only its status counts, so the rest of a longer body is not read.
inline constexpr std::size_t trackingResponseBytes = 4096;
}  // namespace Limits

/// Named colours of the extension's asset catalogue, and what stands in when it cannot be
/// read.
namespace Colors {
inline constexpr const char* secondaryMoonGrape = "secondaryMoonGrape";
inline constexpr platform::Color secondaryMoonGrapeFallback{0.447, 0.384, 0.580, 1};
}  // namespace Colors

/// Named images of the extension's asset catalogue.
namespace Images {
/// The person icon, for a sender with neither picture nor initials.
inline constexpr const char* personIcon = "icon-person-person";
}  // namespace Images

/// The notification extension.
namespace Extension {
/// The application's name as the phone prints it above its notifications.
inline constexpr const char* appLabel = "KELVARA";
/// Seconds the platform gives an extension before it asks for what it has.
inline constexpr double deadlineSeconds = 30;
}  // namespace Extension

}  // namespace K
