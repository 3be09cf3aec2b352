// The least that signing in with two push tokens can cost: one process that makes the two
// loopback PUTs of a token registration with libcurl (one connection, kept alive) and exits.
// The end-to-end benchmark compares `herald signin` against it.
//
//   FLOOR_JWT=eyJ... e2e_floor_tokens http://127.0.0.1:PORT/users/bench/tokens/

#include <curl/curl.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "floor_arguments.hpp"

namespace {
constexpr const char* kUsage =
    "usage: FLOOR_JWT=TOKEN e2e_floor_tokens URL\n"
    "  (PUTs URL + \"aa\" and URL + \"bb\" with a token body; exit 0 when both get 200 or 204)\n";

size_t discard(char*, size_t size, size_t count, void*) {
  return size * count;
}
}  // namespace

int main(int argc, char** argv) {
  if (const auto status = floor_program::checkArguments(argc, argv, kUsage)) return *status;
  const char* jwt = std::getenv("FLOOR_JWT");
  curl_global_init(CURL_GLOBAL_DEFAULT);
  CURL* curl = curl_easy_init();
  curl_slist* headers = nullptr;
  const std::string authorization = std::string("Authorization: Bearer ") + (jwt ? jwt : "");
  headers = curl_slist_append(headers, authorization.c_str());
  headers = curl_slist_append(headers, "User-Agent: e2e-floor/1");
  headers = curl_slist_append(headers, "Content-Type: application/json");
  headers = curl_slist_append(headers, "Accept:");
  int failures = 0;
  for (const char* token : {"aa", "bb"}) {
    const std::string url = std::string(argv[1]) + token;
    const std::string body = std::string(R"({"provider_key":")") +
                             (token[0] == 'a' ? "apn" : "firebase-fcm") +
                             R"(","device":{"platform":"ios","manufacturer":"apple"}})";
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, "PUT");
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, discard);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 60L);
    const CURLcode result = curl_easy_perform(curl);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    if (result != CURLE_OK || (status != 200 && status != 204)) {
      std::fprintf(stderr, "e2e_floor_tokens: %s, status %ld\n", curl_easy_strerror(result),
                   status);
      ++failures;
    }
  }
  curl_slist_free_all(headers);
  curl_easy_cleanup(curl);
  curl_global_cleanup();
  return failures == 0 ? 0 : 1;
}
