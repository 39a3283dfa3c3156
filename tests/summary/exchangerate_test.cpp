#include "summary/exchangerate.h"

#include "platform/clock.h"

#include "standin/server.h"

#include <QDate>
#include <QSettings>
#include <QSignalSpy>
#include <QTimeZone>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace
{

const QString kKey = u"ExchangeRate.USD.EUR"_s;

QVariantMap answer(
    const QString &date, const QVariant &rate, const QString &base = u"USD"_s, const QString &quote = u"EUR"_s)
{
    return {{u"date"_s, date}, {u"base"_s, base}, {u"quote"_s, quote}, {u"rate"_s, rate}};
}

QString today()
{
    return QDateTime::currentDateTimeUtc().date().toString(Qt::ISODate);
}

class ExchangeRateTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_server.start()) << qPrintable(m_server.errorString());
        qputenv("HOURLOOM_TEST_CA_FILE", m_server.caFile().toLocal8Bit());
        qputenv("HOURLOOM_TEST_RATE_BASE", m_server.origin().toUtf8());
        m_server.setRate(u"USD"_s, u"EUR"_s, 0.9, QDate::currentDate().addDays(-3));
        QSettings settings;
        settings.clear();
        settings.setValue(u"ConvertEarnings"_s, true);
        settings.setValue(u"HourlyRate"_s, u"45"_s);
        m_now = QDateTime::currentDateTimeUtc();
        m_rates = std::make_unique<ExchangeRate>(&m_clock);
    }
    void TearDown() override
    {
        m_rates.reset();
        m_server.stop();
        qunsetenv("HOURLOOM_TEST_RATE_BASE");
    }

    int rateRequests() const { return int(m_server.requests(u"GET"_s, u"^/v2/rate/"_s).size()); }

    // Refreshes and waits for the outcome; false when nothing was fetched.
    bool refreshAndWait(bool force)
    {
        QSignalSpy changed(m_rates.get(), &ExchangeRate::summaryChanged);
        m_rates->refresh(force);
        if (!m_rates->isFetching())
            return false;
        EXPECT_TRUE(changed.wait(30000));
        EXPECT_FALSE(m_rates->isFetching());
        return true;
    }

    QVariantMap cached() const { return QSettings().value(kKey).toMap(); }

    standin::Server m_server;
    QDateTime m_now;
    // A clock that reads m_now.
    struct FixtureClock : Clock {
        const QDateTime &now;
        explicit FixtureClock(const QDateTime &time)
            : now(time)
        {
        }
        QDateTime wallNow() const override { return now; }
        qint64 monotonicMs() const override { return 0; }
    } m_clock {m_now};
    std::unique_ptr<ExchangeRate> m_rates;
};

} // namespace

TEST(ExchangeRateValidation, AcceptsOnlyAStrictDateAPositiveRateAndTheRequestedPair)
{
    const QString usd = u"USD"_s;
    const QString eur = u"EUR"_s;
    EXPECT_TRUE(ExchangeRate::validResponse(answer(today(), 0.9), usd, eur));
    EXPECT_TRUE(ExchangeRate::validResponse(answer(u"1999-01-04"_s, 1), usd, eur)); // no lower bound
    // The check reads the real clock: a case whose UTC day changed while it ran is asked again.
    const auto validDaysAhead = [&](int days) {
        for (;;) {
            const QDate before = QDateTime::currentDateTimeUtc().date();
            const bool valid
                = ExchangeRate::validResponse(answer(before.addDays(days).toString(Qt::ISODate), 0.9), usd, eur);
            if (QDateTime::currentDateTimeUtc().date() == before)
                return valid;
        }
    };
    EXPECT_TRUE(validDaysAhead(1)); // tomorrow in UTC starts within a day
    EXPECT_FALSE(validDaysAhead(2));

    const QList<QPair<const char *, QVariant>> rejected = {
        {"rate 0", answer(today(), 0)},
        {"negative rate", answer(today(), -0.9)},
        {"rate as text", answer(today(), u"0.9"_s)},
        {"rate as boolean", answer(today(), true)},
        {"infinite rate", answer(today(), qInf())},
        {"unpadded date", answer(u"2024-2-1"_s, 0.9)},
        {"impossible date", answer(u"2024-02-30"_s, 0.9)},
        {"date with a time", answer(u"2024-02-01T00:00"_s, 0.9)},
        {"other base", answer(today(), 0.9, u"GBP"_s)},
        {"other quote", answer(today(), 0.9, u"USD"_s, u"CHF"_s)},
        {"lower-case base", answer(today(), 0.9, u"usd"_s)},
        {"no date", QVariantMap {{u"base"_s, usd}, {u"quote"_s, eur}, {u"rate"_s, 1}}},
        {"an array", QVariantList {answer(today(), 0.9)}},
        {"nothing", QVariant()},
    };
    for (const auto &[name, value] : rejected)
        EXPECT_FALSE(ExchangeRate::validResponse(value, usd, eur)) << name;
}

