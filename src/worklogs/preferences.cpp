#include "worklogs/preferences.h"

#include "records/draft.h"
#include "records/worklog.h"
#include "worklogs/engineinternal.h"

#include <QCryptographicHash>
#include <QRegularExpression>
#include <QSettings>

#include <cmath>
#include <limits>

namespace
{

const QString kIgnoreShort = QStringLiteral("IgnoreSessionsUnderOneMinute");
const QString kHideShort = QStringLiteral("HideShortSessionsInHistory");
const QString kAutoCompare = QStringLiteral("AutoCompareOnReviewOpen");
const QString kCombineDaily = QStringLiteral("CombineDailyByIssue");
const QString kReminder = QStringLiteral("WorkdayReminderEnabled");
const QString kStart = QStringLiteral("WorkdayStartMinutes");
const QString kEnd = QStringLiteral("WorkdayEndMinutes");
const QString kWeekends = QStringLiteral("WorkdayIncludesWeekends");
const QString kReduceEstimate = QStringLiteral("ReduceEstimateOnPost");

constexpr int kDefaultWorkdayStart = 9 * 60;
constexpr int kDefaultWorkdayEnd = 17 * 60;
constexpr int kMinutesPerDay = 24 * 60;

// Preferences that default to YES are read only when a value is stored: no defaults are registered.
bool boolDefaultYes(const QString &key)
{
    QSettings settings;
    return !settings.contains(key) || jrinternal::isYes(settings.value(key));
}

bool boolDefaultNo(const QString &key)
{
    return jrinternal::isYes(QSettings().value(key));
}

void setBool(const QString &key, bool value)
{
    QSettings().setValue(key, value);
}

int workdayMinutes(const QString &key, int fallback)
{
    QSettings settings;
    if (!settings.contains(key))
        return fallback;
    const qint64 value = jrinternal::int64Value(settings.value(key));
    // Compared as unsigned on purpose: negative values fall back as well.
    return quint64(value) < kMinutesPerDay ? int(value) : fallback;
}

} // namespace

bool JRIgnoreShortSessions()
{
    return boolDefaultYes(kIgnoreShort);
}
void JRSetIgnoreShortSessions(bool ignore)
{
    setBool(kIgnoreShort, ignore);
}
bool JRHideShortSessions()
{
    return boolDefaultNo(kHideShort);
}
void JRSetHideShortSessions(bool hide)
{
    setBool(kHideShort, hide);
}
bool JRAutoCompareOnOpen()
{
    return boolDefaultYes(kAutoCompare);
}
void JRSetAutoCompareOnOpen(bool compare)
{
    setBool(kAutoCompare, compare);
}
bool JRCombineDailyByIssue()
{
    return boolDefaultYes(kCombineDaily);
}
void JRSetCombineDailyByIssue(bool combine)
{
    setBool(kCombineDaily, combine);
}
bool JRWorkdayReminderEnabled()
{
    return boolDefaultNo(kReminder);
}
void JRSetWorkdayReminderEnabled(bool enabled)
{
    setBool(kReminder, enabled);
}
bool JRWorkdayWeekendsIncluded()
{
    return boolDefaultNo(kWeekends);
}
void JRSetWorkdayWeekendsIncluded(bool included)
{
    setBool(kWeekends, included);
}
bool JRReduceEstimateOnPost()
{
    return boolDefaultNo(kReduceEstimate);
}
void JRSetReduceEstimateOnPost(bool reduce)
{
    setBool(kReduceEstimate, reduce);
}

int JRWorkdayStartMinutes()
{
    return workdayMinutes(kStart, kDefaultWorkdayStart);
}
int JRWorkdayEndMinutes()
{
    return workdayMinutes(kEnd, kDefaultWorkdayEnd);
}

void JRSetWorkdayMinutes(int start, int end)
{
    QSettings settings;
    settings.setValue(kStart, start);
    settings.setValue(kEnd, end);
}

bool JRWorkdayIncludesWeekday(int weekday)
{
    if (JRWorkdayWeekendsIncluded())
        return true;
    return weekday != 1 && weekday != 7;
}

qint64 JRRoundedSeconds(qint64 seconds)
{
    if (seconds < 1)
        return 0;
    if (seconds > std::numeric_limits<qint64>::max() - 30)
        return (std::numeric_limits<qint64>::max() / 60) * 60;
    return ((seconds + 30) / 60) * 60;
}

qint64 JRPostSeconds(const QVariantMap &draft)
{
    const auto post = draft.constFind(DraftKey::kPostSeconds);
    if (post != draft.constEnd())
        return jrinternal::int64Value(*post);
    return jrinternal::int64Value(draft.value(DraftKey::kSeconds));
}

