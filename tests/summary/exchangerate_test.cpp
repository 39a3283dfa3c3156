#include "summary/exchangerate.h"

#include "platform/clock.h"

#include "standin/server.h"

#include <QDate>
#include <QSettings>
#include <QSignalSpy>
#include <QTimeZone>

#include <gtest/gtest.h>

namespace
{

const QString kKey = QStringLiteral("ExchangeRate.USD.EUR");

QVariantMap answer(const QString &date, const QVariant &rate, const QString &base = QStringLiteral("USD"),
    const QString &quote = QStringLiteral("EUR"))
{
    return {{QStringLiteral("date"), date}, {QStringLiteral("base"), base}, {QStringLiteral("quote"), quote},
        {QStringLiteral("rate"), rate}};
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
        m_server.setRate(QStringLiteral("USD"), QStringLiteral("EUR"), 0.9, QDate::currentDate().addDays(-3));
        QSettings settings;
        settings.clear();
        settings.setValue(QStringLiteral("ConvertEarnings"), true);
        settings.setValue(QStringLiteral("HourlyRate"), QStringLiteral("45"));
        m_now = QDateTime::currentDateTimeUtc();
        m_rates = std::make_unique<ExchangeRate>(&m_clock);
    }
    void TearDown() override
    {
        m_rates.reset();
        m_server.stop();
        qunsetenv("HOURLOOM_TEST_RATE_BASE");
    }

    int rateRequests() const
    {
        return int(m_server.requests(QStringLiteral("GET"), QStringLiteral("^/v2/rate/")).size());
    }

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
    const QString usd = QStringLiteral("USD");
    const QString eur = QStringLiteral("EUR");
    EXPECT_TRUE(ExchangeRate::validResponse(answer(today(), 0.9), usd, eur));
    EXPECT_TRUE(ExchangeRate::validResponse(answer(QStringLiteral("1999-01-04"), 1), usd, eur)); // no lower bound
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
        {"rate as text", answer(today(), QStringLiteral("0.9"))},
        {"rate as boolean", answer(today(), true)},
        {"infinite rate", answer(today(), qInf())},
        {"unpadded date", answer(QStringLiteral("2024-2-1"), 0.9)},
        {"impossible date", answer(QStringLiteral("2024-02-30"), 0.9)},
        {"date with a time", answer(QStringLiteral("2024-02-01T00:00"), 0.9)},
        {"other base", answer(today(), 0.9, QStringLiteral("GBP"))},
        {"other quote", answer(today(), 0.9, QStringLiteral("USD"), QStringLiteral("CHF"))},
        {"lower-case base", answer(today(), 0.9, QStringLiteral("usd"))},
        {"no date",
            QVariantMap {{QStringLiteral("base"), usd}, {QStringLiteral("quote"), eur}, {QStringLiteral("rate"), 1}}},
        {"an array", QVariantList {answer(today(), 0.9)}},
        {"nothing", QVariant()},
    };
    for (const auto &[name, value] : rejected)
        EXPECT_FALSE(ExchangeRate::validResponse(value, usd, eur)) << name;
}

TEST_F(ExchangeRateTest, CachesTheECBRateAndConvertsInDecimal)
{
    EXPECT_EQ(m_rates->conversionForSeconds(3600), QStringLiteral(" · conversion unavailable"));
    ASSERT_TRUE(refreshAndWait(false));

    const auto requests = m_server.requests(QStringLiteral("GET"), QStringLiteral("^/v2/rate/"));
    ASSERT_EQ(requests.size(), 1);
    EXPECT_EQ(requests[0].path, QStringLiteral("/v2/rate/USD/EUR"));
    EXPECT_EQ(requests[0].query, QStringLiteral("providers=ECB"));
    const QVariantMap stored = cached();
    EXPECT_EQ(stored.value(QStringLiteral("provider")).toString(), QStringLiteral("ECB"));
    EXPECT_EQ(stored.value(QStringLiteral("checked")).toDateTime(), m_now);
    EXPECT_DOUBLE_EQ(stored.value(QStringLiteral("rate")).toDouble(), 0.9);

    // 45/h for 1 h 6 min at 0.9: 44.55 exactly, where binary floating point would give 44.549999….
    EXPECT_EQ(m_rates->conversionForSeconds(3960), QStringLiteral(" ≈ €44.55"));
    EXPECT_TRUE(m_rates->rateDetails().startsWith(QStringLiteral("1 USD = 0.9 EUR · ECB reference rate of ")))
        << qPrintable(m_rates->rateDetails());
}

TEST_F(ExchangeRateTest, FallsBackOnceToTheBlendedRateWhenTheECBHasNone)
{
    m_server.addFault(standin::Fault::statusReply(
        QStringLiteral("GET"), QStringLiteral("^/v2/rate/"), 404, R"({"status":404,"message":"not found"})"));
    ASSERT_TRUE(refreshAndWait(false));
    const auto requests = m_server.requests(QStringLiteral("GET"), QStringLiteral("^/v2/rate/"));
    ASSERT_EQ(requests.size(), 2);
    EXPECT_EQ(requests[0].query, QStringLiteral("providers=ECB"));
    EXPECT_EQ(requests[1].query, QString());
    EXPECT_EQ(cached().value(QStringLiteral("provider")), QString());
    EXPECT_TRUE(ExchangeRate::validResponse(cached(), QStringLiteral("USD"), QStringLiteral("EUR")));

    // A second 404 is not retried again.
    m_server.clearRequests();
    m_server.addFault(
        standin::Fault::statusReply(QStringLiteral("GET"), QStringLiteral("^/v2/rate/"), 404, "{}", {}, 2));
    ASSERT_TRUE(refreshAndWait(true));
    EXPECT_EQ(rateRequests(), 2);
}

