#include "util/Witness.h"

#include <utility>

Witness::Witness(std::string name, std::string& log) : name_(std::move(name)), log_(log) {}

Witness::~Witness() {
  log_ += "~" + name_ + " ";
}

i32 Witness::addRef() {
  log_ += "+" + name_ + " ";
  return KTObject::addRef();
}

i32 Witness::release() {
  log_ += "-" + name_ + " ";
  return KTObject::release();
}
