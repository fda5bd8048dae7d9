#include "host/module/ModuleLoader.h"

#include <dlfcn.h>

#include <cstdlib>
#include <filesystem>

#include "host/text/Failure.h"

namespace orv::host {

namespace {

namespace fs = std::filesystem;

constexpr char kLibrary[] = "libflvadaptor.so";
constexpr char kFactory[] = "IQVCreateAdaptor";

using Factory = decltype(&IQVCreateAdaptor);

}  // namespace

std::string findModule(const std::string& given) {
  if (!given.empty()) return given;
  if (const char* const named = std::getenv("FLVADAPTOR_MODULE"); named && *named) return named;

  std::error_code error;
  const fs::path here = fs::read_symlink("/proc/self/exe", error).parent_path();
  for (const fs::path& place : {here, here.parent_path(), here.parent_path() / FLV_MODULE_DIR}) {
    const fs::path candidate = place / kLibrary;
    if (fs::exists(candidate, error)) return candidate.native();
  }
  throw hostFault(std::string(kLibrary) + " is not found near " + here.native() +
                  "; name it with --module or FLVADAPTOR_MODULE");
}

void ModuleLoader::Unloader::operator()(void* library) const {
  dlclose(library);
}

// A name without a slash would be looked for in the system's library folders instead.
ModuleLoader::ModuleLoader(const std::string& path, IQVStreamContext& context)
    : file_(fs::absolute(path).native()), library_(dlopen(file_.c_str(), RTLD_NOW | RTLD_LOCAL)) {
  if (!library_) throw hostFault(std::string("cannot load the module: ") + dlerror());
  adaptor_ = make(context);
}

std::unique_ptr<IQVStreamAdaptor> ModuleLoader::make(IQVStreamContext& context) const {
  const auto create = reinterpret_cast<Factory>(dlsym(library_.get(), kFactory));
  if (!create) throw hostFault(file_ + ": is not a storage module: it has no " + kFactory);
  IQVStreamAdaptor* adaptor = nullptr;
  if (create(&context, &adaptor) != 1 || !adaptor) throw hostFault(file_ + ": the module does not start");
  return std::unique_ptr<IQVStreamAdaptor>(adaptor);
}

}  // namespace orv::host
