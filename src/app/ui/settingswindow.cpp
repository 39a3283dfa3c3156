#include "app/ui/settingswindow.h"

#include "app/autostart.h"
#include "app/settingsrules.h"
#include "app/ui/issuerulestable.h"
#include "app/updatecontroller.h"
#include "diagnostics/diagnosticlog.h"
#include "jira/connectionsettings.h"
#include "platform/endpoints.h"
#include "summary/exchangerate.h"
#include "summary/timesummary.h"
#include "worklogs/issueassignments.h"
#include "worklogs/preferences.h"

#include <QAction>
#include <QActionGroup>
#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QIcon>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QMessageBox>
#include <QPushButton>
#include <QSettings>
#include <QStackedWidget>
#include <QStyle>
#include <QTimeEdit>
#include <QToolBar>
#include <QVBoxLayout>

namespace
{

constexpr int kPaneWidth = 640;

const QString kFetchTitles = QStringLiteral("FetchIssueTitles");
const QString kAskToLog = QStringLiteral("AskToLogOnIssueSwitch");
const QString kPromptsAsNotifications = QStringLiteral("PromptsAsNotifications");
const QString kShowSummary = QStringLiteral("ShowSummary");
const QString kShowEarnings = QStringLiteral("ShowEarnings");
const QString kHourlyRate = QStringLiteral("HourlyRate");
const QString kHourlyCurrency = QStringLiteral("HourlyCurrency");
const QString kConvert = QStringLiteral("ConvertEarnings");
const QString kEstimateCurrency = QStringLiteral("EstimateCurrency");

// The currencies the rate service publishes reference rates for.
const QStringList kCurrencies = {QStringLiteral("AUD"), QStringLiteral("BRL"), QStringLiteral("CAD"),
    QStringLiteral("CHF"), QStringLiteral("CNY"), QStringLiteral("CZK"), QStringLiteral("DKK"), QStringLiteral("EUR"),
    QStringLiteral("GBP"), QStringLiteral("HKD"), QStringLiteral("HUF"), QStringLiteral("IDR"), QStringLiteral("ILS"),
    QStringLiteral("INR"), QStringLiteral("ISK"), QStringLiteral("JPY"), QStringLiteral("KRW"), QStringLiteral("MXN"),
    QStringLiteral("MYR"), QStringLiteral("NOK"), QStringLiteral("NZD"), QStringLiteral("PHP"), QStringLiteral("PLN"),
    QStringLiteral("RON"), QStringLiteral("SEK"), QStringLiteral("SGD"), QStringLiteral("THB"), QStringLiteral("TRY"),
    QStringLiteral("USD"), QStringLiteral("ZAR")};

QLabel *helpLabel(const QString &text, QWidget *parent)
{
    auto *label = new QLabel(text, parent);
    label->setWordWrap(true);
    label->setForegroundRole(QPalette::PlaceholderText);
    QFont font = label->font();
    font.setPointSizeF(font.pointSizeF() * 0.9);
    label->setFont(font);
    label->setVisible(!text.isEmpty());
    return label;
}

} // namespace

// One pane: rows of a right-aligned label, the controls beneath each other, and grey help text under them.
class HLPaneView : public QWidget
{
public:
    explicit HLPaneView(QWidget *parent = nullptr)
        : QWidget(parent)
        , m_grid(new QGridLayout(this))
    {
        m_grid->setContentsMargins(24, 20, 24, 20);
        m_grid->setHorizontalSpacing(12);
        m_grid->setVerticalSpacing(4);
        m_grid->setColumnMinimumWidth(0, 150);
        m_grid->setColumnStretch(1, 1);
    }

    // Adds a row; `indented` controls (those that depend on the one above) are shifted right.
    QVBoxLayout *addRow(const QString &label, const QList<QWidget *> &controls, const QList<bool> &indented = {})
    {
        const int row = m_grid->rowCount();
        if (row > 0)
            m_grid->setRowMinimumHeight(row - 1, m_grid->rowMinimumHeight(row - 1));
        auto *name = new QLabel(label, this);
        name->setAlignment(Qt::AlignRight | Qt::AlignTop);
        auto *column = new QVBoxLayout;
        column->setSpacing(4);
        for (int i = 0; i < controls.size(); ++i) {
            if (i < indented.size() && indented.at(i)) {
                auto *line = new QHBoxLayout;
                line->addSpacing(22);
                line->addWidget(controls.at(i));
                column->addLayout(line);
            } else {
                column->addWidget(controls.at(i));
            }
            if (!controls.at(i)->accessibleName().isEmpty() || label.isEmpty())
                continue;
            name->setBuddy(controls.at(i));
        }
        m_grid->addWidget(name, row, 0);
        m_grid->addLayout(column, row, 1);
        m_grid->setRowMinimumHeight(row, 0);
        // Space between rows.
        auto *spacer = new QWidget(this);
        spacer->setFixedHeight(10);
        m_grid->addWidget(spacer, row + 1, 0);
        return column;
    }

    void finish() { m_grid->setRowStretch(m_grid->rowCount(), 1); }

private:
    QGridLayout *m_grid;
};

