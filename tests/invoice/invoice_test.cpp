#include "invoice/invoice.h"

#include <QCollator>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QtConcurrent>

#include <gtest/gtest.h>

namespace
{

const QString kNoText = QStringLiteral("The invoice has no text layer. A scanned or image-only PDF cannot be read.");
const QString kNoRows = QStringLiteral("No activity rows were found. The invoice layout may have changed.");
const QString kNoTotal = QStringLiteral("The activity rows do not add up to the invoice total, so the figures cannot "
                                        "be trusted. Nothing was extracted.");

QString problem(const QVariantMap &result)
{
    return result.value(QStringLiteral("problem")).toString();
}

QStringList descriptions(const QVariantMap &result)
{
    return result.value(QStringLiteral("descriptions")).toStringList();
}

struct TextCase {
    const char *name;
    QString text;
    QString problem; // empty: success
    qint64 totalSeconds = 0;
    double totalAmount = 0;
    qulonglong rowCount = 0;
    QStringList descriptions;
};

class ParseText : public ::testing::TestWithParam<TextCase>
{
};

} // namespace

TEST_P(ParseText, FindsRowsAndTheirTotalOrSaysWhyNot)
{
    const TextCase &c = GetParam();
    const QVariantMap result = INVParseText(c.text);
    if (!c.problem.isEmpty()) {
        EXPECT_EQ(result.size(), 3);
        EXPECT_EQ(problem(result), c.problem);
        EXPECT_EQ(result.value(QStringLiteral("row_count")).toULongLong(), 0u);
        EXPECT_TRUE(descriptions(result).isEmpty());
        return;
    }
    EXPECT_EQ(result.size(), 4);
    EXPECT_FALSE(result.contains(QStringLiteral("problem"))) << qPrintable(problem(result));
    EXPECT_EQ(result.value(QStringLiteral("total_seconds")).toLongLong(), c.totalSeconds);
    EXPECT_DOUBLE_EQ(result.value(QStringLiteral("total_amount")).toDouble(), c.totalAmount);
    EXPECT_EQ(result.value(QStringLiteral("row_count")).toULongLong(), c.rowCount);
    EXPECT_EQ(descriptions(result), c.descriptions);
}

INSTANTIATE_TEST_SUITE_P(Cases, ParseText,
    ::testing::Values(TextCase {"TwoRowsAndTheirTotal",
                          QStringLiteral("Alpha 1:00:00 $10.00\nBeta 1:00:00 $10.00\nTotal 2:00:00 $20.00"), {}, 7200,
                          20, 2, {QStringLiteral("Alpha"), QStringLiteral("Beta")}},
        TextCase {"SameNameTwiceIsOneDescription",
            QStringLiteral("Review 1:00:00 $1.00\nReview 0:30:00 $0.50\nTotal 1:30:00 $1.50"), {}, 5400, 1.5, 2,
            {QStringLiteral("Review")}},
        TextCase {"ThousandsSeparatorsInAmounts",
            QStringLiteral("Build 3:00:00 $ 1,234.50\nShip 1:00:00 $10.00\nTotal 4:00:00 $1,244.50"), {}, 14400, 1244.5,
            2, {QStringLiteral("Build"), QStringLiteral("Ship")}},
        TextCase {"TotalFirstStillFound",
            QStringLiteral("Total hours 3:00:00 $30.00\nItem 2 1:00:00 $10.00\nItem 10 2:00:00 $20.00"), {}, 10800, 30,
            2, {QStringLiteral("Item 2"), QStringLiteral("Item 10")}},
        TextCase {"HeadersAddressesPageNumbersDatesAndSharesAreNotNames",
            QStringLiteral("Invoice #13\nBilled to: a@b.example\nActivity  Share  Start date\n"
                           "ED-12   Review\t the   notes  18 %  23 Mar\n2:00:00 $80.00 $160.00\n 2 / 3 \n"
                           "Page 2\nED-7 Plan 5% 1:00:00 $80.00\nTotal 3:00:00 $240.00"),
            {}, 10800, 240, 2, {QStringLiteral("ED-7 Plan"), QStringLiteral("ED-12 Review the notes")}},
        TextCase {"ZeroRowsNeverTotal", QStringLiteral("A 0:00:00\nB 0:00:00\nC 0:00:00"), kNoTotal, 0, 0, 0, {}},
        TextCase {
            "OneMisreadRowRejectsAll", QStringLiteral("A 1:00:00\nB 1:00:01\nTotal 2:00:00"), kNoTotal, 0, 0, 0, {}},
        TextCase {"NoDurations", QStringLiteral("Invoice\nNothing tracked this week. $0.00"), kNoRows, 0, 0, 0, {}},
        TextCase {"OneDuration", QStringLiteral("Total 1:00:00"), kNoRows, 0, 0, 0, {}},
        TextCase {"MalformedDurationsAreNotRows", QStringLiteral("A 1:60:00 B 12345:00:00 C x1:00:00 D 1:00:001"),
            kNoRows, 0, 0, 0, {}},
        TextCase {"Empty", QString(), kNoText, 0, 0, 0, {}}),
    [](const ::testing::TestParamInfo<TextCase> &param) { return std::string(param.param.name); });

