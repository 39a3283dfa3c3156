#pragma once

#include <QDateTime>
#include <QHash>
#include <QObject>
#include <QString>
#include <QVariant>

#include <functional>
#include <memory>

class Clock;
class SerialQueue;

// The keys of the rate service's answer, as cached in the settings with the two the program adds.
namespace RateAnswerKey
{
inline const QString kBase = QStringLiteral("base");
inline const QString kQuote = QStringLiteral("quote");
inline const QString kRate = QStringLiteral("rate");
// The rate's publication date, "yyyy-MM-dd".
inline const QString kDate = QStringLiteral("date");
// Added: when the answer arrived (a QDateTime), and "ECB" or empty for a blended rate.
inline const QString kChecked = QStringLiteral("checked");
inline const QString kProvider = QStringLiteral("provider");
} // namespace RateAnswerKey

// Converts earnings into a second currency at the ECB's daily reference rate, as the rate service publishes
// it. Fetches at most once a day, at most once an hour after a failure, and keeps the last good answer in the
// settings under "ExchangeRate.<base>.<quote>" (the service's JSON object plus "checked", a QDateTime, and
// "provider", "ECB" or empty when only the blended rate was available).
//
// Settings read: "ConvertEarnings" (conversion only when true), "ShowEarnings" and "ShowSummary" (when present
// and false nothing is fetched; "ShowEarnings" false also empties the conversion), "HourlyRate",
// "HourlyCurrency" (source, "USD" when absent), "EstimateCurrency" (target, "EUR" when absent).
//
// Lives on the main thread; requests run on a queue of their own and their results come back to the main
// thread, where every piece of state changes.
class ExchangeRate : public QObject
{
    Q_OBJECT

public:
    // (answer or invalid, HTTP status or 0 when the transport failed); called on the request queue.
    using Completion = std::function<void(const QVariant &answer, qint64 status)>;

    static constexpr qint64 kMaxBodyBytes = 16384;

    // The one instance the application uses, made on first use.
    static ExchangeRate &shared();

    // Tests make their own with a clock they control (not owned); nullptr means Clock::shared().
    explicit ExchangeRate(const Clock *clock = nullptr, QObject *parent = nullptr);
    ~ExchangeRate() override;

    void refresh(bool force);

    // GET <base>/v2/rate/<base>/<quote>[?providers=<providers>] on the request queue. The completion gets the
    // decoded JSON of a 200 answer of at most kMaxBodyBytes, else an invalid QVariant; redirects are answers.
    void fetch(const QString &base, const QString &quote, const QString &providers, Completion completion);

    static bool validResponse(const QVariant &answer, const QString &base, const QString &quote);

    // " ≈ €12.34", " · conversion loading…", " · conversion unavailable" or empty; appended to the summary line.
    QString conversionForSeconds(double seconds) const;
    // One line about the cached rate for Settings.
    QString rateDetails() const;

    bool isFetching() const { return m_fetching; }
    // The settings key the pair's answer is cached under.
    static QString cacheKey(const QString &base, const QString &quote);

Q_SIGNALS:
    // The summary line should be redrawn (a fetch ended, whatever its outcome).
    void summaryChanged();

private:
    QDateTime now() const;
    void finish(
        const QString &key, const QString &base, const QString &quote, const QVariant &answer, const QString &provider);

    const Clock *m_clock = nullptr;
    QHash<QString, QDateTime> m_attempts; // last attempt by cache key
    bool m_fetching = false;
    std::unique_ptr<SerialQueue> m_queue;
};