namespace
{

QWidget *hbox(QWidget *parent, const QList<QWidget *> &widgets)
{
    auto *box = new QWidget(parent);
    auto *layout = new QHBoxLayout(box);
    layout->setContentsMargins(0, 0, 0, 0);
    for (QWidget *widget : widgets)
        layout->addWidget(widget);
    layout->addStretch(1);
    return box;
}

QCheckBox *checkBox(const QString &title, bool checked, QWidget *parent)
{
    auto *box = new QCheckBox(title, parent);
    box->setChecked(checked);
    return box;
}

QString tildePath(const QString &path)
{
    const QString home = QDir::homePath();
    if (path == home || path.startsWith(home + u'/'))
        return u'~' + path.mid(home.size());
    return path;
}

} // namespace

QStringList SettingsWindow::paneIdentifiers()
{
    return {QStringLiteral("general"), QStringLiteral("jira"), QStringLiteral("reminders"), QStringLiteral("summary"),
        QStringLiteral("advanced")};
}

SettingsWindow::SettingsWindow(const QString &store, UpdateController *updates, QWidget *parent)
    : QMainWindow(parent)
    , m_store(store)
    , m_updates(updates)
{
    setWindowTitle(QStringLiteral("Settings"));
    setObjectName(QStringLiteral("SettingsWindow"));
    try {
        if (!store.isEmpty())
            m_assignments = std::make_unique<IssueAssignments>(store);
    } catch (const std::exception &) {
        // An unreadable rules file is left alone; the table then stays empty and read-only.
        m_assignments.reset();
    }
    {
        QSettings defaults;
        ConnectionSettings connection(defaults);
        m_signIn = std::make_unique<SignInServiceChoice>(
            connection.usesCustomServer(), connection.customOrigin(), endpoints::defaultBrokerOrigin());
    }

    auto *toolbar = new QToolBar(QStringLiteral("Settings"), this);
    toolbar->setObjectName(QStringLiteral("HourloomSettings"));
    toolbar->setMovable(false);
    toolbar->setFloatable(false);
    toolbar->setToolButtonStyle(Qt::ToolButtonTextUnderIcon);
    toolbar->toggleViewAction()->setEnabled(false);
    addToolBar(Qt::TopToolBarArea, toolbar);

    m_stack = new QStackedWidget(this);
    setCentralWidget(m_stack);
    m_paneActions = new QActionGroup(this);
    m_paneActions->setExclusive(true);
    // Each pane's icon from the desktop's theme, or one the style always has where the theme lacks it.
    const QList<std::tuple<QString, QString, QString, QStyle::StandardPixmap, QWidget *>> panes = {
        {QStringLiteral("general"), QStringLiteral("General"), QStringLiteral("preferences-system"),
            QStyle::SP_ComputerIcon, buildGeneral()},
        {QStringLiteral("jira"), QStringLiteral("Jira"), QStringLiteral("insert-link"), QStyle::SP_DirLinkIcon,
            buildJira()},
        {QStringLiteral("reminders"), QStringLiteral("Reminders"), QStringLiteral("appointment-soon"),
            QStyle::SP_MessageBoxInformation, buildReminders()},
        {QStringLiteral("summary"), QStringLiteral("Summary"), QStringLiteral("x-office-spreadsheet"),
            QStyle::SP_FileDialogDetailedView, buildSummary()},
        {QStringLiteral("advanced"), QStringLiteral("Advanced"), QStringLiteral("preferences-other"),
            QStyle::SP_FileDialogContentsView, buildAdvanced()},
    };
    int index = 0;
    for (const auto &[identifier, title, icon, fallback, pane] : panes) {
        pane->setObjectName(identifier);
        m_stack->addWidget(pane);
        QAction *action = toolbar->addAction(QIcon::fromTheme(icon, style()->standardIcon(fallback)), title);
        action->setObjectName(QStringLiteral("pane-") + identifier);
        action->setCheckable(true);
        action->setShortcut(QKeySequence(Qt::CTRL | Qt::Key(Qt::Key_1 + index)));
        m_paneActions->addAction(action);
        connect(action, &QAction::triggered, this, [this, id = identifier] { showPane(id); });
        ++index;
    }

    if (m_updates) {
        const std::function<void()> previous = m_updates->stateDidChange;
        m_updates->stateDidChange = [this, previous] {
            if (previous)
                previous();
            refreshUpdates();
        };
    }
    connect(&ExchangeRate::shared(), &ExchangeRate::summaryChanged, this, &SettingsWindow::refreshRate);

    refreshJira();
    refreshUpdates();
    refreshRate();
    refreshSignIn();
    reloadRules();
    showPane(QStringLiteral("general"));
}

SettingsWindow::~SettingsWindow()
{
    // The update controller outlives this window; it must not call back into it.
    if (m_updates)
        m_updates->stateDidChange = nullptr;
}

