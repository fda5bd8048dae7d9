// All of the library's locks, signals, workers and thread slots.

#pragma once

#include "util/ActiveObject.h"
#include "util/IMutex.h"
#include "util/IWorker.h"
#include "util/KTConditionSignal.h"
#include "util/KTFiberMutex.h"
#include "util/KTThreadOnlyMutex.h"
#include "util/ReadWriteLock.h"
#include "util/ThreadSlots.h"
