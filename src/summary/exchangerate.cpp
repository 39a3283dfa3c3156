#include "summary/exchangerate.h"

#include "platform/clock.h"

#include "jira/httptransport.h"
#include "jira/jsonvalue.h"
#include "platform/appidentity.h"
#include "platform/endpoints.h"
#include "platform/serialqueue.h"
#include "summary/timesummary.h"

#include <QDate>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QLocale>
#include <QMetaObject>
#include <QSet>
#include <QSettings>
#include <QTimeZone>

#include <unicode/ucurr.h>
#include <unicode/uenum.h>

#include <cmath>
#include <exception>

namespace
{

const QString kConvertKey = QStringLiteral("ConvertEarnings");
const QString kShowEarningsKey = QStringLiteral("ShowEarnings");
const QString kShowSummaryKey = QStringLiteral("ShowSummary");
const QString kRateKey = QStringLiteral("HourlyRate");
const QString kSourceKey = QStringLiteral("HourlyCurrency");
const QString kTargetKey = QStringLiteral("EstimateCurrency");
const QString kProvider = QStringLiteral("ECB");

constexpr qint64 kDaySeconds = 86400;
constexpr qint64 kRetrySeconds = 3600;

QString sourceCurrency(const QSettings &settings)
{
    return settings.value(kSourceKey, QStringLiteral("USD")).toString();
}

QString targetCurrency(const QSettings &settings)
{
    return settings.value(kTargetKey, QStringLiteral("EUR")).toString();
}

// Present and false; an absent key means shown.
bool switchedOff(const QSettings &settings, const QString &key)
{
    return settings.contains(key) && !settings.value(key).toBool();
}

// ICU's list of ISO 4217 codes in common use, the only codes that ever reach a request address.
bool isCommonCurrency(const QString &code)
{
    static const QSet<QString> codes = [] {
        QSet<QString> found;
        UErrorCode status = U_ZERO_ERROR;
        UEnumeration *list = ucurr_openISOCurrencies(UCURR_COMMON | UCURR_NON_DEPRECATED, &status);
        if (U_FAILURE(status))
            return found;
        int32_t length = 0;
        while (const char *next = uenum_next(list, &length, &status)) {
            if (U_FAILURE(status))
                break;
            found.insert(QString::fromLatin1(next, length));
        }
        uenum_close(list);
        return found;
    }();
    return codes.contains(code);
}

QDateTime checkedDate(const QVariantMap &cached)
{
    const QVariant checked = cached.value(RateAnswerKey::kChecked);
    return checked.typeId() == QMetaType::QDateTime ? checked.toDateTime() : QDateTime();
}

} // namespace

ExchangeRate &ExchangeRate::shared()
{
    // Never destroyed: a fetch may still be on its way when the process ends.
    static ExchangeRate *instance = new ExchangeRate;
    return *instance;
}

ExchangeRate::ExchangeRate(const Clock *clock, QObject *parent)
    : QObject(parent)
    , m_clock(clock)
    , m_queue(std::make_unique<SerialQueue>(QStringLiteral(HOURLOOM_APP_ID ".rates")))
{
}

ExchangeRate::~ExchangeRate() = default;

QString ExchangeRate::cacheKey(const QString &base, const QString &quote)
{
    return QStringLiteral("ExchangeRate.%1.%2").arg(base, quote);
}

QDateTime ExchangeRate::now() const
{
    return (m_clock ? *m_clock : Clock::shared()).wallNow().toUTC();
}

void ExchangeRate::refresh(bool force)
{
    const QSettings settings;
    if (!settings.value(kConvertKey).toBool() || switchedOff(settings, kShowEarningsKey)
        || switchedOff(settings, kShowSummaryKey) || m_fetching)
        return;
    const QString base = sourceCurrency(settings);
    const QString quote = targetCurrency(settings);
    if (base == quote || !isCommonCurrency(base) || !isCommonCurrency(quote))
        return;

    const QString key = cacheKey(base, quote);
    const QDateTime current = now();
    const QDateTime checked = checkedDate(settings.value(key).toMap());
    const QDateTime attempt = m_attempts.value(key);
    const bool freshAnswer = checked.isValid() && checked.secsTo(current) <= kDaySeconds;
    const bool recentAttempt = attempt.isValid() && attempt.secsTo(current) <= kRetrySeconds;
    if (!force && (freshAnswer || recentAttempt))
        return;

    m_attempts.insert(key, current);
    m_fetching = true;
    fetch(base, quote, kProvider, [this, key, base, quote](const QVariant &answer, qint64 status) {
        if (status != 404) {
            QMetaObject::invokeMethod(
                this, [=, this] { finish(key, base, quote, answer, kProvider); }, Qt::QueuedConnection);
            return;
        }
        // No reference rate for this pair from the ECB: the blended rate is better than none.
        fetch(base, quote, QString(), [this, key, base, quote](const QVariant &fallback, qint64) {
            QMetaObject::invokeMethod(
                this, [=, this] { finish(key, base, quote, fallback, QString()); }, Qt::QueuedConnection);
        });
    });
}

void ExchangeRate::finish(
    const QString &key, const QString &base, const QString &quote, const QVariant &answer, const QString &provider)
{
    m_fetching = false;
    if (validResponse(answer, base, quote)) {
        QVariantMap cached = answer.toMap();
        cached.insert(RateAnswerKey::kChecked, now());
        cached.insert(RateAnswerKey::kProvider, provider);
        QSettings().setValue(key, cached);
    }
    Q_EMIT summaryChanged();
}

