// Includes every exported header.
#ifndef VARNSUPPORT_VARNSUPPORT_H
#define VARNSUPPORT_VARNSUPPORT_H

#include "VarnSupport/VarnCollaborator.h"
#include "VarnSupport/VarnCriticalSection.h"
#include "VarnSupport/VarnDateTime.h"
#include "VarnSupport/VarnEvent.h"
#include "VarnSupport/VarnEventTimerThread.h"
#include "VarnSupport/VarnException.h"
#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnFindFile.h"
#include "VarnSupport/VarnLibrary.h"
#include "VarnSupport/VarnLocaleFactory.h"
#include "VarnSupport/VarnLockFactory.h"
#include "VarnSupport/VarnLogging.h"
#include "VarnSupport/VarnMessageSet.h"
#include "VarnSupport/VarnModule.h"
#include "VarnSupport/VarnObjectBase.h"
#include "VarnSupport/VarnObjectFactory.h"
#include "VarnSupport/VarnProcess.h"
#include "VarnSupport/VarnProducerConsumer.h"
#include "VarnSupport/VarnReadWriteLock.h"
#include "VarnSupport/VarnService.h"
#include "VarnSupport/VarnServiceControl.h"
#include "VarnSupport/VarnStringUtilities.h"
#include "VarnSupport/VarnThread.h"
#include "VarnSupport/VarnTimer.h"
#include "VarnSupport/VarnVersion.h"
#include "VarnSupport/VarnWorkInformation.h"

#endif
