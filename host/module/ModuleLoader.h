// Finds, loads and starts the storage module.

#pragma once

#include <memory>
#include <string>

#include "modules/streams/contract/IQVStreamAdaptor.h"

namespace orv::host {

// Where the module is: `given` if not empty; else the environment variable FLVADAPTOR_MODULE; else the first
// of these that exists: beside the program, one folder above it, and where an installation puts it, all
// relative to the program's own place. Throws Failure if there is none.
std::string findModule(const std::string& given);

// A loaded module and its adaptor. Streams must be closed before it goes; `context` must outlive it.
class ModuleLoader {
 public:
  // Throws Failure if the module can't be loaded or started.
  ModuleLoader(const std::string& path, IQVStreamContext& context);

  IQVStreamAdaptor& adaptor() const { return *adaptor_; }
  // Returns one more adaptor, which must go before this object. Throws Failure.
  std::unique_ptr<IQVStreamAdaptor> make(IQVStreamContext& context) const;

 private:
  struct Unloader {
    void operator()(void* library) const;
  };

  // In this order: the adaptor's code lives in the library.
  const std::string file_;
  std::unique_ptr<void, Unloader> library_;
  std::unique_ptr<IQVStreamAdaptor> adaptor_;
};

}  // namespace orv::host
