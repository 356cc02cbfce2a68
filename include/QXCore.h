// QXCore.h: the whole interface of the library, one header per family.
#ifndef QXCORE_H
#define QXCORE_H

#include "QXBase.h"
#include "QXByteSwap.h"
#include "QXException.h"
#include "QXFile.h"
#include "QXGeometry.h"
#include "QXGlobals.h"
#include "QXMemory.h"
#include "QXNumerics.h"
#include "QXTime.h"

#endif  // QXCORE_H
