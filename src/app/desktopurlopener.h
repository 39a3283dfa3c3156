#pragma once

#include "platform/urlopener.h"

// Opens pages in the browser the desktop has chosen (xdg-open or the portal, through QDesktopServices).
class DesktopUrlOpener final : public UrlOpener
{
public:
    void open(const QUrl &url) override;
};
