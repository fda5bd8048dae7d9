// Interfaces of the wider server that the contract names. This module calls none of their operations.

#pragma once

#include "modules/streams/contract/Export.h"

class ORV_EXPORT IQVServerContext {
  ORV_INTERFACE_MEMBERS(IQVServerContext)
  ORV_MEMBER virtual ~IQVServerContext() {}
};

class ORV_EXPORT IOrvServerContext {
  ORV_INTERFACE_MEMBERS(IOrvServerContext)
  ORV_MEMBER virtual ~IOrvServerContext() {}
};

class ORV_EXPORT IQVFlowContext {
  ORV_INTERFACE_MEMBERS(IQVFlowContext)
  ORV_MEMBER virtual void reserved() {}

 protected:
  ~IQVFlowContext() = default;
};

class ORV_EXPORT IQVCodecAdaptor {
  ORV_INTERFACE_MEMBERS(IQVCodecAdaptor)
  ORV_MEMBER virtual ~IQVCodecAdaptor() {}
};