QWidget *SettingsWindow::buildGeneral()
{
    auto *pane = new HLPaneView;
    QSettings settings;

    m_sourcePath = new QLabel(pane);
    m_sourcePath->setTextInteractionFlags(Qt::TextSelectableByMouse);
    auto *choose = new QPushButton(QStringLiteral("Choose Folder…"), pane);
    connect(choose, &QPushButton::clicked, this, [this] {
        if (chooseSourceFolder)
            chooseSourceFolder();
    });
    setSourcePath(settings.value(QStringLiteral("StintwatchSourcePath")).toString());
    pane->addRow(QStringLiteral("Stintwatch folder:"),
        {m_sourcePath, hbox(pane, {choose}),
            helpLabel(QStringLiteral("Hourloom reads Stintwatch.db in this folder. Your tracking history stays on "
                                     "this computer."),
                pane)});

    m_ignoreShort = checkBox(QStringLiteral("Keep sessions under a minute out of Jira"), JRIgnoreShortSessions(), pane);
    m_ignoreShort->setObjectName(QStringLiteral("IgnoreSessionsUnderOneMinute"));
    m_hideShort = checkBox(QStringLiteral("Also hide them from the tracking history"), JRHideShortSessions(), pane);
    m_hideShort->setObjectName(QStringLiteral("HideShortSessionsInHistory"));
    m_hideShort->setEnabled(m_ignoreShort->isChecked());
    auto *shortHelp = helpLabel(QStringLiteral("A short session still counts when its issue was tracked again that "
                                               "day. Jira keeps whole minutes, so time is rounded to the nearest one."),
        pane);
    guardedToggle(m_ignoreShort, [this](bool on) {
        JRSetIgnoreShortSessions(on);
        m_hideShort->setEnabled(on);
    });
    connect(m_hideShort, &QCheckBox::toggled, this, [](bool on) { JRSetHideShortSessions(on); });
    auto *shortMessage = helpLabel(QString(), pane);
    shortMessage->setObjectName(QStringLiteral("shortMessage"));
    pane->addRow(QStringLiteral("Short sessions:"), {m_ignoreShort, m_hideShort, shortHelp, shortMessage},
        {false, true, false, false});

    m_startAtLogin = checkBox(QStringLiteral("Start Hourloom when you log in"), Autostart::enabled(), pane);
    m_startAtLogin->setObjectName(QStringLiteral("StartAtLogin"));
    m_startAtLoginHelp = helpLabel(QString(), pane);
    connect(m_startAtLogin, &QCheckBox::toggled, this, [this](bool on) {
        QString error;
        if (!Autostart::setEnabled(on, &error)) {
            const QSignalBlocker block(m_startAtLogin);
            m_startAtLogin->setChecked(!on);
            m_startAtLoginHelp->setText(error);
            m_startAtLoginHelp->show();
            fitToPane();
            return;
        }
        m_startAtLoginHelp->hide();
    });
    pane->addRow(QStringLiteral("Start at login:"), {m_startAtLogin, m_startAtLoginHelp});

    m_autoUpdates = new QCheckBox(QStringLiteral("Check for updates automatically"), pane);
    m_autoUpdates->setObjectName(QStringLiteral("AutomaticUpdates"));
    m_checkNow = new QPushButton(QStringLiteral("Check Now"), pane);
    m_updateStatus = new QLabel(pane);
    m_updateHelp = helpLabel(QString(), pane);
    connect(m_autoUpdates, &QCheckBox::toggled, this, [this](bool on) {
        if (m_updates)
            m_updates->setAutomaticallyChecksForUpdates(on);
    });
    connect(m_checkNow, &QPushButton::clicked, this, [this] {
        if (m_updates)
            m_updates->checkForUpdates();
        refreshUpdates();
    });
    pane->addRow(QStringLiteral("Updates:"), {m_autoUpdates, hbox(pane, {m_checkNow, m_updateStatus}), m_updateHelp});
    pane->finish();
    return pane;
}

QWidget *SettingsWindow::buildJira()
{
    auto *pane = new HLPaneView;
    addAccountRow(pane);
    addCheckingRow(pane);
    addPostingRow(pane);
    addRulesRow(pane);
    pane->finish();
    return pane;
}

void SettingsWindow::addAccountRow(HLPaneView *pane)
{
    m_account = new QLabel(pane);
    m_account->setObjectName(QStringLiteral("accountState"));
    m_accountButton = new QPushButton(pane);
    connect(m_accountButton, &QPushButton::clicked, this, [this] {
        if (m_connected) {
            if (disconnectJira)
                disconnectJira();
        } else if (connectJira) {
            connectJira();
        }
    });
    pane->addRow(QStringLiteral("Account:"), {hbox(pane, {m_account, m_accountButton})});
}

void SettingsWindow::addCheckingRow(HLPaneView *pane)
{
    auto *autoCompare = checkBox(QStringLiteral("Check Jira automatically"), JRAutoCompareOnOpen(), pane);
    autoCompare->setObjectName(QStringLiteral("AutoCompareOnReviewOpen"));
    connect(autoCompare, &QCheckBox::toggled, this, [](bool on) { JRSetAutoCompareOnOpen(on); });
    pane->addRow(QStringLiteral("Checking:"),
        {autoCompare,
            helpLabel(QStringLiteral("When Worklogs opens, when the day changes and when you come back to it. View → "
                                     "Check Jira Again (Ctrl+R) checks any time."),
                pane)});
}

