#pragma once

#include <QString>

// The names the desktop, QSettings (~/.config/Hourloom/Hourloom.conf) and the folders are keyed by.
void HLConfigureApplicationIdentity();

// The reverse-DNS application identifier: queue labels, the secret-store service, error domains.
QString HLApplicationIdentifier();
