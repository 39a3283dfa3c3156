#include "invoice/invoice.h"

#include "invoicefixtures.h"
#include "support/testenv.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace
{

const QString kNotAFile = QStringLiteral("That is not a regular file, so it cannot be read as a PDF.");
const QString kNotAPDF = QStringLiteral("That file could not be opened as a PDF.");
const QString kNoText = QStringLiteral("The invoice has no text layer. A scanned or image-only PDF cannot be read.");
const QString kNoTotal = QStringLiteral("The activity rows do not add up to the invoice total, so the figures cannot "
                                        "be trusted. Nothing was extracted.");

const QStringList kWeekDescriptions
    = {QStringLiteral("ED-7 Sprint planning"), QStringLiteral("ED-9 Fix login time-out"),
        QStringLiteral("ED-12 Review release notes"), QStringLiteral("ED-101 Customer call about the 2.4 upgrade")};

QString fixture(const QString &name)
{
    return testenv::dataPath(QStringLiteral("invoices/") + name);
}

QString problem(const QVariantMap &result)
{
    return result.value(QStringLiteral("problem")).toString();
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
    return {{QStringLiteral("ED-12 Review release notes"), QStringLiteral("18%"), QStringLiteral("23 Mar"),
                QStringLiteral("2:15:00"), QStringLiteral("$180.00")},
        {QStringLiteral("ED-7 Sprint planning"), QStringLiteral("8%"), QStringLiteral("23 Mar"),
            QStringLiteral("1:00:00"), QStringLiteral("$80.00")},
        {QStringLiteral("ED-101 Customer call about the 2.4 upgrade"), QStringLiteral("12%"), QStringLiteral("24 Mar"),
            QStringLiteral("1:30:00"), QStringLiteral("$120.00")},
        {QStringLiteral("ED-12 Review release notes"), QStringLiteral("20%"), QStringLiteral("25 Mar"),
            QStringLiteral("2:30:00"), QStringLiteral("$200.00")},
        {QStringLiteral("ED-9 Fix login time-out"), QStringLiteral("42%"), QStringLiteral("26 Mar"),
            QStringLiteral("5:15:00"), QStringLiteral("$420.00")}};
}

void expectWeek(const QVariantMap &result)
{
    EXPECT_EQ(problem(result), QString());
    EXPECT_EQ(result.value(QStringLiteral("total_seconds")).toLongLong(), 45000);
    EXPECT_DOUBLE_EQ(result.value(QStringLiteral("total_amount")).toDouble(), 1000.0);
    EXPECT_EQ(result.value(QStringLiteral("row_count")).toULongLong(), 5u);
    EXPECT_EQ(result.value(QStringLiteral("descriptions")).toStringList(), kWeekDescriptions);
}

} // namespace

// Two independent producers (ReportLab's fixtures and Qt's writer) give the same reading.
TEST(InvoicePDF, ReadsTheSameWeekFromEitherProducer)
{
    expectWeek(INVParsePDF(fixture(QStringLiteral("week.pdf"))));
    expectWeek(INVParsePDF(fixture(QStringLiteral("week-pages.pdf"))));
    const QVariantMap month = INVParsePDF(fixture(QStringLiteral("month-20-pages.pdf")));
    EXPECT_EQ(month.value(QStringLiteral("total_seconds")).toLongLong(), 342 * 3600 + 45 * 60);
    EXPECT_EQ(month.value(QStringLiteral("row_count")).toULongLong(), 600u);
    EXPECT_EQ(month.value(QStringLiteral("descriptions")).toStringList().size(), 60);

    const QString written = testenv::home() + QStringLiteral("/qt-week.pdf");
    invoicetest::writeInvoicePdf(written, weekRows(), QStringLiteral("12:30:00"), QStringLiteral("$1,000.00"));
    expectWeek(INVParsePDF(written));
    const QString paged = testenv::home() + QStringLiteral("/qt-week-pages.pdf");
    invoicetest::writeInvoicePdf(paged, weekRows(), QStringLiteral("12:30:00"), QStringLiteral("$1,000.00"), 2);
    expectWeek(INVParsePDF(paged));
}

