#include "host/files/Curl.h"

#include <dlfcn.h>

#include <string>

#include "host/files/HttpRanges.h"

namespace orv::host {

namespace {

constexpr const char* kLibrary = "libcurl.so.4";

template <class Function>
Function find(void* library, const char* name) {
  const auto function = reinterpret_cast<Function>(dlsym(library, name));
  if (!function) throw HttpFault(std::string(kLibrary) + " has no " + name, false);
  return function;
}

#define FIND(name) find<decltype(Curl::name)>(library, "curl_" #name)

Curl load() {
  void* const library = dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
  if (!library) throw HttpFault(std::string("web addresses need libcurl: ") + dlerror(), false);
  const Curl curl{FIND(easy_init),    FIND(easy_setopt),   FIND(easy_perform),
                  FIND(easy_getinfo), FIND(easy_strerror), FIND(easy_reset),
                  FIND(easy_cleanup), FIND(slist_append),  FIND(slist_free_all)};
  if (find<decltype(&curl_global_init)>(library, "curl_global_init")(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
    throw HttpFault("libcurl does not start", false);
  }
  return curl;
}

#undef FIND

}  // namespace

const Curl& Curl::get() {
  static const Curl curl = load();
  return curl;
}

}  // namespace orv::host