TEST_F(ExchangeRateTest, CachesTheECBRateAndConvertsInDecimal)
{
    EXPECT_EQ(m_rates->conversionForSeconds(3600), u" · conversion unavailable"_s);
    ASSERT_TRUE(refreshAndWait(false));

    const auto requests = m_server.requests(u"GET"_s, u"^/v2/rate/"_s);
    ASSERT_EQ(requests.size(), 1);
    EXPECT_EQ(requests[0].path, u"/v2/rate/USD/EUR"_s);
    EXPECT_EQ(requests[0].query, u"providers=ECB"_s);
    const QVariantMap stored = cached();
    EXPECT_EQ(stored.value(u"provider"_s).toString(), u"ECB"_s);
    EXPECT_EQ(stored.value(u"checked"_s).toDateTime(), m_now);
    EXPECT_DOUBLE_EQ(stored.value(u"rate"_s).toDouble(), 0.9);

    // 45/h for 1 h 6 min at 0.9: 44.55 exactly, where binary floating point would give 44.549999….
    EXPECT_EQ(m_rates->conversionForSeconds(3960), u" ≈ €44.55"_s);
    EXPECT_TRUE(m_rates->rateDetails().startsWith(u"1 USD = 0.9 EUR · ECB reference rate of "_s))
        << qPrintable(m_rates->rateDetails());
}

TEST_F(ExchangeRateTest, FallsBackOnceToTheBlendedRateWhenTheECBHasNone)
{
    m_server.addFault(
        standin::Fault::statusReply(u"GET"_s, u"^/v2/rate/"_s, 404, R"({"status":404,"message":"not found"})"));
    ASSERT_TRUE(refreshAndWait(false));
    const auto requests = m_server.requests(u"GET"_s, u"^/v2/rate/"_s);
    ASSERT_EQ(requests.size(), 2);
    EXPECT_EQ(requests[0].query, u"providers=ECB"_s);
    EXPECT_EQ(requests[1].query, QString());
    EXPECT_EQ(cached().value(u"provider"_s), QString());
    EXPECT_TRUE(ExchangeRate::validResponse(cached(), u"USD"_s, u"EUR"_s));

    // A second 404 is not retried again.
    m_server.clearRequests();
    m_server.addFault(standin::Fault::statusReply(u"GET"_s, u"^/v2/rate/"_s, 404, "{}", {}, 2));
    ASSERT_TRUE(refreshAndWait(true));
    EXPECT_EQ(rateRequests(), 2);
}

TEST_F(ExchangeRateTest, KeepsTheLastGoodRateWhenAnAnswerIsRefused)
{
    const QVariantMap old = answer(u"2026-01-02"_s, 0.5);
    QVariantMap seeded = old;
    seeded.insert(u"checked"_s, m_now.addDays(-3));
    seeded.insert(u"provider"_s, u"ECB"_s);
    QSettings().setValue(kKey, seeded);

    // A body of exactly the limit is read; one byte more is refused unread.
    const QByteArray json = R"({"date":"2026-01-05","base":"USD","quote":"EUR","rate":0.8})";
    const QByteArray atLimit = json + QByteArray(ExchangeRate::kMaxBodyBytes - json.size(), ' ');
    const QByteArray overLimit = atLimit + ' ';
    const QString path = u"^/v2/rate/"_s;
    const QString get = u"GET"_s;
    const QList<QPair<const char *, standin::Fault>> refused = {
        {"16385-byte body", standin::Fault::statusReply(get, path, 200, overLimit)},
        {"redirect", standin::Fault::redirect(get, path, m_server.origin() + u"/v2/rate/USD/EUR"_s)},
        {"server error", standin::Fault::serviceUnavailable(get, path)},
        {"not JSON", standin::Fault::statusReply(get, path, 200, "<html>rate</html>")},
        {"rate of zero",
            standin::Fault::statusReply(
                get, path, 200, R"({"date":"2026-01-05","base":"USD","quote":"EUR","rate":0})")},
        {"dropped connection", standin::Fault::drop(get, path)},
    };
    for (const auto &[name, fault] : refused) {
        m_server.clearRequests();
        m_server.addFault(fault);
        ASSERT_TRUE(refreshAndWait(true)) << name;
        EXPECT_EQ(rateRequests(), 1) << name; // a redirect is an answer, never followed
        EXPECT_EQ(cached(), seeded) << name;
        EXPECT_EQ(m_rates->conversionForSeconds(3600), u" ≈ €22.50"_s) << name;
    }

    m_server.addFault(standin::Fault::statusReply(get, path, 200, atLimit));
    ASSERT_TRUE(refreshAndWait(true));
    EXPECT_EQ(cached().value(u"date"_s).toString(), u"2026-01-05"_s);
    EXPECT_EQ(m_rates->conversionForSeconds(3600), u" ≈ €36.00"_s);
}

