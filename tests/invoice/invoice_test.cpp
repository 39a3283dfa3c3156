#include "invoice/invoice.h"

#include <QCollator>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QtConcurrent>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace
{

const QString kNoText = u"The invoice has no text layer. A scanned or image-only PDF cannot be read."_s;
const QString kNoRows = u"No activity rows were found. The invoice layout may have changed."_s;
const QString kNoTotal = u"The activity rows do not add up to the invoice total, so the figures cannot "
                         "be trusted. Nothing was extracted."_s;

QString problem(const QVariantMap &result)
{
    return result.value(u"problem"_s).toString();
}

QStringList descriptions(const QVariantMap &result)
{
    return result.value(u"descriptions"_s).toStringList();
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
        EXPECT_EQ(result.value(u"row_count"_s).toULongLong(), 0u);
        EXPECT_TRUE(descriptions(result).isEmpty());
        return;
    }
    EXPECT_EQ(result.size(), 4);
    EXPECT_FALSE(result.contains(u"problem"_s)) << qPrintable(problem(result));
    EXPECT_EQ(result.value(u"total_seconds"_s).toLongLong(), c.totalSeconds);
    EXPECT_DOUBLE_EQ(result.value(u"total_amount"_s).toDouble(), c.totalAmount);
    EXPECT_EQ(result.value(u"row_count"_s).toULongLong(), c.rowCount);
    EXPECT_EQ(descriptions(result), c.descriptions);
}

INSTANTIATE_TEST_SUITE_P(Cases, ParseText,
    ::testing::Values(
        TextCase {"TwoRowsAndTheirTotal", u"Alpha 1:00:00 $10.00\nBeta 1:00:00 $10.00\nTotal 2:00:00 $20.00"_s, {},
            7200, 20, 2, {u"Alpha"_s, u"Beta"_s}},
        TextCase {"SameNameTwiceIsOneDescription", u"Review 1:00:00 $1.00\nReview 0:30:00 $0.50\nTotal 1:30:00 $1.50"_s,
            {}, 5400, 1.5, 2, {u"Review"_s}},
        TextCase {"ThousandsSeparatorsInAmounts",
            u"Build 3:00:00 $ 1,234.50\nShip 1:00:00 $10.00\nTotal 4:00:00 $1,244.50"_s, {}, 14400, 1244.5, 2,
            {u"Build"_s, u"Ship"_s}},
        TextCase {"TotalFirstStillFound",
            u"Total hours 3:00:00 $30.00\nItem 2 1:00:00 $10.00\nItem 10 2:00:00 $20.00"_s, {}, 10800, 30, 2,
            {u"Item 2"_s, u"Item 10"_s}},
        TextCase {"HeadersAddressesPageNumbersDatesAndSharesAreNotNames",
            u"Invoice #13\nBilled to: a@b.example\nActivity  Share  Start date\n"
            "ED-12   Review\t the   notes  18 %  23 Mar\n2:00:00 $80.00 $160.00\n 2 / 3 \n"
            "Page 2\nED-7 Plan 5% 1:00:00 $80.00\nTotal 3:00:00 $240.00"_s,
            {}, 10800, 240, 2, {u"ED-7 Plan"_s, u"ED-12 Review the notes"_s}},
        TextCase {"ZeroRowsNeverTotal", u"A 0:00:00\nB 0:00:00\nC 0:00:00"_s, kNoTotal, 0, 0, 0, {}},
        TextCase {"OneMisreadRowRejectsAll", u"A 1:00:00\nB 1:00:01\nTotal 2:00:00"_s, kNoTotal, 0, 0, 0, {}},
        TextCase {"NoDurations", u"Invoice\nNothing tracked this week. $0.00"_s, kNoRows, 0, 0, 0, {}},
        TextCase {"OneDuration", u"Total 1:00:00"_s, kNoRows, 0, 0, 0, {}},
        TextCase {
            "MalformedDurationsAreNotRows", u"A 1:60:00 B 12345:00:00 C x1:00:00 D 1:00:001"_s, kNoRows, 0, 0, 0, {}},
        TextCase {"Empty", QString(), kNoText, 0, 0, 0, {}}),
    [](const ::testing::TestParamInfo<TextCase> &param) { return std::string(param.param.name); });

TEST(InvoiceDurations, ReadsTheFirstDurationAndFormatsSeconds)
{
    EXPECT_EQ(INVSeconds(u"took 1:02:03 and 4:00:00"_s), 3723);
    EXPECT_EQ(INVSeconds(u"9999:59:59"_s), 9999 * 3600 + 59 * 60 + 59);
    EXPECT_EQ(INVSeconds(u"\u0661:05:00"_s), 3900); // hours in Arabic-Indic digits
    for (const QString &none : {u""_s, u"1:2:03"_s, u"1:00:60"_s, u"a1:00:00"_s, u"10000:00:00"_s})
        EXPECT_EQ(INVSeconds(none), -1) << qPrintable(none);

    EXPECT_EQ(INVFormatDuration(3723), u"1:02:03"_s);
    EXPECT_EQ(INVFormatDuration(0), u"0:00:00"_s);
    EXPECT_EQ(INVFormatDuration(36000000), u"10000:00:00"_s);
    EXPECT_EQ(INVFormatHoursMinutes(3723), u"1h 2m"_s);
    EXPECT_EQ(INVFormatHoursMinutes(59), u"0h 0m"_s);
    EXPECT_EQ(INVFormatHoursMinutes(45000), u"12h 30m"_s);
}

