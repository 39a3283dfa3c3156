#include "jira/jiraclient.h"

#include "jira/jsonvalue.h"
#include "jira/servicefail.h"
#include "platform/clock.h"
#include "platform/endpoints.h"
#include "records/issuedetails.h"
#include "records/jiraanswer.h"
#include "records/worklog.h"
#include "worklogs/namedfailure.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QThread>

#include <cmath>

namespace
{

constexpr qint64 kMaxPages = 10000;
constexpr qint64 kMaxTitleLength = 4096;

QString statusHint(qint64 status)
{
    switch (status) {
    case 401:
        return QStringLiteral("Reconnect Jira.");
    case 403:
        return QStringLiteral("Check Jira permissions.");
    case 429:
        return QStringLiteral("Jira is limiting requests; wait a moment and check again.");
    default:
        return QStringLiteral("Review the issue and check Jira again before retrying.");
    }
}

constexpr qsizetype kMaxDetailLength = 1000;

// Jira's own explanation from an error document ("errorMessages" and the per-field "errors"), as one line of
// plain text; empty when there is none.
QString jiraReason(const QVariant &answer)
{
    const QVariantMap document = answer.toMap();
    QStringList parts;
    for (const QVariant &message : document.value(JiraErrorKey::kErrorMessages).toList()) {
        if (message.typeId() == QMetaType::QString && !message.toString().trimmed().isEmpty())
            parts.append(message.toString().trimmed());
    }
    const QVariantMap errors = document.value(JiraErrorKey::kErrors).toMap();
    for (auto it = errors.cbegin(); it != errors.cend(); ++it) {
        if (it.value().typeId() == QMetaType::QString && !it.value().toString().trimmed().isEmpty())
            parts.append(it.key() + QStringLiteral(": ") + it.value().toString().trimmed());
    }
    QString reason = parts.join(QLatin1Char(' '));
    for (QChar &c : reason) {
        if (c.category() == QChar::Other_Control)
            c = QLatin1Char(' ');
    }
    if (reason.size() > kMaxDetailLength)
        reason = reason.left(kMaxDetailLength - 1) + QChar(0x2026);
    return reason;
}

// A limited Jira (429) is always waited for; an unavailable one (503) only when it says how long: without
// that, an outage is reported rather than waited out.
bool retryableRead(qint64 status, const HTTPTransport::RetryHint &hint)
{
    return status == 429 || (status == 503 && hint.retryAfterSeconds >= 0);
}

} // namespace

JiraClient::JiraClient() = default;

JiraClient::JiraClient(const QString &credentialService)
    : m_session(credentialService)
{
}

void JiraClient::connect(const QString &origin, OAuthSession::Completion completion)
{
    m_session.connect(origin, std::move(completion));
}

void JiraClient::disconnect()
{
    m_session.disconnect();
}

QString JiraClient::access()
{
    return m_session.access();
}

QVariant JiraClient::request(
    const QString &url, const QString &method, const QVariant &body, const QString &token, qint64 &status) const
{
    return m_session.request(url, method, body, token, status);
}

bool JiraClient::connected() const
{
    return !offline() && m_session.connected();
}