TEST_F(ExchangeRateTest, KeepsTheLastGoodRateWhenAnAnswerIsRefused)
{
    const QVariantMap old = answer(QStringLiteral("2026-01-02"), 0.5);
    QVariantMap seeded = old;
    seeded.insert(QStringLiteral("checked"), m_now.addDays(-3));
    seeded.insert(QStringLiteral("provider"), QStringLiteral("ECB"));
    QSettings().setValue(kKey, seeded);

    // A body of exactly the limit is read; one byte more is refused unread.
    const QByteArray json = R"({"date":"2026-01-05","base":"USD","quote":"EUR","rate":0.8})";
    const QByteArray atLimit = json + QByteArray(ExchangeRate::kMaxBodyBytes - json.size(), ' ');
    const QByteArray overLimit = atLimit + ' ';
    const QString path = QStringLiteral("^/v2/rate/");
    const QString get = QStringLiteral("GET");
    const QList<QPair<const char *, standin::Fault>> refused = {
        {"16385-byte body", standin::Fault::statusReply(get, path, 200, overLimit)},
        {"redirect", standin::Fault::redirect(get, path, m_server.origin() + QStringLiteral("/v2/rate/USD/EUR"))},
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
        EXPECT_EQ(m_rates->conversionForSeconds(3600), QStringLiteral(" ≈ €22.50")) << name;
    }

    m_server.addFault(standin::Fault::statusReply(get, path, 200, atLimit));
    ASSERT_TRUE(refreshAndWait(true));
    EXPECT_EQ(cached().value(QStringLiteral("date")).toString(), QStringLiteral("2026-01-05"));
    EXPECT_EQ(m_rates->conversionForSeconds(3600), QStringLiteral(" ≈ €36.00"));
}

TEST_F(ExchangeRateTest, ShowsLoadingWhileASlowAnswerIsOnItsWay)
{
    m_server.addFault(standin::Fault::slow(QStringLiteral("GET"), QStringLiteral("^/v2/rate/"), 1500));
    QSignalSpy changed(m_rates.get(), &ExchangeRate::summaryChanged);
    m_rates->refresh(false);
    ASSERT_TRUE(m_rates->isFetching());
    EXPECT_EQ(m_rates->conversionForSeconds(3600), QStringLiteral(" · conversion loading…"));
    EXPECT_TRUE(m_rates->rateDetails().startsWith(QStringLiteral("Loading")));
    m_rates->refresh(true); // one fetch at a time, even when forced
    ASSERT_TRUE(changed.wait(30000));
    EXPECT_EQ(changed.count(), 1);
    EXPECT_EQ(rateRequests(), 1);
    EXPECT_EQ(m_rates->conversionForSeconds(3600), QStringLiteral(" ≈ €40.50"));
}

TEST_F(ExchangeRateTest, FetchesDailyAndRetriesFailuresHourly)
{
    // A failure blocks automatic attempts for an hour; a forced refresh ignores that.
    m_server.addFault(standin::Fault::serviceUnavailable(QStringLiteral("GET"), QStringLiteral("^/v2/rate/")));
    ASSERT_TRUE(refreshAndWait(false));
    m_now = m_now.addSecs(3600);
    EXPECT_FALSE(refreshAndWait(false));
    EXPECT_EQ(rateRequests(), 1);
    EXPECT_TRUE(m_rates->rateDetails().contains(QStringLiteral("could not be loaded")));
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
    EXPECT_EQ(cached().value(QStringLiteral("checked")).toDateTime(), m_now);
    ASSERT_TRUE(refreshAndWait(true));
    EXPECT_EQ(rateRequests(), 4);
}

TEST_F(ExchangeRateTest, FetchesNothingWhenConversionCannotBeShown)
{
    QSettings settings;
    const QList<QPair<QString, QVariant>> blocking
        = {{QStringLiteral("ConvertEarnings"), false}, {QStringLiteral("ShowSummary"), false},
            {QStringLiteral("ShowEarnings"), false}, {QStringLiteral("EstimateCurrency"), QStringLiteral("USD")},
            {QStringLiteral("HourlyCurrency"), QStringLiteral("XYZ")},
            {QStringLiteral("HourlyCurrency"), QStringLiteral("EUR/../x")}};
    for (const auto &[key, value] : blocking) {
        const QVariant previous = settings.value(key);
        settings.setValue(key, value);
        EXPECT_FALSE(refreshAndWait(true)) << qPrintable(key);
        previous.isValid() ? settings.setValue(key, previous) : settings.remove(key);
    }
    EXPECT_EQ(rateRequests(), 0);

    // Equal currencies and hidden earnings convert nothing; so does a missing rate.
    settings.setValue(QStringLiteral("EstimateCurrency"), QStringLiteral("USD"));
    EXPECT_EQ(m_rates->conversionForSeconds(3600), QString());
    settings.remove(QStringLiteral("EstimateCurrency"));
    settings.setValue(QStringLiteral("ShowEarnings"), false);
    EXPECT_EQ(m_rates->conversionForSeconds(3600), QString());
    settings.remove(QStringLiteral("ShowEarnings"));
    settings.setValue(QStringLiteral("HourlyRate"), QStringLiteral("45 USD"));
    EXPECT_EQ(m_rates->conversionForSeconds(3600), QString());
}
