// A limit for this process and for those that it starts.

#pragma once

#include <sys/resource.h>

namespace orv::test {

// Stands as long as the object does.
template <int kResource>
class ResourceLimit {
 public:
  explicit ResourceLimit(rlim_t size) {
    getrlimit(kResource, &old_);
    const rlimit tight{size, old_.rlim_max};
    setrlimit(kResource, &tight);
  }
  ~ResourceLimit() { setrlimit(kResource, &old_); }

 private:
  rlimit old_{};
};

}  // namespace orv::test
