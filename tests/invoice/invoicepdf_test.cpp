#include "invoice/invoice.h"

#include "invoicefixtures.h"
#include "support/testenv.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>

#include <gtest/gtest.h>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace
{

const QString kNotAFile = u"That is not a regular file, so it cannot be read as a PDF."_s;
const QString kNotAPDF = u"That file could not be opened as a PDF."_s;
const QString kNoText = u"The invoice has no text layer. A scanned or image-only PDF cannot be read."_s;
const QString kNoTotal = u"The activity rows do not add up to the invoice total, so the figures cannot "
                         "be trusted. Nothing was extracted."_s;

const QStringList kWeekDescriptions = {u"ED-7 Sprint planning"_s, u"ED-9 Fix login time-out"_s,
    u"ED-12 Review release notes"_s, u"ED-101 Customer call about the 2.4 upgrade"_s};

QString fixture(const QString &name)
{
    return testenv::dataPath(u"invoices/"_s + name);
}

QString problem(const QVariantMap &result)
{
    return result.value(u"problem"_s).toString();
}

QString writeFile(const QString &name, const QByteArray &content)
{
    const QString path = testenv::home() + QLatin1Char('/') + name;
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(content);
    return path;
}

QList<invoicetest::Row> weekRows()
{
    return {{u"ED-12 Review release notes"_s, u"18%"_s, u"23 Mar"_s, u"2:15:00"_s, u"$180.00"_s},
        {u"ED-7 Sprint planning"_s, u"8%"_s, u"23 Mar"_s, u"1:00:00"_s, u"$80.00"_s},
        {u"ED-101 Customer call about the 2.4 upgrade"_s, u"12%"_s, u"24 Mar"_s, u"1:30:00"_s, u"$120.00"_s},
        {u"ED-12 Review release notes"_s, u"20%"_s, u"25 Mar"_s, u"2:30:00"_s, u"$200.00"_s},
        {u"ED-9 Fix login time-out"_s, u"42%"_s, u"26 Mar"_s, u"5:15:00"_s, u"$420.00"_s}};
}

void expectWeek(const QVariantMap &result)
{
    EXPECT_EQ(problem(result), QString());
    EXPECT_EQ(result.value(u"total_seconds"_s).toLongLong(), 45000);
    EXPECT_DOUBLE_EQ(result.value(u"total_amount"_s).toDouble(), 1000.0);
    EXPECT_EQ(result.value(u"row_count"_s).toULongLong(), 5u);
    EXPECT_EQ(result.value(u"descriptions"_s).toStringList(), kWeekDescriptions);
}

} // namespace

// Two independent producers (ReportLab's fixtures and Qt's writer) give the same reading.
TEST(InvoicePDF, ReadsTheSameWeekFromEitherProducer)
{
    expectWeek(INVParsePDF(fixture(u"week.pdf"_s)));
    expectWeek(INVParsePDF(fixture(u"week-pages.pdf"_s)));
    const QVariantMap month = INVParsePDF(fixture(u"month-20-pages.pdf"_s));
    EXPECT_EQ(month.value(u"total_seconds"_s).toLongLong(), 342 * 3600 + 45 * 60);
    EXPECT_EQ(month.value(u"row_count"_s).toULongLong(), 600u);
    EXPECT_EQ(month.value(u"descriptions"_s).toStringList().size(), 60);

    const QString written = testenv::home() + u"/qt-week.pdf"_s;
    invoicetest::writeInvoicePdf(written, weekRows(), u"12:30:00"_s, u"$1,000.00"_s);
    expectWeek(INVParsePDF(written));
    const QString paged = testenv::home() + u"/qt-week-pages.pdf"_s;
    invoicetest::writeInvoicePdf(paged, weekRows(), u"12:30:00"_s, u"$1,000.00"_s, 2);
    expectWeek(INVParsePDF(paged));
}

