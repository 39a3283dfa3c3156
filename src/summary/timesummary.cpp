#include "summary/timesummary.h"
#include "records/session.h"

#include <QLocale>
#include <QRegularExpression>
#include <QSettings>

#include <unicode/unum.h>

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

namespace
{

const QString kPeriodKey = QStringLiteral("SummaryPeriod");
const QString kMonthlyKey = QStringLiteral("SummaryMonthly");
const QString kWeekStartKey = QStringLiteral("WeekStart");
const QString kRateKey = QStringLiteral("HourlyRate");
const QString kCurrencyKey = QStringLiteral("HourlyCurrency");
const QString kShowEarningsKey = QStringLiteral("ShowEarnings");

// Qt numbers weekdays 1 Monday … 7 Sunday; the settings speak Gregorian 1 Sunday … 7 Saturday.
int gregorianWeekday(int qtDay)
{
    return qtDay % 7 + 1;
}

bool isCurrencyCode(const QString &code)
{
    return code.size() == 3 && std::all_of(code.begin(), code.end(), [](QChar c) {
        return c >= QLatin1Char('A') && c <= QLatin1Char('Z');
    });
}

} // namespace

QString HLDuration(qint64 seconds)
{
    return QString::asprintf("%lld:%02lld:%02lld", static_cast<long long>(seconds / 3600),
        static_cast<long long>((seconds / 60) % 60), static_cast<long long>(seconds % 60));
}

int TimeSummary::configuredPeriod()
{
    QSettings settings;
    if (!settings.contains(kPeriodKey))
        return int(settings.value(kMonthlyKey).toBool() ? SummaryPeriod::Month : SummaryPeriod::Week);
    const int period = settings.value(kPeriodKey).toInt();
    return period >= int(SummaryPeriod::Today) && period <= int(SummaryPeriod::Month) ? period
                                                                                      : int(SummaryPeriod::Week);
}

void TimeSummary::setConfiguredPeriod(int period)
{
    QSettings settings;
    settings.setValue(kPeriodKey, period);
    settings.remove(kMonthlyKey);
}

QString TimeSummary::periodLabel(int period)
{
    switch (SummaryPeriod(period)) {
    case SummaryPeriod::Today:
        return QStringLiteral("Today");
    case SummaryPeriod::Month:
        return QStringLiteral("This month");
    default:
        return QStringLiteral("This week");
    }
}

int TimeSummary::configuredWeekStart()
{
    QSettings settings;
    if (!settings.contains(kWeekStartKey))
        return int(WeekStart::Monday);
    const int setting = settings.value(kWeekStartKey).toInt();
    return setting >= int(WeekStart::Calendar) && setting <= int(WeekStart::Saturday) ? setting
                                                                                      : int(WeekStart::Monday);
}

void TimeSummary::setConfiguredWeekStart(int setting)
{
    QSettings().setValue(kWeekStartKey, setting);
}

int TimeSummary::firstWeekday(int setting)
{
    // Gregorian weekdays: 1 Sunday ... 7 Saturday.
    switch (WeekStart(setting)) {
    case WeekStart::Monday:
        return 2;
    case WeekStart::Sunday:
        return 1;
    case WeekStart::Saturday:
        return 7;
    default:
        return gregorianWeekday(QLocale().firstDayOfWeek());
    }
}

QDateTime TimeSummary::summaryStart(const QDateTime &now, int period)
{
    const QDate today = now.toLocalTime().date();
    if (SummaryPeriod(period) == SummaryPeriod::Month)
        return QDate(today.year(), today.month(), 1).startOfDay();
    if (SummaryPeriod(period) == SummaryPeriod::Week) {
        const int first = firstWeekday(configuredWeekStart());
        const int back = (gregorianWeekday(today.dayOfWeek()) - first + 7) % 7;
        return today.addDays(-back).startOfDay();
    }
    return today.startOfDay();
}

double TimeSummary::seconds(const QVariantList &sessions, const QDateTime &now, int period)
{
    const double from = double(summaryStart(now, period).toMSecsSinceEpoch()) / 1000.0;
    const double until = double(now.toMSecsSinceEpoch()) / 1000.0;
    std::vector<std::pair<double, double>> spans;
    spans.reserve(size_t(sessions.size()));
    for (const QVariant &item : sessions) {
        const QVariantMap session = item.toMap();
        const double start = std::max(session.value(SessionKey::kStartMs).toDouble() / 1000.0, from);
        const double end = std::min(session.value(SessionKey::kEndMs).toDouble() / 1000.0, until);
        if (end > start)
            spans.emplace_back(start, end);
    }
    if (spans.empty())
        return 0;
    std::sort(spans.begin(), spans.end());
    double total = 0;
    double unionStart = spans.front().first;
    double unionEnd = spans.front().second;
    for (size_t i = 1; i < spans.size(); ++i) {
        if (spans[i].first <= unionEnd) {
            unionEnd = std::max(unionEnd, spans[i].second);
        } else {
            total += unionEnd - unionStart;
            unionStart = spans[i].first;
            unionEnd = spans[i].second;
        }
    }
    return total + (unionEnd - unionStart);
}