TEST(InvoicePDF, NamesWhyADocumentCannotBeRead)
{
    const QString folder = testenv::freshDir(QStringLiteral("folder"));
    const QString pipe = testenv::home() + QStringLiteral("/pipe.pdf");
    ASSERT_EQ(mkfifo(QFile::encodeName(pipe).constData(), 0600), 0); // opening it would block for ever
    QFile week(fixture(QStringLiteral("week.pdf")));
    ASSERT_TRUE(week.open(QIODevice::ReadOnly));
    const QByteArray pdf = week.readAll();

    const QList<QPair<QString, QString>> cases = {
        {QString(), kNotAFile},
        {testenv::home() + QStringLiteral("/missing.pdf"), kNotAFile},
        {folder, kNotAFile},
        {pipe, kNotAFile},
        {writeFile(QStringLiteral("empty.pdf"), {}), kNotAPDF},
        {writeFile(QStringLiteral("notes.pdf"), "Design 1:00:00\nTotal 1:00:00\n"), kNotAPDF},
        {fixture(QStringLiteral("encrypted.pdf")), kNotAPDF},
        {fixture(QStringLiteral("scanned.pdf")), kNoText},
        {fixture(QStringLiteral("mismatch.pdf")), kNoTotal},
    };
    for (const auto &[path, message] : cases)
        EXPECT_EQ(problem(INVParsePDF(path)), message) << qPrintable(path);

    // A cut-off download may be repaired or refused, but it never passes for a whole invoice.
    for (const qsizetype length : {qsizetype(9), pdf.size() / 3, pdf.size() / 2, pdf.size() - 40}) {
        const QVariantMap result = INVParsePDF(writeFile(QStringLiteral("cut.pdf"), pdf.left(length)));
        EXPECT_TRUE(result.contains(QStringLiteral("problem"))) << length;
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
    EXPECT_TRUE(INVParsePDF(writeFile(QStringLiteral("cycle.pdf"), cycle)).contains(QStringLiteral("problem")));
    QRandomGenerator random(77);
    for (int round = 0; round < 20; ++round) {
        QByteArray noise = "%PDF-1.7\n";
        for (int index = 0; index < 4096; ++index)
            noise += char(random.bounded(256));
        EXPECT_TRUE(INVParsePDF(writeFile(QStringLiteral("noise.pdf"), noise)).contains(QStringLiteral("problem")));
    }
}

TEST(InvoicePDF, ReadsAThousandPages)
{
    QList<invoicetest::Row> rows;
    for (int index = 0; index < 999; ++index)
        rows.append(
            {QStringLiteral("Task %1").arg(index % 50), {}, {}, QStringLiteral("0:01:00"), QStringLiteral("$1.00")});
    const QString path = testenv::home() + QStringLiteral("/thousand.pdf");
    invoicetest::writeInvoicePdf(path, rows, QStringLiteral("16:39:00"), QStringLiteral("$999.00"), 1);
    const QVariantMap result = INVParsePDF(path);
    EXPECT_EQ(problem(result), QString());
    EXPECT_EQ(result.value(QStringLiteral("row_count")).toULongLong(), 999u);
    EXPECT_EQ(result.value(QStringLiteral("descriptions")).toStringList().size(), 50);
}

TEST(InvoiceCommand, PrintsTheInvoiceOrWhyNotWithItsStatus)
{
    auto run = [](const QString &path, int &status) {
        QProcess process;
        process.start(testenv::hourloomBinary(), {QStringLiteral("--invoice"), path});
        EXPECT_TRUE(process.waitForFinished(60000));
        status = process.exitCode();
        EXPECT_EQ(process.readAllStandardError(), QByteArray());
        return QString::fromUtf8(process.readAllStandardOutput());
    };
    int status = -1;
    EXPECT_EQ(run(fixture(QStringLiteral("week.pdf")), status),
        QStringLiteral("total     12:30:00  (12h 30m)\namount    1000.00\nrows      5\nunique    4\n\n"
                       "ED-7 Sprint planning\nED-9 Fix login time-out\nED-12 Review release notes\n"
                       "ED-101 Customer call about the 2.4 upgrade\n"));
    EXPECT_EQ(status, 0);
    EXPECT_EQ(run(fixture(QStringLiteral("mismatch.pdf")), status),
        QStringLiteral("Could not read the invoice: ") + kNoTotal + QLatin1Char('\n'));
    EXPECT_EQ(status, 1);
    EXPECT_EQ(
        run(testenv::home(), status), QStringLiteral("Could not read the invoice: ") + kNotAFile + QLatin1Char('\n'));
    EXPECT_EQ(status, 1);
}
