#pragma once

#include <QString>

// The error value platform-facing operations return instead of throwing.
struct PlatformError {
    QString domain;
    int code = 0;
    QString description;

    bool isError() const { return code != 0 || !description.isEmpty(); }
};