// The hand-written clean-ups must remove exactly what their patterns describe.
TEST(InvoiceNames, TrailingCleanUpsAgreeWithTheirPatterns)
{
    const QRegularExpression dayMonth(
        uR"(\s*\d{1,2}\s+[A-Z][a-z]{2}\s*$)"_s, QRegularExpression::UseUnicodePropertiesOption);
    const QRegularExpression percentage(uR"(\s*\d+\s*%\s*$)"_s, QRegularExpression::UseUnicodePropertiesOption);
    const QStringList alphabet = {u" "_s, u"\t"_s, u"\u00a0"_s, u"1"_s, u"2"_s, u"\u0663"_s, u"%"_s, u"M"_s, u"a"_s,
        u"r"_s, u"x"_s, u"Mar"_s, u" Mar"_s, u"12 "_s, u"5%"_s};
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
    const QStringList words = {u"Review"_s, u"ED-12"_s, u"Plan"_s, u"call"_s, u"Fix"_s, u"ED-7"_s, u"notes"_s,
        u"v2.4"_s, u"Überblick"_s, u"🙂"_s};
    for (int round = 0; round < 300; ++round) {
        QString text = u"Invoice\nActivity  Total hours  Amount\n"_s;
        QStringList names;
        qint64 sum = 0;
        const int rows = 2 + random.bounded(12); // one row would equal the total and be taken for it
        for (int row = 0; row < rows; ++row) {
            QString name = words[random.bounded(words.size())] + QLatin1Char(' ') + words[random.bounded(words.size())];
            const qint64 seconds = 1 + random.bounded(40000);
            sum += seconds;
            names.append(name);
            text += name + u"\n%1%  %2 Mar\n"_s.arg(random.bounded(100)).arg(1 + random.bounded(28))
                + INVFormatDuration(seconds) + u" $80.00 $%1.00\n"_s.arg(seconds);
        }
        text += u"Total "_s + INVFormatDuration(sum) + u" $%1.00\n1 / 1\n"_s.arg(sum);
        const QVariantMap result = INVParseText(text);
        ASSERT_FALSE(result.contains(u"problem"_s)) << qPrintable(text);
        EXPECT_EQ(result.value(u"total_seconds"_s).toLongLong(), sum);
        EXPECT_EQ(result.value(u"row_count"_s).toULongLong(), qulonglong(rows));
        names.removeDuplicates();
        QCollator collator(QLocale(QLocale::English, QLocale::UnitedStates));
        collator.setNumericMode(true);
        collator.setCaseSensitivity(Qt::CaseInsensitive);
        std::sort(names.begin(), names.end(), [&](const QString &a, const QString &b) { return collator(a, b); });
        EXPECT_EQ(descriptions(result), names);
    }

    const QStringList tokens = {u"1:00:00"_s, u"0:00:00"_s, u"12:30:00"_s, u"$1,000.00"_s, u"$"_s, u"\n"_s, u" "_s,
        u"Total"_s, u"a@b"_s, u"7"_s, u"%"_s, u"Mar"_s, u":"_s, u"\u00a0"_s, u"\u0000"_s, u"\xd83d"_s, u"Réview"_s};
    for (int round = 0; round < 3000; ++round) {
        QString text;
        const int length = random.bounded(60);
        for (int index = 0; index < length; ++index)
            text += tokens[random.bounded(tokens.size())];
        const QVariantMap result = INVParseText(text);
        if (result.contains(u"problem"_s)) {
            ASSERT_TRUE(QStringList({kNoText, kNoRows, kNoTotal}).contains(problem(result)));
            ASSERT_EQ(result.size(), 3);
        } else {
            ASSERT_EQ(result.size(), 4);
            ASSERT_GE(result.value(u"total_seconds"_s).toLongLong(), 1);
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
    EXPECT_EQ(problem(INVParseText(u"A"_s + blanks + u"1 Mar"_s)), kNoRows);
    EXPECT_EQ(
        problem(INVParseText(u"A "_s + digits + u" x 1:00:00 "_s + digits + u"$"_s + digits + u"\nTotal 1:00:00"_s)),
        QString());
    const QVariantMap spaced = INVParseText(u"Long"_s + blanks + u"name"_s + blanks + u"12 % "_s + blanks
        + u"1:00:00 $1.00\nB 1:00:00\nTotal 2:00:00 $1.00"_s);
    EXPECT_EQ(descriptions(spaced), (QStringList {u"B"_s, u"Long name"_s}));

    QString rows;
    for (int index = 0; index < 100000; ++index)
        rows += u"r 0:00:01 "_s;
    rows += u"Total 27:46:40"_s;
    const QVariantMap many = INVParseText(rows);
    EXPECT_EQ(many.value(u"row_count"_s).toULongLong(), 100000u);
    EXPECT_EQ(descriptions(many), QStringList {u"r"_s});
}

TEST(InvoiceThreads, ParsesFromManyThreadsAtOnce)
{
    const QString text = u"B 1:00:00 $1.00\nA 2:00:00 $2.00\nTotal 3:00:00 $3.00"_s;
    const QVariantMap expected = INVParseText(text);
    QList<QString> inputs(64, text);
    const QList<QVariantMap> results
        = QtConcurrent::blockingMapped(inputs, [](const QString &t) { return INVParseText(t); });
    for (const QVariantMap &result : results)
        EXPECT_EQ(result, expected);
}