QVariant JiraClient::api(
    const QString &path, const QString &method, const QVariant &body, HTTPTransport::Decoder decode)
{
    const QString url = endpoints::gatewayOrigin() + path;
    const bool read = method == QLatin1String("GET");
    QString token = access();
    bool renewed = false;
    std::chrono::milliseconds waited {0};
    for (int attempt = 1;; ++attempt) {
        qint64 status = 0;
        HTTPTransport::RetryHint hint;
        const QVariant answer = m_session.transport().request(url, method, body, token, status, hint, decode);
        if (status >= 200 && status < 300) {
            // Paced before Jira has to refuse: the next request waits for a fresh budget.
            if (hint.nearLimit)
                pause(kPacingPause);
            return answer;
        }
        // A token Jira refuses before its local expiry was revoked or superseded: renewed once, then reported.
        if (read && status == 401 && !renewed) {
            renewed = true;
            try {
                token = m_session.accessAfterRejection(token);
                continue;
            } catch (const NamedFailure &failure) {
                // A renewal the sign-in service refused means the same as Jira's 401; an unreachable service
                // is its own news.
                if (failure.reason() != OAuthSession::kUnreachable)
                    HLServiceFail(
                        QStringLiteral("Jira returned HTTP 401. %1").arg(statusHint(401)), jiraReason(answer));
                throw;
            }
        }
        // Only reads are sent again: a write Jira limited may still be checked for, never repeated blindly.
        if (read && retryableRead(status, hint) && attempt < kMostAttempts) {
            const std::chrono::milliseconds delay = retryDelay(status, hint, attempt);
            if (delay <= kLongestWait && waited + delay <= kLongestTotalWait) {
                const qint64 seconds = (delay.count() + 999) / 1000;
                if (m_waitNotice)
                    m_waitNotice(status == 429
                            ? QStringLiteral("Jira is limiting requests; trying again in %1 s.").arg(seconds)
                            : QStringLiteral("Jira is unavailable; trying again in %1 s.").arg(seconds));
                pause(delay);
                waited += delay;
                continue;
            }
        }
        HLServiceFail(
            QStringLiteral("Jira returned HTTP %1. %2").arg(status).arg(statusHint(status)), jiraReason(answer));
    }
}

void JiraClient::pause(std::chrono::milliseconds delay)
{
    if (m_sleeper)
        m_sleeper(delay);
    else
        QThread::msleep(static_cast<unsigned long>(delay.count()));
}

std::chrono::milliseconds JiraClient::retryDelay(qint64 status, const HTTPTransport::RetryHint &hint, int attempt) const
{
    using namespace std::chrono;
    // Jira's own word first; without one, a doubling pause (2, 4, 8 ... s) as Atlassian advises.
    if (hint.retryAfterSeconds >= 0)
        return seconds(std::max<qint64>(1, hint.retryAfterSeconds));
    if (status == 429 && hint.rateLimitReset.isValid()) {
        const qint64 until = Clock::shared().wallNow().msecsTo(hint.rateLimitReset);
        return milliseconds(std::max<qint64>(1000, until));
    }
    return seconds(qint64(1) << std::min(attempt, 10));
}

QString JiraClient::prefix(const QString &cloud)
{
    // \z rather than $: "$" also matches before a final line break, which must not reach a URL either.
    static const QRegularExpression alphabet(QStringLiteral("^[A-Za-z0-9-]+\\z"));
    if (!alphabet.match(cloud).hasMatch())
        HLServiceFail(QStringLiteral("Invalid Jira site identifier."));
    return QStringLiteral("/ex/jira/") + cloud + QStringLiteral("/rest/api/3");
}

QString JiraClient::safeIssue(const QString &key)
{
    // \z rather than $: a trailing line break must not slip into a URL.
    static const QRegularExpression pattern(QStringLiteral("^[A-Z][A-Z0-9_]*-[0-9]+\\z"));
    if (!pattern.match(key).hasMatch())
        HLServiceFail(QStringLiteral("Enter a valid Jira issue key."));
    return key;
}

QVariantList JiraClient::resources()
{
    const QVariant answer = api(QStringLiteral("/oauth/token/accessible-resources"), QStringLiteral("GET"));
    if (answer.typeId() != QMetaType::QVariantList)
        HLServiceFail(QStringLiteral("Invalid Jira site list."));
    return answer.toList();
}

QVariantMap JiraClient::identity(const QString &cloud)
{
    const QVariant answer = api(prefix(cloud) + QStringLiteral("/myself"), QStringLiteral("GET"));
    if (answer.typeId() != QMetaType::QVariantMap
        || answer.toMap().value(JiraUserKey::kAccountId).typeId() != QMetaType::QString)
        HLServiceFail(QStringLiteral("Could not identify the authorized Jira user."));
    return answer.toMap();
}

