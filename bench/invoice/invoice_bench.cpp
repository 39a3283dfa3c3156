// Reading a 20-page month invoice (600 rows, made by tests/data/invoices/make_invoices.py) must take at most
// 50 ms. The floors beside it: reading the file's bytes, and Poppler's own text extraction without the parser.

#include "invoice/invoice.h"

#include <QFile>

#include <poppler-document.h>
#include <poppler-global.h>
#include <poppler-page.h>

#include <benchmark/benchmark.h>

#include <memory>

namespace
{

const QString kMonth = QStringLiteral(HOURLOOM_INVOICE_FIXTURES "/month-20-pages.pdf");

QString popplerText(const QString &path)
{
    const std::unique_ptr<poppler::document> document(
        poppler::document::load_from_file(QFile::encodeName(path).toStdString()));
    QString text;
    for (int index = 0; document && index < document->pages(); ++index) {
        const std::unique_ptr<poppler::page> page(document->create_page(index));
        const poppler::byte_array utf8
            = page->text(poppler::rectf(), poppler::page::non_raw_non_physical_layout).to_utf8();
        text += QString::fromUtf8(utf8.data(), qsizetype(utf8.size())) + QLatin1Char('\n');
    }
    return text;
}

void ReadFileBytes(benchmark::State &state)
{
    for (auto _ : state) {
        QFile file(kMonth);
        file.open(QIODevice::ReadOnly);
        benchmark::DoNotOptimize(file.readAll());
    }
}

void PopplerTextOnly(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(popplerText(kMonth));
}

void ParseTextOnly(benchmark::State &state)
{
    const QString text = popplerText(kMonth);
    for (auto _ : state)
        benchmark::DoNotOptimize(INVParseText(text));
}

void ParseTwentyPagePDF(benchmark::State &state)
{
    if (INVParsePDF(kMonth).value(QStringLiteral("row_count")).toULongLong() != 600) {
        state.SkipWithError("the month fixture did not read as 600 rows");
        return;
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(INVParsePDF(kMonth));
}

} // namespace

BENCHMARK(ReadFileBytes)->Unit(benchmark::kMillisecond);
BENCHMARK(PopplerTextOnly)->Unit(benchmark::kMillisecond);
BENCHMARK(ParseTextOnly)->Unit(benchmark::kMillisecond);
BENCHMARK(ParseTwentyPagePDF)->Unit(benchmark::kMillisecond);