void SettingsWindow::addPostingRow(HLPaneView *pane)
{
    m_combine = checkBox(
        QStringLiteral("Post a day's sessions on one issue as a single worklog"), JRCombineDailyByIssue(), pane);
    m_combine->setObjectName(QStringLiteral("CombineDailyByIssue"));
    guardedToggle(m_combine, [](bool on) { JRSetCombineDailyByIssue(on); });
    auto *reduce
        = checkBox(QStringLiteral("Reduce the Jira estimate by the time posted"), JRReduceEstimateOnPost(), pane);
    reduce->setObjectName(QStringLiteral("ReduceEstimateOnPost"));
    connect(reduce, &QCheckBox::toggled, this, [](bool on) { JRSetReduceEstimateOnPost(on); });
    m_fetchTitles = checkBox(
        QStringLiteral("Fetch issue titles from Jira"), QSettings().value(kFetchTitles, true).toBool(), pane);
    m_fetchTitles->setObjectName(kFetchTitles);
    connect(m_fetchTitles, &QCheckBox::toggled, this, [](bool on) { QSettings().setValue(kFetchTitles, on); });
    m_fetchTitlesHelp = helpLabel(QStringLiteral("Titles are kept on this computer for 24 hours."), pane);
    m_postingMessage = helpLabel(QString(), pane);
    m_postingMessage->setObjectName(QStringLiteral("combineMessage"));
    pane->addRow(QStringLiteral("Posting:"),
        {m_combine,
            helpLabel(QStringLiteral("4m, 3m and 10m on DEMO-42 post as one 17m worklog. Off, each session posts on "
                                     "its own unless its rule combines it."),
                pane),
            m_postingMessage, reduce,
            helpLabel(QStringLiteral("Posting 2h against a 3h estimate leaves 1h, as Jira's Log work does. Hourloom "
                                     "can't undo it."),
                pane),
            m_fetchTitles, m_fetchTitlesHelp});
}

void SettingsWindow::addRulesRow(HLPaneView *pane)
{
    m_rules = new IssueRulesTable(pane);
    m_rules->siteName = [this](const QString &site) { return siteName ? siteName(site) : QString(); };
    m_rules->confirm = [this](const QString &question, const QString &detail) { return ask(question, detail); };
    m_rules->changeIssue = [this](const QVariantMap &rule, const QString &issue) {
        return changeRules([&] { m_assignments->updateRule(rule, issue); }, false);
    };
    m_rules->changeCombine = [this](const QVariantMap &rule, bool combine) {
        return changeRules([&] { m_assignments->updateRule(rule, combine); }, false);
    };
    m_rules->deleteRule
        = [this](const QVariantMap &rule) { changeRules([&] { m_assignments->deleteRule(rule); }, true); };
    connect(m_rules, &IssueRulesTable::heightDidChange, this, &SettingsWindow::fitToPane);
    pane->addRow(QStringLiteral("Issue rules:"),
        {m_rules,
            helpLabel(QStringLiteral("A rule sends every session with the same description to one issue. A session "
                                     "that names its own issue, or was given one, keeps it. Double-click a rule to "
                                     "change its issue."),
                pane)});
}

bool SettingsWindow::changeRules(const std::function<void()> &change, bool reload)
{
    if (!m_assignments)
        return false;
    try {
        change();
    } catch (const std::exception &) {
        return false;
    }
    if (reload)
        reloadRules();
    if (assignmentsDidChange)
        assignmentsDidChange();
    return true;
}

QWidget *SettingsWindow::buildReminders()
{
    auto *pane = new HLPaneView;
    QSettings settings;

    m_askToLog = checkBox(QStringLiteral("Ask to log work when you switch issues or stop"),
        settings.value(kAskToLog, true).toBool(), pane);
    m_askToLog->setObjectName(kAskToLog);
    connect(m_askToLog, &QCheckBox::toggled, this, [](bool on) { QSettings().setValue(kAskToLog, on); });
    m_promptStyle = new QComboBox(pane);
    m_promptStyle->setObjectName(kPromptsAsNotifications);
    m_promptStyle->setAccessibleName(QStringLiteral("Show reminders as"));
    m_promptStyle->addItem(QStringLiteral("A popup at the tray icon"), false);
    m_promptStyle->addItem(QStringLiteral("A desktop notification"), true);
    m_promptStyle->setCurrentIndex(settings.value(kPromptsAsNotifications, false).toBool() ? 1 : 0);
    connect(m_promptStyle, &QComboBox::currentIndexChanged, this,
        [this] { QSettings().setValue(kPromptsAsNotifications, m_promptStyle->currentData().toBool()); });
    m_remindersHelp = helpLabel(QString(), pane);
    m_remindersHelp->setObjectName(QStringLiteral("remindersHelp"));
    pane->addRow(QStringLiteral("While tracking:"),
        {m_askToLog, m_remindersHelp,
            helpLabel(QStringLiteral("A reminder opens at the tray icon. Nothing is posted until you click Log now; "
                                     "Later leaves the time in Worklogs."),
                pane)});
    pane->addRow(QStringLiteral("Show as:"), {hbox(pane, {m_promptStyle})});

    m_workday = checkBox(QStringLiteral("Remind me about time not in Jira yet"), JRWorkdayReminderEnabled(), pane);
    m_workday->setObjectName(QStringLiteral("WorkdayReminderEnabled"));
    m_workdayEnd = new QTimeEdit(pane);
    m_workdayEnd->setObjectName(QStringLiteral("WorkdayEndMinutes"));
    m_workdayEnd->setAccessibleName(QStringLiteral("End of the working day"));
    m_workdayEnd->setToolTip(QStringLiteral("End of the working day"));
    // Hours and minutes: the reminder has no use for seconds, which some locales' short format still shows.
    QString timeFormat = QLocale().timeFormat(QLocale::ShortFormat);
    timeFormat.remove(QStringLiteral(":ss"));
    m_workdayEnd->setDisplayFormat(timeFormat);
    m_workdayEnd->setTime(QTime(0, 0).addSecs(JRWorkdayEndMinutes() * 60));
    m_weekends = checkBox(QStringLiteral("Weekends too"), JRWorkdayWeekendsIncluded(), pane);
    m_weekends->setObjectName(QStringLiteral("WorkdayIncludesWeekends"));
    connect(m_workday, &QCheckBox::toggled, this, [this](bool on) {
        JRSetWorkdayReminderEnabled(on);
        refreshJira();
    });
    connect(m_workdayEnd, &QTimeEdit::timeChanged, this,
        [](QTime time) { JRSetWorkdayMinutes(JRWorkdayStartMinutes(), time.hour() * 60 + time.minute()); });
    connect(m_weekends, &QCheckBox::toggled, this, [](bool on) { JRSetWorkdayWeekendsIncluded(on); });
    auto *at = new QLabel(QStringLiteral("At"), pane);
    at->setBuddy(m_workdayEnd);
    m_endOfDayHelp = helpLabel(QStringLiteral("Once a day, after this time, when tracking has stopped."), pane);
    pane->addRow(QStringLiteral("End of day:"), {m_workday, hbox(pane, {at, m_workdayEnd}), m_weekends, m_endOfDayHelp},
        {false, true, true, false});
    pane->finish();
    return pane;
}

