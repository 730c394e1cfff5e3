#pragma once

/** The broker, object locations and stubs; classes, reflective handles, server objects and
 * observers. */

#include "reflect/InterfaceRepository.h"
#include "reflect/NamespaceId.h"
#include "reflect/TreflectAttribute.h"
#include "reflect/TreflectCall.h"
#include "reflect/TreflectMessage.h"
#include "reflect/TreflectMetaAttribute.h"
#include "reflect/TreflectMetaClass.h"
#include "reflect/TreflectMetaObject.h"
#include "reflect/TreflectMetaOperation.h"
#include "reflect/TreflectORB.h"
#include "reflect/TreflectObject.h"
#include "reflect/TreflectObjectHandler.h"
#include "reflect/TreflectObjectLocationIf.h"
#include "reflect/TreflectObjectStub.h"
#include "reflect/TreflectObjectStubContainer.h"
#include "reflect/TreflectObservable.h"
#include "reflect/TreflectObserver.h"
#include "reflect/TreflectObserverClient.h"
#include "reflect/TreflectObserverSkeleton.h"
#include "reflect/TreflectOperation.h"
#include "reflect/TreflectOrbId.h"
#include "reflect/TreflectParameters.h"
#include "reflect/TreflectServerObject.h"
#include "reflect/TreflectTieds.h"
