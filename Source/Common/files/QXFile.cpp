// The file family.
#include "QXFile.h"

char TQXFile::fgSeparator = '\\';
