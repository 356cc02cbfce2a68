// QXCore.h: the whole interface of the library, one header per family.
#ifndef QXCORE_H
#define QXCORE_H

#include "QXBase.h"
#include "QXByteSwap.h"
#include "QXCountedObject.h"
#include "QXDriveMap.h"
#include "QXException.h"
#include "QXFStream.h"
#include "QXFile.h"
#include "QXFileIterator.h"
#include "QXFileType.h"
#include "QXGeometry.h"
#include "QXGlobals.h"
#include "QXMemory.h"
#include "QXNumerics.h"
#include "QXPlatformUtilities.h"
#include "QXResource.h"
#include "QXResourceFile.h"
#include "QXStrStream.h"
#include "QXStream.h"
#include "QXString.h"
#include "QXStringUTF8.h"
#include "QXTime.h"
#include "QXToken.h"

#endif  // QXCORE_H