QVariantMap JiraClient::issueDetails(const QString &issue, const QString &cloud)
{
    const QString path
        = prefix(cloud) + QStringLiteral("/issue/") + safeIssue(issue) + QStringLiteral("?fields=summary,timetracking");
    const QVariantMap answer = api(path, QStringLiteral("GET")).toMap();
    const QVariant fields = answer.value(JiraIssueKey::kFields);
    const QVariant summary = fields.toMap().value(JiraIssueKey::kSummary);
    const qsizetype length = summary.toString().size();
    if (fields.typeId() != QMetaType::QVariantMap || summary.typeId() != QMetaType::QString || length < 1
        || length > kMaxTitleLength)
        HLServiceFail(QStringLiteral("Jira title unavailable."));

    QVariantMap details {{IssueDetailsKey::kTitle, summary.toString()}};
    const QVariantMap tracking = fields.toMap().value(JiraIssueKey::kTimeTracking).toMap();
    const std::pair<QString, QString> estimates[] = {
        {JiraIssueKey::kOriginalEstimateSeconds, IssueDetailsKey::kEstimateSeconds},
        {JiraIssueKey::kRemainingEstimateSeconds, IssueDetailsKey::kRemainingSeconds},
    };
    for (const auto &[from, to] : estimates) {
        const QVariant value = tracking.value(from);
        if (HLIsJSONNumber(value) && value.toDouble() >= 0)
            details.insert(to, value);
    }
    return details;
}

namespace
{

// A page of worklogs with each worklog in the fields the comparison reads: a worklog as Jira sends it carries
// two author records, avatars and links besides, which would only be built to be freed again. Anything not
// shaped as expected is kept whole, for the checks that follow to judge.
QVariant worklogPage(const QJsonDocument &document)
{
    if (!document.isObject())
        return document.toVariant();
    QVariantMap page;
    const QJsonObject object = document.object();
    for (auto it = object.begin(); it != object.end(); ++it) {
        if (it.key() != JiraPageKey::kWorklogs || !it->isArray()) {
            page.insert(it.key(), it->toVariant());
            continue;
        }
        QVariantList worklogs;
        const QJsonArray items = it->toArray();
        worklogs.reserve(items.size());
        for (const QJsonValue item : items) {
            if (!item.isObject()) {
                worklogs.append(item.toVariant());
                continue;
            }
            const QJsonObject worklog = item.toObject();
            QVariantMap slim;
            for (const QString &key : {WorklogKey::kId, WorklogKey::kStarted, WorklogKey::kTimeSpentSeconds,
                     WorklogKey::kComment, WorklogKey::kProperties}) {
                const auto found = worklog.constFind(key);
                if (found != worklog.constEnd())
                    slim.insert(key, found->toVariant());
            }
            const auto author = worklog.constFind(WorklogKey::kAuthor);
            if (author != worklog.constEnd()) {
                const QJsonObject fields = author->toObject();
                const auto account = fields.constFind(WorklogKey::kAccountId);
                slim.insert(WorklogKey::kAuthor,
                    !author->isObject() ? author->toVariant()
                        : account == fields.end()
                        ? QVariant(QVariantMap())
                        : QVariant(QVariantMap {{WorklogKey::kAccountId, account->toVariant()}}));
            }
            worklogs.append(slim);
        }
        page.insert(it.key(), worklogs);
    }
    return page;
}

} // namespace

