#pragma once

#include "qtprinters.h"

#include <QString>

// File-system conditions for failure tests that must hold even when the tests run as root.

// Permission bits of a file (st_mode & 0777), -1 when it cannot be stat'ed.
int fileMode(const QString &path);

// While alive, the calling thread honours file permissions even as root: it drops CAP_DAC_OVERRIDE and
// CAP_DAC_READ_SEARCH from its effective set (capabilities are per thread on Linux) and restores them after.
class ScopedPermissionChecks
{
public:
    ScopedPermissionChecks();
    ~ScopedPermissionChecks();
    ScopedPermissionChecks(const ScopedPermissionChecks &) = delete;
    ScopedPermissionChecks &operator=(const ScopedPermissionChecks &) = delete;

private:
    bool m_dropped = false;
};

// The whole file content, or a null array when it cannot be read.
QByteArray fileBytes(const QString &path);