TEST_F(ExchangeRateTest, ShowsLoadingWhileASlowAnswerIsOnItsWay)
{
    m_server.addFault(standin::Fault::slow(u"GET"_s, u"^/v2/rate/"_s, 1500));
    QSignalSpy changed(m_rates.get(), &ExchangeRate::summaryChanged);
    m_rates->refresh(false);
    ASSERT_TRUE(m_rates->isFetching());
    EXPECT_EQ(m_rates->conversionForSeconds(3600), u" · conversion loading…"_s);
    EXPECT_TRUE(m_rates->rateDetails().startsWith(u"Loading"_s));
    m_rates->refresh(true); // one fetch at a time, even when forced
    ASSERT_TRUE(changed.wait(30000));
    EXPECT_EQ(changed.count(), 1);
    EXPECT_EQ(rateRequests(), 1);
    EXPECT_EQ(m_rates->conversionForSeconds(3600), u" ≈ €40.50"_s);
}

TEST_F(ExchangeRateTest, FetchesDailyAndRetriesFailuresHourly)
{
    // A failure blocks automatic attempts for an hour; a forced refresh ignores that.
    m_server.addFault(standin::Fault::serviceUnavailable(u"GET"_s, u"^/v2/rate/"_s));
    ASSERT_TRUE(refreshAndWait(false));
    m_now = m_now.addSecs(3600);
    EXPECT_FALSE(refreshAndWait(false));
    EXPECT_EQ(rateRequests(), 1);
    EXPECT_TRUE(m_rates->rateDetails().contains(u"could not be loaded"_s));
    m_now = m_now.addSecs(1);
    ASSERT_TRUE(refreshAndWait(false));
    EXPECT_EQ(rateRequests(), 2);

    // A good answer lasts a day.
    const QDateTime checked = m_now;
    m_now = checked.addSecs(86400);
    EXPECT_FALSE(refreshAndWait(false));
    m_now = checked.addSecs(86401);
    ASSERT_TRUE(refreshAndWait(false));
    EXPECT_EQ(rateRequests(), 3);
    EXPECT_EQ(cached().value(u"checked"_s).toDateTime(), m_now);
    ASSERT_TRUE(refreshAndWait(true));
    EXPECT_EQ(rateRequests(), 4);
}

TEST_F(ExchangeRateTest, FetchesNothingWhenConversionCannotBeShown)
{
    QSettings settings;
    const QList<QPair<QString, QVariant>> blocking
        = {{u"ConvertEarnings"_s, false}, {u"ShowSummary"_s, false}, {u"ShowEarnings"_s, false},
            {u"EstimateCurrency"_s, u"USD"_s}, {u"HourlyCurrency"_s, u"XYZ"_s}, {u"HourlyCurrency"_s, u"EUR/../x"_s}};
    for (const auto &[key, value] : blocking) {
        const QVariant previous = settings.value(key);
        settings.setValue(key, value);
        EXPECT_FALSE(refreshAndWait(true)) << qPrintable(key);
        previous.isValid() ? settings.setValue(key, previous) : settings.remove(key);
    }
    EXPECT_EQ(rateRequests(), 0);

    // Equal currencies and hidden earnings convert nothing; so does a missing rate.
    settings.setValue(u"EstimateCurrency"_s, u"USD"_s);
    EXPECT_EQ(m_rates->conversionForSeconds(3600), QString());
    settings.remove(u"EstimateCurrency"_s);
    settings.setValue(u"ShowEarnings"_s, false);
    EXPECT_EQ(m_rates->conversionForSeconds(3600), QString());
    settings.remove(u"ShowEarnings"_s);
    settings.setValue(u"HourlyRate"_s, u"45 USD"_s);
    EXPECT_EQ(m_rates->conversionForSeconds(3600), QString());
}