TEST(InvoicePDF, NamesWhyADocumentCannotBeRead)
{
    const QString folder = testenv::freshDir(u"folder"_s);
    const QString pipe = testenv::home() + u"/pipe.pdf"_s;
    ASSERT_EQ(mkfifo(QFile::encodeName(pipe).constData(), 0600), 0); // opening it would block for ever
    QFile week(fixture(u"week.pdf"_s));
    ASSERT_TRUE(week.open(QIODevice::ReadOnly));
    const QByteArray pdf = week.readAll();

    const QList<QPair<QString, QString>> cases = {
        {QString(), kNotAFile},
        {testenv::home() + u"/missing.pdf"_s, kNotAFile},
        {folder, kNotAFile},
        {pipe, kNotAFile},
        {writeFile(u"empty.pdf"_s, {}), kNotAPDF},
        {writeFile(u"notes.pdf"_s, "Design 1:00:00\nTotal 1:00:00\n"), kNotAPDF},
        {fixture(u"encrypted.pdf"_s), kNotAPDF},
        {fixture(u"scanned.pdf"_s), kNoText},
        {fixture(u"mismatch.pdf"_s), kNoTotal},
    };
    for (const auto &[path, message] : cases)
        EXPECT_EQ(problem(INVParsePDF(path)), message) << qPrintable(path);

    // A cut-off download may be repaired or refused, but it never passes for a whole invoice.
    for (const qsizetype length : {qsizetype(9), pdf.size() / 3, pdf.size() / 2, pdf.size() - 40}) {
        const QVariantMap result = INVParsePDF(writeFile(u"cut.pdf"_s, pdf.left(length)));
        EXPECT_TRUE(result.contains(u"problem"_s)) << length;
    }
}

TEST(InvoicePDF, SurvivesHostileDocuments)
{
    // A page tree that contains itself, a stream that claims far more than it holds, and random bytes after a
    // valid header.
    const QByteArray cycle = "%PDF-1.4\n1 0 obj <</Type/Catalog/Pages 2 0 R>> endobj\n"
                             "2 0 obj <</Type/Pages/Kids[2 0 R 3 0 R]/Count 2>> endobj\n"
                             "3 0 obj <</Type/Page/Parent 2 0 R/Contents 4 0 R>> endobj\n"
                             "4 0 obj <</Length 999999999>> stream\nBT (1:00:00) Tj ET\nendstream endobj\n"
                             "trailer <</Root 1 0 R/Size 5>>\n%%EOF\n";
    EXPECT_TRUE(INVParsePDF(writeFile(u"cycle.pdf"_s, cycle)).contains(u"problem"_s));
    QRandomGenerator random(77);
    for (int round = 0; round < 20; ++round) {
        QByteArray noise = "%PDF-1.7\n";
        for (int index = 0; index < 4096; ++index)
            noise += char(random.bounded(256));
        EXPECT_TRUE(INVParsePDF(writeFile(u"noise.pdf"_s, noise)).contains(u"problem"_s));
    }
}

TEST(InvoicePDF, ReadsAThousandPages)
{
    QList<invoicetest::Row> rows;
    for (int index = 0; index < 999; ++index)
        rows.append({u"Task %1"_s.arg(index % 50), {}, {}, u"0:01:00"_s, u"$1.00"_s});
    const QString path = testenv::home() + u"/thousand.pdf"_s;
    invoicetest::writeInvoicePdf(path, rows, u"16:39:00"_s, u"$999.00"_s, 1);
    const QVariantMap result = INVParsePDF(path);
    EXPECT_EQ(problem(result), QString());
    EXPECT_EQ(result.value(u"row_count"_s).toULongLong(), 999u);
    EXPECT_EQ(result.value(u"descriptions"_s).toStringList().size(), 50);
}

TEST(InvoiceCommand, PrintsTheInvoiceOrWhyNotWithItsStatus)
{
    auto run = [](const QString &path, int &status) {
        QProcess process;
        process.start(testenv::hourloomBinary(), {u"--invoice"_s, path});
        EXPECT_TRUE(process.waitForFinished(60000));
        status = process.exitCode();
        EXPECT_EQ(process.readAllStandardError(), QByteArray());
        return QString::fromUtf8(process.readAllStandardOutput());
    };
    int status = -1;
    EXPECT_EQ(run(fixture(u"week.pdf"_s), status),
        u"total     12:30:00  (12h 30m)\namount    1000.00\nrows      5\nunique    4\n\n"
        "ED-7 Sprint planning\nED-9 Fix login time-out\nED-12 Review release notes\n"
        "ED-101 Customer call about the 2.4 upgrade\n"_s);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(
        run(fixture(u"mismatch.pdf"_s), status), u"Could not read the invoice: "_s + kNoTotal + QLatin1Char('\n'));
    EXPECT_EQ(status, 1);
    EXPECT_EQ(run(testenv::home(), status), u"Could not read the invoice: "_s + kNotAFile + QLatin1Char('\n'));
    EXPECT_EQ(status, 1);
}
