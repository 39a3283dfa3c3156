#include "jiraformat.h"

#include <QRegularExpression>
#include <QTimeZone>

namespace standin
{
namespace
{

constexpr qint64 kMinute = 60;
constexpr qint64 kHour = 60 * kMinute;
constexpr qint64 kDay = 8 * kHour;
constexpr qint64 kWeek = 5 * kDay;

} // namespace

QString jiraDateTime(const QDateTime &instant, const QString &zone)
{
    QTimeZone timeZone(zone.toUtf8());
    if (!timeZone.isValid())
        timeZone = QTimeZone::utc();
    const QDateTime local = instant.toTimeZone(timeZone);
    const int offset = local.offsetFromUtc();
    const int magnitude = offset < 0 ? -offset : offset;
    return local.toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss.zzz"))
        + (offset < 0 ? QLatin1Char('-') : QLatin1Char('+'))
        + QStringLiteral("%1%2")
              .arg(magnitude / 3600, 2, 10, QLatin1Char('0'))
              .arg(magnitude % 3600 / 60, 2, 10, QLatin1Char('0'));
}

QDateTime parseJiraDateTime(const QString &text)
{
    static const QRegularExpression pattern(
        QStringLiteral("^(\\d{4})-(\\d{2})-(\\d{2})T(\\d{2}):(\\d{2}):(\\d{2})\\.(\\d{3})([+-])(\\d{2})(\\d{2})$"));
    const QRegularExpressionMatch match = pattern.match(text);
    if (!match.hasMatch())
        return {};
    const QDate date(match.captured(1).toInt(), match.captured(2).toInt(), match.captured(3).toInt());
    const QTime time(
        match.captured(4).toInt(), match.captured(5).toInt(), match.captured(6).toInt(), match.captured(7).toInt());
    const int hours = match.captured(9).toInt();
    const int minutes = match.captured(10).toInt();
    if (!date.isValid() || !time.isValid() || hours > 18 || minutes > 59)
        return {};
    const int offset = (match.captured(8) == QLatin1String("-") ? -1 : 1) * (hours * 3600 + minutes * 60);
    return QDateTime(date, time, QTimeZone(offset)).toUTC();
}

QString jiraDuration(qint64 seconds)
{
    QStringList parts;
    qint64 rest = seconds;
    for (const auto &[unit, suffix] : {std::pair {kWeek, 'w'}, {kDay, 'd'}, {kHour, 'h'}, {kMinute, 'm'}}) {
        if (rest >= unit) {
            parts.append(QString::number(rest / unit) + QLatin1Char(suffix));
            rest %= unit;
        }
    }
    return parts.isEmpty() ? QStringLiteral("0m") : parts.join(QLatin1Char(' '));
}

qint64 parseJiraDuration(const QString &text)
{
    const QString trimmed = text.trimmed();
    bool plain = false;
    const qint64 minutes = trimmed.toLongLong(&plain);
    if (plain)
        return minutes >= 0 ? minutes * kMinute : -1;
    static const QRegularExpression part(QStringLiteral("^(\\d+)([wdhm])$"));
    const QStringList pieces = trimmed.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    if (pieces.isEmpty())
        return -1;
    qint64 total = 0;
    for (const QString &piece : pieces) {
        const QRegularExpressionMatch match = part.match(piece);
        if (!match.hasMatch())
            return -1;
        const qint64 count = match.captured(1).toLongLong();
        switch (match.captured(2).at(0).toLatin1()) {
        case 'w':
            total += count * kWeek;
            break;
        case 'd':
            total += count * kDay;
            break;
        case 'h':
            total += count * kHour;
            break;
        default:
            total += count * kMinute;
            break;
        }
    }
    return total;
}

} // namespace standin
