// The least a thumbnail download can cost: one process that loads one URL into memory with
// libcurl and exits. The end-to-end benchmark compares the application's extension with it.
//
//   e2e_floor_fetch http://127.0.0.1:PORT/_sandbox/bytes/204800.jpg

#include <curl/curl.h>

#include <cstdio>
#include <string>

#include "floor_arguments.hpp"

namespace {
constexpr const char* kUsage =
    "usage: e2e_floor_fetch URL     (one GET into memory; exit 0 on status 200)\n";

size_t keep(char* data, size_t size, size_t count, void* body) {
  static_cast<std::string*>(body)->append(data, size * count);
  return size * count;
}
}  // namespace

int main(int argc, char** argv) {
  if (const auto status = floor_program::checkArguments(argc, argv, kUsage)) return *status;
  curl_global_init(CURL_GLOBAL_DEFAULT);
  CURL* curl = curl_easy_init();
  std::string body;
  curl_easy_setopt(curl, CURLOPT_URL, argv[1]);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, keep);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, 60L);
  const CURLcode result = curl_easy_perform(curl);
  long status = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  curl_easy_cleanup(curl);
  curl_global_cleanup();
  if (result != CURLE_OK || status != 200 || body.empty()) {
    std::fprintf(stderr, "e2e_floor_fetch: %s, status %ld, %zu bytes\n", curl_easy_strerror(result),
                 status, body.size());
    return 1;
  }
  return 0;
}
