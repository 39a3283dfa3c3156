#pragma once

// What the Settings window shows and allows, without any widget: the Jira account line, which rows a missing
// connection disables, the refusal while Jira work runs, the hourly rate as typed, and the sign-in service
// choice with its "Apply" rules.

#include <QString>
#include <QStringList>

class QSettings;

// "Not connected", "Connected to Acme", "Connected to 3 sites" or "Connected" (no site list yet).
QString HLJiraStateText(bool connected, const QStringList &siteNames, bool sitesKnown);
QString HLJiraButtonTitle(bool connected);

// Rows that depend on the Jira connection and on the end-of-day checkbox.
struct SettingsEnablement {
    bool fetchTitles = true;
    QString fetchTitlesHelp; // "Needs a Jira connection." while disconnected, else empty
    bool reminders = true; // both reminder checkboxes
    QString remindersHelp; // shown in place of the usual help while disconnected, else empty
    bool workdayTime = true; // the time picker and "Weekends too"
};
SettingsEnablement HLSettingsEnablement(bool connected, bool workdayReminderOn);

// The refusal for changing a setting that Jira work in progress depends on; empty when allowed.
QString HLBusyRefusal(bool jiraBusy);

// The hourly rate as typed: blank hides earnings, a number such as 25 or 25.50 is stored as typed (trimmed),
// anything else is refused with a message and the old value is kept.
struct HourlyRateCheck {
    bool accepted = false;
    QString value; // what to store when accepted
    QString message; // why not, when refused
};
HourlyRateCheck HLCheckHourlyRate(const QString &text);

// The sign-in service row. The choice made in the pop-up and field is only pending until "Apply".
class SignInServiceChoice
{
public:
    // `builtInOrigin` empty: this build has no built-in sign-in service.
    SignInServiceChoice(bool savedCustom, const QString &savedOrigin, const QString &builtInOrigin);

    static QString exampleOrigin() { return QStringLiteral("https://signin.example.com"); }
    // "Hourloom (signin.example.com)", or a null string when the build has none.
    QString builtInTitle() const;
    bool hasBuiltIn() const { return !m_builtIn.isEmpty(); }
    static QString noBuiltInText();

    void select(bool custom, const QString &text);
    bool pendingCustom() const { return m_pendingCustom; }
    QString pendingText() const { return m_pendingText; }
    bool applyEnabled() const;

    struct Outcome {
        bool saved = false;
        QString origin; // the normalised custom origin when saved with a custom server
        QString message;
    };
    // Checks the pending choice; on success the caller saves it, signs Jira out and clears its checks.
    Outcome apply(bool posting);
    void markSaved(bool custom, const QString &origin);

private:
    bool m_savedCustom;
    QString m_savedOrigin;
    QString m_builtIn;
    bool m_pendingCustom;
    QString m_pendingText;
};