TEST(InvoiceDurations, ReadsTheFirstDurationAndFormatsSeconds)
{
    EXPECT_EQ(INVSeconds(QStringLiteral("took 1:02:03 and 4:00:00")), 3723);
    EXPECT_EQ(INVSeconds(QStringLiteral("9999:59:59")), 9999 * 3600 + 59 * 60 + 59);
    EXPECT_EQ(INVSeconds(QStringLiteral("\u0661:05:00")), 3900); // hours in Arabic-Indic digits
    for (const QString &none : {QStringLiteral(""), QStringLiteral("1:2:03"), QStringLiteral("1:00:60"),
             QStringLiteral("a1:00:00"), QStringLiteral("10000:00:00")})
        EXPECT_EQ(INVSeconds(none), -1) << qPrintable(none);

    EXPECT_EQ(INVFormatDuration(3723), QStringLiteral("1:02:03"));
    EXPECT_EQ(INVFormatDuration(0), QStringLiteral("0:00:00"));
    EXPECT_EQ(INVFormatDuration(36000000), QStringLiteral("10000:00:00"));
    EXPECT_EQ(INVFormatHoursMinutes(3723), QStringLiteral("1h 2m"));
    EXPECT_EQ(INVFormatHoursMinutes(59), QStringLiteral("0h 0m"));
    EXPECT_EQ(INVFormatHoursMinutes(45000), QStringLiteral("12h 30m"));
}

// The hand-written clean-ups must remove exactly what their patterns describe.
TEST(InvoiceNames, TrailingCleanUpsAgreeWithTheirPatterns)
{
    const QRegularExpression dayMonth(
        QStringLiteral(R"(\s*\d{1,2}\s+[A-Z][a-z]{2}\s*$)"), QRegularExpression::UseUnicodePropertiesOption);
    const QRegularExpression percentage(
        QStringLiteral(R"(\s*\d+\s*%\s*$)"), QRegularExpression::UseUnicodePropertiesOption);
    const QStringList alphabet = {QStringLiteral(" "), QStringLiteral("\t"), QStringLiteral("\u00a0"),
        QStringLiteral("1"), QStringLiteral("2"), QStringLiteral("\u0663"), QStringLiteral("%"), QStringLiteral("M"),
        QStringLiteral("a"), QStringLiteral("r"), QStringLiteral("x"), QStringLiteral("Mar"), QStringLiteral(" Mar"),
        QStringLiteral("12 "), QStringLiteral("5%")};
    QRandomGenerator random(20260323);
    for (int round = 0; round < 20000; ++round) {
        QString name;
        const int length = random.bounded(12);
        for (int index = 0; index < length; ++index)
            name += alphabet[random.bounded(alphabet.size())];
        ASSERT_EQ(invoice::removeTrailingDayMonth(name), QString(name).replace(dayMonth, QString()))
            << qPrintable(name);
        ASSERT_EQ(invoice::removeTrailingPercentage(name), QString(name).replace(percentage, QString()))
            << qPrintable(name);
    }
}

