#include "app/settingsrules.h"

#include "jira/connectionsettings.h"
#include "summary/timesummary.h"

#include <QUrl>

QString HLJiraStateText(bool connected, const QStringList &siteNames, bool sitesKnown)
{
    if (!connected)
        return QStringLiteral("Not connected");
    if (!sitesKnown || siteNames.isEmpty())
        return QStringLiteral("Connected");
    if (siteNames.size() == 1)
        return QStringLiteral("Connected to %1").arg(siteNames.first());
    return QStringLiteral("Connected to %1 sites").arg(siteNames.size());
}

QString HLJiraButtonTitle(bool connected)
{
    return connected ? QStringLiteral("Disconnect") : QStringLiteral("Connect in Browser…");
}

SettingsEnablement HLSettingsEnablement(bool connected, bool workdayReminderOn)
{
    SettingsEnablement result;
    result.fetchTitles = connected;
    result.reminders = connected;
    result.workdayTime = connected && workdayReminderOn;
    if (!connected) {
        result.fetchTitlesHelp = QStringLiteral("Needs a Jira connection.");
        result.remindersHelp = QStringLiteral("Reminders need a Jira connection. Connect in the Jira pane.");
    }
    return result;
}

QString HLBusyRefusal(bool jiraBusy)
{
    return jiraBusy ? QStringLiteral("Jira is busy. Try again when it finishes.") : QString();
}

HourlyRateCheck HLCheckHourlyRate(const QString &text)
{
    HourlyRateCheck check;
    const QString trimmed = text.trimmed();
    if (trimmed.isEmpty()) {
        check.accepted = true;
        return check;
    }
    if (TimeSummary::rateFromText(trimmed)) {
        check.accepted = true;
        check.value = trimmed;
        return check;
    }
    check.message = QStringLiteral("Enter a rate such as 25 or 25.50, or leave it blank to hide earnings.");
    return check;
}

SignInServiceChoice::SignInServiceChoice(bool savedCustom, const QString &savedOrigin, const QString &builtInOrigin)
    : m_savedCustom(savedCustom || builtInOrigin.isEmpty())
    , m_savedOrigin(savedOrigin)
    , m_builtIn(builtInOrigin)
    , m_pendingCustom(m_savedCustom)
    , m_pendingText(savedOrigin)
{
}

QString SignInServiceChoice::builtInTitle() const
{
    if (m_builtIn.isEmpty())
        return {};
    return QStringLiteral("Hourloom (%1)").arg(QUrl(m_builtIn).host());
}

QString SignInServiceChoice::noBuiltInText()
{
    return QStringLiteral("This build has no built-in sign-in service; enter your team's below.");
}

void SignInServiceChoice::select(bool custom, const QString &text)
{
    m_pendingCustom = custom || m_builtIn.isEmpty();
    m_pendingText = text;
}

bool SignInServiceChoice::applyEnabled() const
{
    if (m_pendingCustom != m_savedCustom)
        return true;
    if (!m_pendingCustom)
        return false;
    const QString normalized = ConnectionSettings::normalizedOrigin(m_pendingText);
    return (normalized.isNull() ? m_pendingText.trimmed() : normalized) != m_savedOrigin;
}

SignInServiceChoice::Outcome SignInServiceChoice::apply(bool posting)
{
    Outcome outcome;
    if (!applyEnabled())
        return outcome;
    if (posting) {
        outcome.message = QStringLiteral("Wait for worklogs to finish posting.");
        return outcome;
    }
    if (m_pendingCustom) {
        outcome.origin = ConnectionSettings::normalizedOrigin(m_pendingText);
        if (outcome.origin.isNull()) {
            outcome.message = QStringLiteral("Enter an HTTPS address without a path, such as ") + exampleOrigin();
            return outcome;
        }
    }
    outcome.saved = true;
    outcome.message = QStringLiteral("Saved. Connect Jira again in the Jira pane.");
    return outcome;
}

void SignInServiceChoice::markSaved(bool custom, const QString &origin)
{
    m_savedCustom = custom;
    if (custom)
        m_savedOrigin = origin;
    m_pendingCustom = custom;
    m_pendingText = custom ? origin : m_pendingText;
}