QVariantList JiraClient::worklogs(const QString &issue, const QString &cloud, const QDateTime &startedAfter,
    const QDateTime &startedBefore, const Progress &progress)
{
    const QString base = prefix(cloud) + QStringLiteral("/issue/") + safeIssue(issue);
    // Milliseconds are the finest unit on both sides, so the bounds pass unchanged and the range never narrows.
    QString filter;
    if (startedAfter.isValid())
        filter += QStringLiteral("&startedAfter=%1").arg(startedAfter.toMSecsSinceEpoch());
    if (startedBefore.isValid())
        filter += QStringLiteral("&startedBefore=%1").arg(startedBefore.toMSecsSinceEpoch());

    QVariantList result;
    qint64 startAt = 0;
    for (qint64 page = 1;; ++page) {
        if (page > kMaxPages)
            HLServiceFail(QStringLiteral("Too many worklogs to verify safely."));
        const QString path = base + QStringLiteral("/worklog?startAt=%1&maxResults=1000").arg(startAt) + filter
            + QStringLiteral("&expand=properties");
        const QVariantMap answer = api(path, QStringLiteral("GET"), {}, worklogPage).toMap();
        const QVariant pageLogs = answer.value(JiraPageKey::kWorklogs);
        const QVariant total = answer.value(JiraPageKey::kTotal);
        if (pageLogs.typeId() != QMetaType::QVariantList || !HLIsJSONNumber(total))
            HLServiceFail(QStringLiteral("Jira returned incomplete worklog data."));
        const QVariantList logs = pageLogs.toList();
        result += logs;

        // Jira may grant fewer per page than asked; the page count follows what it granted.
        qint64 pageSize = answer.value(JiraPageKey::kMaxResults).toLongLong();
        if (pageSize < 1)
            pageSize = std::max<qint64>(logs.size(), 100);
        const double totalCount = total.toDouble();
        if (progress) {
            const qint64 pages = std::max<qint64>(1, qint64(std::ceil(totalCount / double(pageSize))));
            progress(page, pages);
        }
        startAt += logs.size();
        if (double(startAt) >= totalCount)
            return result;
        if (logs.isEmpty())
            HLServiceFail(QStringLiteral("Jira worklog pagination did not complete."));
    }
}

QVariantList JiraClient::worklogs(const QString &issue, const QString &cloud, const Progress &progress)
{
    return worklogs(issue, cloud, QDateTime(), QDateTime(), progress);
}

QVariantList JiraClient::worklogs(const QString &issue, const QString &cloud)
{
    return worklogs(issue, cloud, QDateTime(), QDateTime(), Progress());
}

QVariantMap JiraClient::post(
    const QVariantMap &payload, const QString &issue, const QString &cloud, const QString &mode)
{
    // Jira refuses a property value over its limit only after the request; a combined worklog of very many
    // sessions would then fail at the last step. Refused here, before anything is sent.
    for (const QVariant &property : payload.value(WorklogKey::kProperties).toList()) {
        const QJsonValue value = QJsonValue::fromVariant(property.toMap().value(WorklogKey::kPropertyValue));
        // A value that is not an object is measured as the one element of an array, without the brackets.
        const QByteArray text = value.isObject()
            ? QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact)
            : QJsonDocument(QJsonArray {value}).toJson(QJsonDocument::Compact).chopped(1).mid(1);
        if (QString::fromUtf8(text).size() > kMaxPropertyLength)
            HLServiceFail(QStringLiteral("This worklog combines too many sessions for Jira to keep their record; post "
                                         "fewer sessions at a time."));
    }
    const QString adjust = mode == QLatin1String("auto") ? QStringLiteral("auto") : QStringLiteral("leave");
    const QString path = prefix(cloud) + QStringLiteral("/issue/") + safeIssue(issue)
        + QStringLiteral("/worklog?adjustEstimate=") + adjust + QStringLiteral("&notifyUsers=false");
    const QVariant answer = api(path, QStringLiteral("POST"), payload);
    // A 2xx without an id may still have created the worklog: unknown, neither success nor failure.
    if (answer.typeId() != QMetaType::QVariantMap
        || answer.toMap().value(WorklogKey::kId).typeId() != QMetaType::QString)
        HLServiceFail(QStringLiteral("Submission outcome is unknown. Check Jira again before retrying."));
    return answer.toMap();
}