void ExchangeRate::fetch(const QString &base, const QString &quote, const QString &providers, Completion completion)
{
    QString url = endpoints::rateServiceBase() + QStringLiteral("/v2/rate/%1/%2").arg(base, quote);
    if (!providers.isEmpty())
        url += QStringLiteral("?providers=") + providers;
    auto work = [url, completion = std::move(completion)] {
        qint64 status = 0;
        QVariant answer;
        try {
            const HTTPTransport transport;
            bool tooLarge = false;
            const QByteArray body = transport.get(url, kMaxBodyBytes, status, tooLarge);
            if (status == 200 && !tooLarge) {
                QJsonParseError error;
                const QJsonDocument document = QJsonDocument::fromJson(body, &error);
                if (error.error == QJsonParseError::NoError)
                    answer = document.toVariant();
            }
        } catch (const std::exception &) {
            status = 0;
            answer = QVariant();
        }
        completion(answer, status);
    };
    // The fallback request is made from the queue itself; it runs right there, after the first one.
    if (m_queue->isCurrent())
        work();
    else
        m_queue->async(std::move(work));
}

bool ExchangeRate::validResponse(const QVariant &answer, const QString &base, const QString &quote)
{
    if (answer.typeId() != QMetaType::QVariantMap)
        return false;
    const QVariantMap map = answer.toMap();
    const QVariant answeredBase = map.value(RateAnswerKey::kBase);
    const QVariant answeredQuote = map.value(RateAnswerKey::kQuote);
    if (answeredBase.typeId() != QMetaType::QString || answeredBase.toString() != base
        || answeredQuote.typeId() != QMetaType::QString || answeredQuote.toString() != quote)
        return false;
    const QVariant rate = map.value(RateAnswerKey::kRate);
    if (!HLIsJSONNumber(rate))
        return false;
    const double value = rate.toDouble();
    if (!std::isfinite(value) || value <= 0)
        return false;
    const QVariant dateValue = map.value(RateAnswerKey::kDate);
    if (dateValue.typeId() != QMetaType::QString)
        return false;
    const QString text = dateValue.toString();
    const QDate date = QLocale::c().toDate(text, QStringLiteral("yyyy-MM-dd"));
    if (!date.isValid() || date.toString(QStringLiteral("yyyy-MM-dd")) != text)
        return false;
    // No lower bound on the age: a rate from before a long holiday is still the latest reference rate.
    const QDateTime start(date, QTime(0, 0), QTimeZone::utc());
    return Clock::shared().wallNow().toUTC().secsTo(start) < kDaySeconds;
}

QString ExchangeRate::conversionForSeconds(double seconds) const
{
    const QSettings settings;
    if (!settings.value(kConvertKey).toBool() || switchedOff(settings, kShowEarningsKey))
        return {};
    const std::optional<Decimal> rate = TimeSummary::rateFromText(settings.value(kRateKey).toString());
    const QString base = sourceCurrency(settings);
    const QString quote = targetCurrency(settings);
    if (!rate || base == quote)
        return {};
    const QVariant cached = settings.value(cacheKey(base, quote));
    if (validResponse(cached, base, quote)) {
        const std::optional<Decimal> hours = Decimal::fromText(QString::asprintf("%.9f", seconds / 3600.0));
        const std::optional<Decimal> exchange
            = Decimal::fromDouble(cached.toMap().value(RateAnswerKey::kRate).toDouble());
        if (hours && exchange)
            return QStringLiteral(" ≈ ") + TimeSummary::money(*rate * *hours * *exchange, quote);
    }
    return m_fetching ? QStringLiteral(" · conversion loading…") : QStringLiteral(" · conversion unavailable");
}

QString ExchangeRate::rateDetails() const
{
    const QSettings settings;
    const QString base = sourceCurrency(settings);
    const QString quote = targetCurrency(settings);
    if (base == quote)
        return QStringLiteral("Earnings are already in %1; no conversion is needed.").arg(quote);
    const QString key = cacheKey(base, quote);
    const QVariant cached = settings.value(key);
    if (!validResponse(cached, base, quote)) {
        if (m_fetching)
            return QStringLiteral("Loading the %1 to %2 rate…").arg(base, quote);
        if (m_attempts.contains(key))
            return QStringLiteral("The %1 to %2 rate could not be loaded. It is tried again within the hour.")
                .arg(base, quote);
        return QStringLiteral("No %1 to %2 rate has been loaded yet.").arg(base, quote);
    }
    const QVariantMap map = cached.toMap();
    const std::optional<Decimal> exchange = Decimal::fromDouble(map.value(RateAnswerKey::kRate).toDouble());
    const QString source = map.value(RateAnswerKey::kProvider).toString() == kProvider
        ? QStringLiteral("ECB reference rate")
        : QStringLiteral("blended rate (no ECB reference rate for this pair)");
    QString text = QStringLiteral("1 %1 = %2 %3 · %4 of %5")
                       .arg(base, exchange ? exchange->toString() : QString(), quote, source,
                           map.value(RateAnswerKey::kDate).toString());
    const QDateTime checked = checkedDate(map);
    if (checked.isValid())
        text += QStringLiteral(" · checked ") + QLocale().toString(checked.toLocalTime(), QLocale::ShortFormat);
    return text;
}
