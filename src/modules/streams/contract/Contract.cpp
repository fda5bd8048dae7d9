// The one place where the contract's inline members become exported symbols of the module.

#define ORV_CONTRACT_IMPLEMENTATION
#include "modules/streams/contract/Contract.h"