std::optional<Decimal> TimeSummary::rateFromText(const QString &text)
{
    static const QRegularExpression pattern(QStringLiteral("^[0-9]{1,7}([.,][0-9]{1,4})?$"));
    QString rate = text.trimmed();
    if (!pattern.match(rate).hasMatch())
        return std::nullopt;
    rate.replace(QLatin1Char(','), QLatin1Char('.'));
    return Decimal::fromText(rate);
}

QString TimeSummary::money(const Decimal &amount, const QString &currency)
{
    const QByteArray number = amount.toString().toLatin1();
    if (isCurrencyCode(currency)) {
        UErrorCode status = U_ZERO_ERROR;
        UNumberFormat *format = unum_open(UNUM_CURRENCY, nullptr, 0, "en_US", nullptr, &status);
        if (U_SUCCESS(status)) {
            unum_setTextAttribute(
                format, UNUM_CURRENCY_CODE, reinterpret_cast<const UChar *>(currency.utf16()), 3, &status);
            UChar buffer[128];
            const int32_t length = U_SUCCESS(status)
                ? unum_formatDecimal(format, number.constData(), int32_t(number.size()), buffer, 128, nullptr, &status)
                : 0;
            unum_close(format);
            if (U_SUCCESS(status) && length > 0 && length <= 128)
                return QString(reinterpret_cast<const QChar *>(buffer), length);
        } else if (format) {
            unum_close(format);
        }
    }
    // No formatter for this code: the amount with two decimals and the code as typed, never a wrong symbol.
    const double value = amount.toString().toDouble();
    return QString::number(value, 'f', 2) + QLatin1Char(' ') + currency;
}

QString TimeSummary::summaryText(const QVariantList &sessions, const QDateTime &now)
{
    return summaryText(sessions, now, configuredPeriod());
}

QString TimeSummary::summaryText(const QVariantList &sessions, const QDateTime &now, int period)
{
    const double covered = seconds(sessions, now, period);
    const qint64 minutes = qint64(covered / 60);
    QString text = QStringLiteral("%1 · %2h %3m").arg(periodLabel(period)).arg(minutes / 60).arg(minutes % 60);

    QSettings settings;
    const std::optional<Decimal> rate = rateFromText(settings.value(kRateKey).toString());
    const bool showEarnings = !settings.contains(kShowEarningsKey) || settings.value(kShowEarningsKey).toBool();
    if (rate && showEarnings) {
        // Hours go through nine-decimal text so that the multiplication itself is decimal and exact.
        const std::optional<Decimal> hours = Decimal::fromText(QString::asprintf("%.9f", covered / 3600.0));
        const QString currency
            = settings.contains(kCurrencyKey) ? settings.value(kCurrencyKey).toString() : QStringLiteral("USD");
        if (hours)
            text += QStringLiteral(" · ") + money(*rate * *hours, currency);
    }
    return text;
}

void TimeSummary::period(
    int kind, const QDateTime &now, const QDateTime &from, const QDateTime &to, QDateTime &start, QDateTime &end)
{
    start = QDateTime();
    end = QDateTime();
    const QDate today = now.toLocalTime().date();
    switch (FilterRange(kind)) {
    case FilterRange::Today:
        start = today.startOfDay();
        end = today.addDays(1).startOfDay();
        break;
    case FilterRange::Yesterday:
        start = today.addDays(-1).startOfDay();
        end = today.startOfDay();
        break;
    case FilterRange::LastSevenDays:
        start = today.addDays(-6).startOfDay();
        end = today.addDays(1).startOfDay();
        break;
    case FilterRange::Custom: {
        if (!from.isValid() || !to.isValid())
            return;
        const QDate first = from.toLocalTime().date();
        const QDate last = to.toLocalTime().date();
        if (first > last)
            return;
        start = first.startOfDay();
        end = last.addDays(1).startOfDay();
        break;
    }
    default:
        break;
    }
}
