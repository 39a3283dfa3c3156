#pragma once

#include <cstddef>

// The interface of the PDF text module, a separate shared object that links Poppler. The application loads it
// only when a PDF is read, so the library and its dependencies (NSS, image codecs, colour management) cost
// nothing while Hourloom sits in the tray.

extern "C" {

// Called once per page, in page order, with the page's text as UTF-8 (not terminated).
using HourloomPdfPage = void (*)(void *context, const char *utf8, std::size_t size);

// Reads every page of the PDF at `path` (a file system path in the local encoding). Returns 1 when the
// document opened and is not locked (its pages were passed to `page`), 0 otherwise.
using HourloomPdfText = int (*)(const char *path, HourloomPdfPage page, void *context);

} // extern "C"

// The exported name of the HourloomPdfText function.
inline constexpr const char kHourloomPdfTextSymbol[] = "hourloom_pdf_text";
