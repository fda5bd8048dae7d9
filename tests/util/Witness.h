// An object that notes the calls that reach it: "+name" and "-name" for its count, "~name" for its end.

#pragma once

#include <string>

#include "util/KTObject.h"

class Witness : public KTObject {
 public:
  Witness(std::string name, std::string& log);
  ~Witness() override;
  i32 addRef() override;
  i32 release() override;

 private:
  std::string name_;
  std::string& log_;
};
