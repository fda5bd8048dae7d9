#include "modules/streams/flv/FLVConfig.h"
