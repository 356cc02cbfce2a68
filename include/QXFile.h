// QXFile.h: the file family. For now it holds the path separator that the streams and the file
// objects share.
#ifndef QXFILE_H
#define QXFILE_H

#include "QXBase.h"

class TQXFile {
 protected:
  // The separator of the library's own path form: the backslash, 0x5C. Never written.
  QX_EXPORT static char fgSeparator;
};

#endif  // QXFILE_H