// Invoices made from random rows with a correct total are read back exactly; random text never breaks the
// reader and always gives a well-formed result.
TEST(InvoiceFuzz, ReadsGeneratedInvoicesAndSurvivesNoise)
{
    QRandomGenerator random(1013);
    const QStringList words = {QStringLiteral("Review"), QStringLiteral("ED-12"), QStringLiteral("Plan"),
        QStringLiteral("call"), QStringLiteral("Fix"), QStringLiteral("ED-7"), QStringLiteral("notes"),
        QStringLiteral("v2.4"), QStringLiteral("Überblick"), QStringLiteral("🙂")};
    for (int round = 0; round < 300; ++round) {
        QString text = QStringLiteral("Invoice\nActivity  Total hours  Amount\n");
        QStringList names;
        qint64 sum = 0;
        const int rows = 2 + random.bounded(12); // one row would equal the total and be taken for it
        for (int row = 0; row < rows; ++row) {
            QString name = words[random.bounded(words.size())] + QLatin1Char(' ') + words[random.bounded(words.size())];
            const qint64 seconds = 1 + random.bounded(40000);
            sum += seconds;
            names.append(name);
            text += name + QStringLiteral("\n%1%  %2 Mar\n").arg(random.bounded(100)).arg(1 + random.bounded(28))
                + INVFormatDuration(seconds) + QStringLiteral(" $80.00 $%1.00\n").arg(seconds);
        }
        text += QStringLiteral("Total ") + INVFormatDuration(sum) + QStringLiteral(" $%1.00\n1 / 1\n").arg(sum);
        const QVariantMap result = INVParseText(text);
        ASSERT_FALSE(result.contains(QStringLiteral("problem"))) << qPrintable(text);
        EXPECT_EQ(result.value(QStringLiteral("total_seconds")).toLongLong(), sum);
        EXPECT_EQ(result.value(QStringLiteral("row_count")).toULongLong(), qulonglong(rows));
        names.removeDuplicates();
        QCollator collator(QLocale(QLocale::English, QLocale::UnitedStates));
        collator.setNumericMode(true);
        collator.setCaseSensitivity(Qt::CaseInsensitive);
        std::sort(names.begin(), names.end(), [&](const QString &a, const QString &b) { return collator(a, b); });
        EXPECT_EQ(descriptions(result), names);
    }

    const QStringList tokens = {QStringLiteral("1:00:00"), QStringLiteral("0:00:00"), QStringLiteral("12:30:00"),
        QStringLiteral("$1,000.00"), QStringLiteral("$"), QStringLiteral("\n"), QStringLiteral(" "),
        QStringLiteral("Total"), QStringLiteral("a@b"), QStringLiteral("7"), QStringLiteral("%"), QStringLiteral("Mar"),
        QStringLiteral(":"), QStringLiteral("\u00a0"), QStringLiteral("\u0000"), QStringLiteral("\xd83d"),
        QStringLiteral("Réview")};
    for (int round = 0; round < 3000; ++round) {
        QString text;
        const int length = random.bounded(60);
        for (int index = 0; index < length; ++index)
            text += tokens[random.bounded(tokens.size())];
        const QVariantMap result = INVParseText(text);
        if (result.contains(QStringLiteral("problem"))) {
            ASSERT_TRUE(QStringList({kNoText, kNoRows, kNoTotal}).contains(problem(result)));
            ASSERT_EQ(result.size(), 3);
        } else {
            ASSERT_EQ(result.size(), 4);
            ASSERT_GE(result.value(QStringLiteral("total_seconds")).toLongLong(), 1);
            const QStringList found = descriptions(result);
            ASSERT_EQ(QSet<QString>(found.begin(), found.end()).size(), found.size());
            ASSERT_FALSE(found.contains(QString()));
        }
    }
}

TEST(InvoiceLimits, AMegabyteLineIsReadInOnePass)
{
    // Blank and digit runs are where a backtracking pattern would take quadratic time.
    const QString blanks(1 << 20, QLatin1Char(' '));
    const QString digits(1 << 20, QLatin1Char('7'));
    EXPECT_EQ(problem(INVParseText(QStringLiteral("A") + blanks + QStringLiteral("1 Mar"))), kNoRows);
    EXPECT_EQ(problem(INVParseText(QStringLiteral("A ") + digits + QStringLiteral(" x 1:00:00 ") + digits
                  + QStringLiteral("$") + digits + QStringLiteral("\nTotal 1:00:00"))),
        QString());
    const QVariantMap spaced = INVParseText(QStringLiteral("Long") + blanks + QStringLiteral("name") + blanks
        + QStringLiteral("12 % ") + blanks + QStringLiteral("1:00:00 $1.00\nB 1:00:00\nTotal 2:00:00 $1.00"));
    EXPECT_EQ(descriptions(spaced), (QStringList {QStringLiteral("B"), QStringLiteral("Long name")}));

    QString rows;
    for (int index = 0; index < 100000; ++index)
        rows += QStringLiteral("r 0:00:01 ");
    rows += QStringLiteral("Total 27:46:40");
    const QVariantMap many = INVParseText(rows);
    EXPECT_EQ(many.value(QStringLiteral("row_count")).toULongLong(), 100000u);
    EXPECT_EQ(descriptions(many), QStringList {QStringLiteral("r")});
}

TEST(InvoiceThreads, ParsesFromManyThreadsAtOnce)
{
    const QString text = QStringLiteral("B 1:00:00 $1.00\nA 2:00:00 $2.00\nTotal 3:00:00 $3.00");
    const QVariantMap expected = INVParseText(text);
    QList<QString> inputs(64, text);
    const QList<QVariantMap> results
        = QtConcurrent::blockingMapped(inputs, [](const QString &t) { return INVParseText(t); });
    for (const QVariantMap &result : results)
        EXPECT_EQ(result, expected);
}
