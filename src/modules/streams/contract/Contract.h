// The whole plug-in contract.

#pragma once

#include "modules/streams/contract/IBackupConn.h"
#include "modules/streams/contract/IFileService.h"
#include "modules/streams/contract/IQVStreamAdaptor.h"
#include "modules/streams/contract/IQVStreamContext.h"
#include "modules/streams/contract/OrvVariant.h"
#include "modules/streams/contract/ServerInterfaces.h"
#include "modules/streams/contract/Sinks.h"
