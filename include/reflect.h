#pragma once

/** The broker, object locations and stubs. */

#include "reflect/NamespaceId.h"
#include "reflect/TreflectMessage.h"
#include "reflect/TreflectORB.h"
#include "reflect/TreflectObjectHandler.h"
#include "reflect/TreflectObjectLocationIf.h"
#include "reflect/TreflectObjectStub.h"
#include "reflect/TreflectObjectStubContainer.h"
#include "reflect/TreflectOrbId.h"