QWidget *SettingsWindow::buildSummary()
{
    auto *pane = new HLPaneView;
    addSummaryMenuRow(pane);
    addSummaryPeriodRows(pane);
    addEarningsRow(pane);
    addRateRow(pane);
    addConversionRow(pane);
    pane->finish();
    return pane;
}

void SettingsWindow::addSummaryMenuRow(HLPaneView *pane)
{
    auto *show
        = checkBox(QStringLiteral("Show the work summary"), QSettings().value(kShowSummary, true).toBool(), pane);
    show->setObjectName(kShowSummary);
    connect(show, &QCheckBox::toggled, this, [this](bool on) {
        QSettings().setValue(kShowSummary, on);
        Q_EMIT summaryChanged();
    });
    pane->addRow(QStringLiteral("Menu:"), {show});
}

void SettingsWindow::addSummaryPeriodRows(HLPaneView *pane)
{
    auto *period = new QComboBox(pane);
    period->setObjectName(QStringLiteral("SummaryPeriod"));
    period->setAccessibleName(QStringLiteral("Summary period"));
    for (int kind = 0; kind <= 2; ++kind)
        period->addItem(TimeSummary::periodLabel(kind), kind);
    period->setCurrentIndex(period->findData(TimeSummary::configuredPeriod()));
    connect(period, &QComboBox::currentIndexChanged, this, [this, period] {
        TimeSummary::setConfiguredPeriod(period->currentData().toInt());
        Q_EMIT summaryChanged();
    });
    pane->addRow(QStringLiteral("Period:"), {hbox(pane, {period})});

    auto *weekStart = new QComboBox(pane);
    weekStart->setObjectName(QStringLiteral("WeekStart"));
    weekStart->setAccessibleName(QStringLiteral("Week starts"));
    const QLocale english(QLocale::English, QLocale::UnitedStates);
    const int systemFirst = TimeSummary::firstWeekday(0); // 1 Sunday … 7 Saturday
    const int qtDay = systemFirst == 1 ? 7 : systemFirst - 1;
    weekStart->addItem(QStringLiteral("Follow system (%1)").arg(english.dayName(qtDay)), 0);
    weekStart->addItem(QStringLiteral("Monday"), 1);
    weekStart->addItem(QStringLiteral("Sunday"), 2);
    weekStart->addItem(QStringLiteral("Saturday"), 3);
    weekStart->setCurrentIndex(std::max(0, weekStart->findData(TimeSummary::configuredWeekStart())));
    connect(weekStart, &QComboBox::currentIndexChanged, this, [this, weekStart] {
        TimeSummary::setConfiguredWeekStart(weekStart->currentData().toInt());
        Q_EMIT summaryChanged();
    });
    pane->addRow(QStringLiteral("Week starts:"), {hbox(pane, {weekStart})});
}

void SettingsWindow::addEarningsRow(HLPaneView *pane)
{
    auto *earnings
        = checkBox(QStringLiteral("Show estimated earnings"), QSettings().value(kShowEarnings, true).toBool(), pane);
    earnings->setObjectName(kShowEarnings);
    connect(earnings, &QCheckBox::toggled, this, [this](bool on) {
        QSettings().setValue(kShowEarnings, on);
        Q_EMIT summaryChanged();
    });
    pane->addRow(QStringLiteral("Earnings:"),
        {earnings,
            helpLabel(QStringLiteral("Totals count every session tracked on this computer, including ones kept out of "
                                     "Jira."),
                pane)});
}

