#include "invoice/pdfmodule.h"

#include <poppler-document.h>
#include <poppler-global.h>
#include <poppler-page.h>

#include <memory>
#include <mutex>
#include <string>

namespace
{
// Poppler writes its complaints about damaged files to stderr; a damaged file is reported as a result instead.
void ignorePopplerMessages(const std::string &, void *) { }
} // namespace

extern "C" __attribute__((visibility("default"))) int hourloom_pdf_text(
    const char *path, HourloomPdfPage page, void *context)
{
    static std::once_flag quiet;
    std::call_once(quiet, [] { poppler::set_debug_error_function(ignorePopplerMessages, nullptr); });

    const std::unique_ptr<poppler::document> document(poppler::document::load_from_file(path));
    if (!document || document->is_locked())
        return 0;
    const int pages = document->pages();
    for (int index = 0; index < pages; ++index) {
        const std::unique_ptr<poppler::page> current(document->create_page(index));
        if (!current)
            continue;
        const poppler::byte_array utf8
            = current->text(poppler::rectf(), poppler::page::non_raw_non_physical_layout).to_utf8();
        page(context, utf8.data(), utf8.size());
    }
    return 1;
}

// The loader checks this symbol's type against the declaration the application was built with.
static_assert(std::is_same_v<decltype(&hourloom_pdf_text), HourloomPdfText>);
