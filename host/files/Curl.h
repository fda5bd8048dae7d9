// The part of libcurl that is used. It is loaded when the first address is opened: the library brings some
// thirty others along, whose relocations would be most of what a short command on a file takes.

#pragma once

#include <curl/curl.h>

namespace orv::host {

// Named as libcurl names them, without the prefix, since some of those names are macros.
struct Curl {
  // Loads the library once; it stays. Safe from any thread. Throws HttpFault if it is not installed.
  static const Curl& get();

  decltype(&curl_easy_init) easy_init;
  decltype(&curl_easy_setopt) easy_setopt;
  decltype(&curl_easy_perform) easy_perform;
  decltype(&curl_easy_getinfo) easy_getinfo;
  decltype(&curl_easy_strerror) easy_strerror;
  decltype(&curl_easy_reset) easy_reset;
  decltype(&curl_easy_cleanup) easy_cleanup;
  decltype(&curl_slist_append) slist_append;
  decltype(&curl_slist_free_all) slist_free_all;
};

}  // namespace orv::host