void SettingsWindow::addRateRow(HLPaneView *pane)
{
    QSettings settings;
    m_rate = new QLineEdit(settings.value(kHourlyRate).toString(), pane);
    m_rate->setObjectName(kHourlyRate);
    m_rate->setAccessibleName(QStringLiteral("Hourly rate"));
    m_rate->setPlaceholderText(QStringLiteral("e.g. 25.00"));
    m_rate->setMaximumWidth(120);
    connect(m_rate, &QLineEdit::editingFinished, this, &SettingsWindow::commitRate);
    auto *currency = new QComboBox(pane);
    currency->setObjectName(kHourlyCurrency);
    currency->setAccessibleName(QStringLiteral("Earnings currency"));
    currency->addItems(kCurrencies);
    currency->setCurrentText(settings.value(kHourlyCurrency, QStringLiteral("USD")).toString());
    connect(currency, &QComboBox::currentTextChanged, this, [this](const QString &code) {
        QSettings().setValue(kHourlyCurrency, code);
        ratePreferenceChanged();
    });
    m_rateMessage = helpLabel(QString(), pane);
    m_rateMessage->setObjectName(QStringLiteral("rateMessage"));
    pane->addRow(QStringLiteral("Hourly rate:"),
        {hbox(pane, {m_rate, currency}), m_rateMessage,
            helpLabel(QStringLiteral("The current rate applies to the whole period. Leave it blank to hide earnings."),
                pane)});
}

void SettingsWindow::addConversionRow(HLPaneView *pane)
{
    QSettings settings;
    auto *convert = checkBox(QStringLiteral("Also show in"), settings.value(kConvert, false).toBool(), pane);
    convert->setObjectName(kConvert);
    auto *target = new QComboBox(pane);
    target->setObjectName(kEstimateCurrency);
    target->setAccessibleName(QStringLiteral("Conversion currency"));
    target->addItems(kCurrencies);
    target->setCurrentText(settings.value(kEstimateCurrency, QStringLiteral("EUR")).toString());
    auto *update = new QPushButton(QStringLiteral("Update Rate"), pane);
    m_rateLine = new QLabel(pane);
    m_rateLine->setObjectName(QStringLiteral("rateLine"));
    m_rateLine->setWordWrap(true);
    connect(convert, &QCheckBox::toggled, this, [this](bool on) {
        QSettings().setValue(kConvert, on);
        ratePreferenceChanged();
    });
    connect(target, &QComboBox::currentTextChanged, this, [this](const QString &code) {
        QSettings().setValue(kEstimateCurrency, code);
        ratePreferenceChanged();
    });
    connect(update, &QPushButton::clicked, this, [this] {
        ExchangeRate::shared().refresh(true);
        refreshRate();
    });
    pane->addRow(QStringLiteral("Conversion:"),
        {hbox(pane, {convert, target, update}), m_rateLine,
            helpLabel(QStringLiteral("Rates come from Frankfurter, which publishes the ECB's reference rates, once a "
                                     "day. Only the two currency codes are sent."),
                pane)});
}

void SettingsWindow::ratePreferenceChanged()
{
    ExchangeRate::shared().refresh(false);
    refreshRate();
    Q_EMIT summaryChanged();
}

