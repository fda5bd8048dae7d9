// How the contract's few concrete members reach the module's symbol table.
//
// They are all inline, so that a host can derive from the contract's classes without linking against the
// module, which it only ever loads at run time. The module itself defines ORV_CONTRACT_IMPLEMENTATION in one
// source file, where the same members are emitted and exported.

#pragma once

#include "platform/Types.h"

#ifdef ORV_CONTRACT_IMPLEMENTATION
#define ORV_MEMBER __attribute__((used))
#else
#define ORV_MEMBER
#endif

// Constructors and assignment of an interface: they set the table of virtual operations and copy nothing.
#define ORV_INTERFACE_MEMBERS(Class)          \
 public:                                      \
  ORV_MEMBER Class() {}                       \
  ORV_MEMBER Class(const Class&) {}           \
  ORV_MEMBER Class& operator=(const Class&) { \
    return *this;                             \
  }
