// The least a delivery report can cost: one process that makes one loopback POST with
// libcurl and exits. The end-to-end benchmark compares the host against it.
//
//   e2e_floor_post http://127.0.0.1:PORT/track/floor

#include <curl/curl.h>

#include <cstdio>

#include "floor_arguments.hpp"

namespace {
constexpr const char* kUsage =
    "usage: e2e_floor_post URL     (one POST of {\"event\":\"DELIVERED\"}; exit 0 on status 200)\n";

size_t discard(char*, size_t size, size_t count, void*) {
  return size * count;
}
}  // namespace

int main(int argc, char** argv) {
  if (const auto status = floor_program::checkArguments(argc, argv, kUsage)) return *status;
  curl_global_init(CURL_GLOBAL_DEFAULT);
  CURL* curl = curl_easy_init();
  curl_slist* headers = nullptr;
  headers = curl_slist_append(headers, "User-Agent: e2e-floor/1");
  headers = curl_slist_append(headers, "Content-Type: application/json");
  headers = curl_slist_append(headers, "Accept:");
  curl_easy_setopt(curl, CURLOPT_URL, argv[1]);
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_POSTFIELDS, R"({"event":"DELIVERED"})");
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, discard);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, 60L);
  const CURLcode result = curl_easy_perform(curl);
  long status = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  curl_slist_free_all(headers);
  curl_easy_cleanup(curl);
  curl_global_cleanup();
  if (result != CURLE_OK || status != 200) {
    std::fprintf(stderr, "e2e_floor_post: %s, status %ld\n", curl_easy_strerror(result), status);
    return 1;
  }
  return 0;
}