QString JRDurationText(qint64 seconds)
{
    const qint64 s = std::max<qint64>(seconds, 0);
    const qint64 m = s / 60;
    if (seconds < 3600)
        return QString::number(m) + u'm';
    const qint64 h = s / 3600;
    const qint64 r = m % 60;
    if (r == 0)
        return QString::number(h) + u'h';
    return QString::number(h) + QStringLiteral("h ") + QString::number(r) + u'm';
}

qint64 JRSecondsFromText(const QString &text)
{
    const QString trimmed = text.trimmed();
    if (trimmed.isEmpty())
        return -1;
    // One per thread: nothing is shared between callers on different threads.
    thread_local const QRegularExpression minutesOnly(QStringLiteral("\\A[0-9]{1,6}\\z"));
    thread_local const QRegularExpression hoursMinutes(
        QStringLiteral("\\A(?:([0-9]{1,6})\\s*h)?\\s*(?:([0-9]{1,6})\\s*m)?\\z"),
        QRegularExpression::CaseInsensitiveOption | QRegularExpression::UseUnicodePropertiesOption);
    if (minutesOnly.match(trimmed).hasMatch())
        return trimmed.toLongLong() * 60;
    const QRegularExpressionMatch match = hoursMinutes.match(trimmed);
    if (!match.hasMatch())
        return -1;
    const bool hasHours = match.capturedLength(1) > 0;
    const bool hasMinutes = match.capturedLength(2) > 0;
    if (!hasHours && !hasMinutes)
        return -1;
    qint64 result = 0;
    if (hasHours)
        result += match.captured(1).toLongLong() * 3600;
    if (hasMinutes)
        result += match.captured(2).toLongLong() * 60;
    return result;
}

QString JRCommentFromText(const QString &text)
{
    // The tag of the program's former name is still recognised on worklogs it posted.
    for (const QString &separator : {QStringLiteral("\n[Hourloom:"), QStringLiteral("\n[Stintwatch Companion:")}) {
        const qsizetype at = text.lastIndexOf(separator);
        if (at >= 0)
            return text.left(at);
    }
    if (text.startsWith(QStringLiteral("[Hourloom:")) || text.startsWith(QStringLiteral("[Stintwatch Companion:")))
        return QStringLiteral("");
    return text;
}

namespace
{

// Rich-text documents nest a few levels; the limit only keeps a hostile document from exhausting the stack.
constexpr int kMaxTextDepth = 200;

void appendText(const QVariant &node, QString &out, int depth)
{
    if (depth > kMaxTextDepth)
        return;
    switch (node.typeId()) {
    case QMetaType::QString:
        out += node.toString();
        return;
    case QMetaType::QVariantMap: {
        const QVariantMap map = node.toMap();
        const auto text = map.constFind(WorklogKey::kNodeText);
        if (text != map.constEnd() && text->typeId() == QMetaType::QString)
            out += text->toString();
        const auto content = map.constFind(WorklogKey::kNodeContent);
        if (content != map.constEnd())
            appendText(*content, out, depth + 1);
        return;
    }
    case QMetaType::QVariantList: {
        const QVariantList list = node.toList();
        bool first = true;
        for (const QVariant &element : list) {
            if (!first)
                out += u'\n';
            first = false;
            appendText(element, out, depth + 1);
        }
        return;
    }
    case QMetaType::QStringList:
        out += node.toStringList().join(u'\n');
        return;
    default:
        return;
    }
}

} // namespace

QString JRText(const QVariant &node)
{
    QString out;
    appendText(node, out, 0);
    return out;
}

QDateTime JRDate(const QVariant &value)
{
    if (value.typeId() != QMetaType::QString)
        return {};
    qint64 msecs = 0;
    int offset = 0;
    if (!jrinternal::parseJiraDate(value.toString(), msecs, offset))
        return {};
    return QDateTime::fromMSecsSinceEpoch(msecs, Qt::OffsetFromUTC, offset);
}

QString JRISO(const QDateTime &date)
{
    if (!date.isValid())
        return QStringLiteral("");
    const QDateTime local = date.toLocalTime();
    const QDate d = local.date();
    const QTime t = local.time();
    const int offset = local.offsetFromUtc();
    const int absolute = std::abs(offset);
    return QString::asprintf("%04d-%02d-%02dT%02d:%02d:%02d.%03d%c%02d%02d", d.year(), d.month(), d.day(), t.hour(),
        t.minute(), t.second(), t.msec(), offset < 0 ? '-' : '+', absolute / 3600, (absolute % 3600) / 60);
}

QString JRHash(const QString &text)
{
    return QString::fromLatin1(QCryptographicHash::hash(text.toUtf8(), QCryptographicHash::Sha256).toHex());
}
