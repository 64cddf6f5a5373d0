// QelCore: the whole public interface of the library.
//
// A host writes #include <Infrastructure/QelCore/QelCore.h> and links QelCore::QelCore
// (CMake) or `pkg-config --cflags --libs qelcore`.
#pragma once

#include "Infrastructure/QelCore/QelCoreExport.h"

#include "Infrastructure/QelCore/AlertInfo.h"
#include "Infrastructure/QelCore/AlertManager.h"
#include "Infrastructure/QelCore/Callback.h"
#include "Infrastructure/QelCore/Condition.h"
#include "Infrastructure/QelCore/Elapse.h"
#include "Infrastructure/QelCore/Error.h"
#include "Infrastructure/QelCore/Globals.h"
#include "Infrastructure/QelCore/Locale.h"
#include "Infrastructure/QelCore/LogManager.h"
#include "Infrastructure/QelCore/LocaleName.h"
#include "Infrastructure/QelCore/MemoryBlock.h"
#include "Infrastructure/QelCore/Mutex.h"
#include "Infrastructure/QelCore/Notification.h"
#include "Infrastructure/QelCore/PathName.h"
#include "Infrastructure/QelCore/ProcessMutex.h"
#include "Infrastructure/QelCore/ObjectPool.h"
#include "Infrastructure/QelCore/Queue.h"
#include "Infrastructure/QelCore/ReadersWriterMutex.h"
#include "Infrastructure/QelCore/RefCountedObject.h"
#include "Infrastructure/QelCore/Semaphore.h"
#include "Infrastructure/QelCore/StringTools.h"
#include "Infrastructure/QelCore/System.h"
#include "Infrastructure/QelCore/Thread.h"
#include "Infrastructure/QelCore/ThreadPool.h"
#include "Infrastructure/QelCore/Time.h"
#include "Infrastructure/QelCore/TypeNames.h"
#include "Infrastructure/QelCore/XMLAttributes.h"
#include "Infrastructure/QelCore/XMLFormatter.h"
#include "Infrastructure/QelCore/XMLWriter.h"