QWidget *SettingsWindow::buildAdvanced()
{
    auto *pane = new HLPaneView;

    m_server = new QComboBox(pane);
    m_server->setObjectName(QStringLiteral("signInService"));
    m_server->setAccessibleName(QStringLiteral("Sign-in service"));
    if (m_signIn->hasBuiltIn())
        m_server->addItem(m_signIn->builtInTitle(), false);
    m_server->addItem(QStringLiteral("A custom server"), true);
    m_customServer = new QLineEdit(pane);
    m_customServer->setObjectName(QStringLiteral("customServer"));
    m_customServer->setPlaceholderText(QStringLiteral("Custom authorization server URL"));
    m_customServer->setAccessibleName(QStringLiteral("Custom authorization server URL"));
    m_customServer->setText(m_signIn->pendingText());
    m_apply = new QPushButton(QStringLiteral("Apply"), pane);
    m_apply->setObjectName(QStringLiteral("applySignIn"));
    m_serverMessage = helpLabel(QString(), pane);
    m_serverMessage->setObjectName(QStringLiteral("signInMessage"));
    QList<QWidget *> rows;
    if (!m_signIn->hasBuiltIn())
        rows << helpLabel(SignInServiceChoice::noBuiltInText(), pane);
    rows << hbox(pane, {m_server}) << hbox(pane, {m_customServer, m_apply}) << m_serverMessage
         << helpLabel(QStringLiteral("Only for teams that host their own Hourloom sign-in service. Enter its base "
                                     "HTTPS address, not the Jira site. Switching signs Jira out and clears its "
                                     "checks."),
                pane);
    m_customServer->setMinimumWidth(300);
    const auto select = [this] {
        m_signIn->select(m_server->currentData().toBool(), m_customServer->text());
        m_serverMessage->hide();
        refreshSignIn();
    };
    connect(m_server, &QComboBox::currentIndexChanged, this, select);
    connect(m_customServer, &QLineEdit::textEdited, this, select);
    connect(m_customServer, &QLineEdit::returnPressed, this, &SettingsWindow::applySignIn);
    connect(m_apply, &QPushButton::clicked, this, &SettingsWindow::applySignIn);
    pane->addRow(QStringLiteral("Sign-in service:"), rows);

    auto *save = checkBox(QStringLiteral("Save diagnostic logs"), DiagnosticLog::enabled(), pane);
    save->setObjectName(QStringLiteral("SaveDiagnosticLogs"));
    connect(save, &QCheckBox::toggled, this, [](bool on) { DiagnosticLog::setEnabled(on); });
    auto *exportButton = new QPushButton(QStringLiteral("Export Diagnostics…"), pane);
    connect(exportButton, &QPushButton::clicked, this, [this] {
        if (exportDiagnostics)
            exportDiagnostics();
    });
    auto *remove = new QPushButton(QStringLiteral("Delete Logs…"), pane);
    remove->setObjectName(QStringLiteral("deleteLogs"));
    auto *diagnosticsMessage = helpLabel(QString(), pane);
    connect(remove, &QPushButton::clicked, this, [this, diagnosticsMessage] {
        if (!ask(QStringLiteral("Delete saved diagnostic logs?"),
                QStringLiteral("Only diagnostic files are deleted. New entries are still saved while logging is on.")))
            return;
        QString error;
        if (!DiagnosticLog::shared().deleteLogs(&error)) {
            diagnosticsMessage->setText(error);
            diagnosticsMessage->show();
            fitToPane();
        }
    });
    pane->addRow(QStringLiteral("Diagnostics:"),
        {save, hbox(pane, {exportButton, remove}), diagnosticsMessage,
            helpLabel(QStringLiteral("Kept on this computer, with a size limit. Turning this off stops new entries and "
                                     "keeps the ones saved."),
                pane)});
    pane->finish();
    return pane;
}

void SettingsWindow::showPane(const QString &identifier)
{
    const int index = int(paneIdentifiers().indexOf(identifier));
    if (index < 0)
        return;
    m_stack->setCurrentIndex(index);
    const QList<QAction *> actions = m_paneActions->actions();
    actions.at(index)->setChecked(true);
    setWindowTitle(actions.at(index)->text());
    fitToPane();
}

QString SettingsWindow::currentPane() const
{
    return paneIdentifiers().value(m_stack->currentIndex());
}

void SettingsWindow::fitToPane()
{
    QWidget *pane = m_stack->currentWidget();
    if (!pane)
        return;
    // Only the shown pane counts: the stack would otherwise take the tallest one's height.
    for (int i = 0; i < m_stack->count(); ++i) {
        QWidget *page = m_stack->widget(i);
        page->setSizePolicy(QSizePolicy::Preferred, page == pane ? QSizePolicy::Preferred : QSizePolicy::Ignored);
    }
    if (pane->layout())
        pane->layout()->activate();
    const auto *toolbar = findChild<QToolBar *>(QStringLiteral("HourloomSettings"));
    const int paneHeight = pane->layout() && pane->layout()->hasHeightForWidth()
        ? pane->layout()->heightForWidth(kPaneWidth)
        : pane->sizeHint().height();
    setFixedSize(kPaneWidth, (toolbar ? toolbar->sizeHint().height() : 0) + paneHeight);
}

void SettingsWindow::setConnection(bool connected, const QStringList &siteNames, bool sitesKnown)
{
    m_connected = connected;
    m_siteNames = siteNames;
    m_sitesKnown = sitesKnown;
    refreshJira();
    m_rules->setRules(m_assignments ? m_assignments->rules() : QVariantList());
}

void SettingsWindow::setBusy(bool busy)
{
    m_busy = busy;
}

void SettingsWindow::setPosting(bool posting)
{
    m_posting = posting;
}

void SettingsWindow::setSourcePath(const QString &path)
{
    m_sourcePath->setText(path.isEmpty() ? QStringLiteral("No folder chosen yet.") : tildePath(path));
    m_sourcePath->setToolTip(path);
}

void SettingsWindow::reloadRules()
{
    if (!m_assignments && !m_store.isEmpty()) {
        try {
            m_assignments = std::make_unique<IssueAssignments>(m_store);
        } catch (const std::exception &) {
        }
    }
    if (m_assignments) {
        try {
            // Another part of the program may have written the file since.
            m_assignments = std::make_unique<IssueAssignments>(m_store);
        } catch (const std::exception &) {
        }
    }
    m_rules->setRules(m_assignments ? m_assignments->rules() : QVariantList());
}

void SettingsWindow::refreshJira()
{
    m_account->setText(HLJiraStateText(m_connected, m_siteNames, m_sitesKnown));
    m_accountButton->setText(HLJiraButtonTitle(m_connected));
    const SettingsEnablement rules = HLSettingsEnablement(m_connected, m_workday && m_workday->isChecked());
    m_fetchTitles->setEnabled(rules.fetchTitles);
    m_fetchTitlesHelp->setText(rules.fetchTitlesHelp.isEmpty()
            ? QStringLiteral("Titles are kept on this computer for 24 hours.")
            : rules.fetchTitlesHelp);
    if (m_askToLog) {
        m_askToLog->setEnabled(rules.reminders);
        m_promptStyle->setEnabled(rules.reminders);
        m_workday->setEnabled(rules.reminders);
        m_workdayEnd->setEnabled(rules.workdayTime);
        m_weekends->setEnabled(rules.workdayTime);
        m_remindersHelp->setText(rules.remindersHelp);
        m_remindersHelp->setVisible(!rules.remindersHelp.isEmpty());
    }
    fitToPane();
}

