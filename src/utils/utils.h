// The support library: log, clock, locks, signal and worker thread.
#pragma once

#include "XLock.h"
#include "XLog.h"
#include "XThread.h"
#include "XTime.h"
#include "XTypes.h"
