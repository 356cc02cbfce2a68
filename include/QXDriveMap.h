// QXDriveMap.h: how the library's drive letters and network shares meet the POSIX file system.
//
// The library names files the way its host does: "C:\Photos\a.tif", "\\server\share\a.tif". On a
// POSIX system each drive letter names a directory, and each network share a directory where
// the share is reachable (a mount point). By default "C:" is "/" and no other letter or share
// is known, so a rooted path such as "\tmp\a" (or "/tmp/a") is "/tmp/a". The host maps further
// letters and shares before it uses paths on them; a path on an unmapped letter is not found.
//
// Both functions return 0, or kQXErrBadPath when the letter is not A to Z (either case), the
// share is not of the form "\\server\share" ('/' may stand for '\'), or the directory is not an
// absolute POSIX path. The directory need not exist yet; it is kept in normal form ("/a/./b/.."
// is "/a"). A null or empty directory removes the letter or the share. Like the rest of the
// library's process-wide state, the map belongs to one thread at a time.
#ifndef QXDRIVEMAP_H
#define QXDRIVEMAP_H

#include "QXBase.h"

QX_EXPORT uint32_t QXMapDrive(char letter, const char* posixDirectory);
QX_EXPORT uint32_t QXMapShare(const char* share, const char* posixDirectory);

#endif  // QXDRIVEMAP_H