void SettingsWindow::refreshUpdates()
{
    if (!m_updates || !m_updates->available()) {
        m_autoUpdates->setEnabled(false);
        m_checkNow->setEnabled(false);
        m_updateStatus->setText(QString());
        m_updateHelp->setText(QStringLiteral("Updates are not available in this build."));
        m_updateHelp->show();
        return;
    }
    const QSignalBlocker block(m_autoUpdates);
    m_autoUpdates->setEnabled(true);
    m_autoUpdates->setChecked(m_updates->automaticallyChecksForUpdates());
    m_checkNow->setEnabled(m_updates->canCheckForUpdates());
    const QDateTime last = m_updates->lastUpdateCheckDate();
    m_updateStatus->setText(last.isValid()
            ? QStringLiteral("Last checked ") + QLocale().toString(last, QLocale::ShortFormat)
            : QStringLiteral("Not checked for updates yet."));
    m_updateHelp->setText(m_updates->reason());
    m_updateHelp->setVisible(!m_updates->reason().isEmpty());
}

void SettingsWindow::refreshRate()
{
    if (!m_rateLine)
        return;
    const QString line = ExchangeRate::shared().rateDetails();
    m_rateLine->setText(line);
    m_rateLine->setVisible(!line.isEmpty());
}

void SettingsWindow::refreshSignIn()
{
    const QSignalBlocker block(m_server);
    m_server->setCurrentIndex(std::max(0, m_server->findData(m_signIn->pendingCustom())));
    m_customServer->setEnabled(m_signIn->pendingCustom());
    m_apply->setEnabled(m_signIn->applyEnabled());
}

void SettingsWindow::commitRate()
{
    const HourlyRateCheck check = HLCheckHourlyRate(m_rate->text());
    QSettings settings;
    if (!check.accepted) {
        m_rateMessage->setText(check.message);
        m_rateMessage->show();
        m_rate->setText(settings.value(kHourlyRate).toString());
        fitToPane();
        return;
    }
    m_rateMessage->hide();
    if (settings.value(kHourlyRate).toString() == check.value && settings.contains(kHourlyRate))
        return;
    settings.setValue(kHourlyRate, check.value);
    m_rate->setText(check.value);
    Q_EMIT summaryChanged();
    fitToPane();
}

void SettingsWindow::applySignIn()
{
    const SignInServiceChoice::Outcome outcome = m_signIn->apply(m_posting);
    if (outcome.saved) {
        QSettings defaults;
        ConnectionSettings connection(defaults);
        const bool custom = m_signIn->pendingCustom();
        if (!connection.saveCustom(custom, custom ? outcome.origin : connection.customOrigin())) {
            m_serverMessage->setText(QStringLiteral("Enter an HTTPS address without a path, such as ")
                + SignInServiceChoice::exampleOrigin());
            m_serverMessage->show();
            fitToPane();
            return;
        }
        m_signIn->markSaved(custom, outcome.origin);
        if (custom)
            m_customServer->setText(outcome.origin);
        if (signInServiceChanged)
            signInServiceChanged();
    }
    m_serverMessage->setText(outcome.message);
    m_serverMessage->setVisible(!outcome.message.isEmpty());
    refreshSignIn();
    fitToPane();
}

bool SettingsWindow::ask(const QString &question, const QString &detail)
{
    if (confirm)
        return confirm(question, detail);
    QMessageBox box(QMessageBox::Warning, windowTitle(), question, QMessageBox::NoButton, this);
    box.setInformativeText(detail);
    QPushButton *remove = box.addButton(QStringLiteral("Delete"), QMessageBox::DestructiveRole);
    QPushButton *cancel = box.addButton(QStringLiteral("Cancel"), QMessageBox::RejectRole);
    box.setDefaultButton(cancel);
    box.setEscapeButton(cancel);
    box.exec();
    return box.clickedButton() == remove;
}

void SettingsWindow::guardedToggle(QCheckBox *box, const std::function<void(bool)> &store)
{
    connect(box, &QCheckBox::toggled, this, [this, box, store](bool on) {
        QLabel *message = box == m_combine ? m_postingMessage : findChild<QLabel *>(QStringLiteral("shortMessage"));
        const QString refusal = HLBusyRefusal(m_busy);
        if (!refusal.isEmpty()) {
            // Changing what is eligible while a check or post runs would make its result wrong.
            const QSignalBlocker block(box);
            box->setChecked(!on);
            if (message) {
                message->setText(refusal);
                message->show();
            }
            fitToPane();
            return;
        }
        if (message)
            message->hide();
        store(on);
    });
}

bool SettingsWindow::writeSnapshot(const QString &path)
{
    return grab().save(path, "PNG");
}
