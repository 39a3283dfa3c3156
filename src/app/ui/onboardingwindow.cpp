#include "app/ui/onboardingwindow.h"

#include "platform/sandbox.h"
#include "source/stintwatchsourceaccess.h"

#include <QCloseEvent>
#include <QDir>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QSettings>
#include <QVBoxLayout>

namespace
{

const QString kCompleted = QStringLiteral("OnboardingCompleted");

QString tildePath(const QString &path)
{
    const QString home = QDir::homePath();
    if (path == home || path.startsWith(home + u'/'))
        return u'~' + path.mid(home.size());
    return path;
}

} // namespace

OnboardingWindowController::OnboardingWindowController(QWidget *parent)
    : QDialog(parent)
    , m_stepLine(new QLabel(this))
    , m_title(new QLabel(this))
    , m_text(new QLabel(this))
    , m_status(new QLabel(this))
    , m_primary(new QPushButton(this))
    , m_secondary(new QPushButton(this))
{
    setWindowTitle(QStringLiteral("Set Up Hourloom"));
    setObjectName(QStringLiteral("OnboardingWindow"));
    setFixedWidth(520);

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(28, 24, 28, 20);
    layout->setSpacing(10);
    m_stepLine->setForegroundRole(QPalette::PlaceholderText);
    layout->addWidget(m_stepLine);
    QFont titleFont = m_title->font();
    titleFont.setBold(true);
    titleFont.setPointSizeF(titleFont.pointSizeF() * 1.4);
    m_title->setFont(titleFont);
    layout->addWidget(m_title);
    m_text->setWordWrap(true);
    m_text->setMinimumHeight(m_text->fontMetrics().lineSpacing() * 4);
    m_text->setAlignment(Qt::AlignLeft | Qt::AlignTop);
    layout->addWidget(m_text);
    m_status->setWordWrap(true);
    layout->addWidget(m_status);
    layout->addStretch(1);
    auto *buttons = new QHBoxLayout;
    buttons->addStretch(1);
    buttons->addWidget(m_secondary);
    buttons->addWidget(m_primary);
    layout->addLayout(buttons);

    m_primary->setDefault(true);
    m_primary->setAutoDefault(true);
    m_secondary->setAutoDefault(false);
    connect(m_primary, &QPushButton::clicked, this, &OnboardingWindowController::primary);
    connect(m_secondary, &QPushButton::clicked, this, &OnboardingWindowController::secondary);
    render();
}

bool OnboardingWindowController::completed()
{
    return QSettings().value(kCompleted, false).toBool();
}

void OnboardingWindowController::setCompleted(bool done)
{
    QSettings().setValue(kCompleted, done);
}

QString OnboardingWindowController::sourceStepText(
    bool sandboxed, bool defaultFolderValid, const QString &defaultFolder)
{
    if (!sandboxed && !defaultFolderValid)
        return QStringLiteral("Hourloom reads your local Stintwatch database to prepare worklogs. Pick the folder "
                              "that contains Stintwatch.db. Your tracking history stays on this computer.");
    const QString insert = sandboxed
        ? QStringLiteral(" The system asks because Stintwatch is a separate app; choosing the folder once is what "
                         "lets Hourloom read it.")
        : QString();
    return QStringLiteral("Stintwatch keeps its database at %1. The picker opens there; click Choose to let Hourloom "
                          "read it.%2 Your tracking history stays on this computer.")
        .arg(tildePath(defaultFolder), insert);
}

void OnboardingWindowController::setStep(int step)
{
    m_step = std::clamp(step, 0, 2);
    render();
}

QString OnboardingWindowController::text() const
{
    return m_text->text();
}

void OnboardingWindowController::render()
{
    m_stepLine->setText(QStringLiteral("Step %1 of 3").arg(m_step + 1));
    m_status->clear();
    m_status->hide();
    switch (m_step) {
    case 0:
        m_title->setText(QStringLiteral("Welcome to Hourloom"));
        m_text->setText(QStringLiteral("Review the time Stintwatch recorded and post it to Jira after you have "
                                       "confirmed it. Nothing is sent anywhere until you say so."));
        m_primary->setText(QStringLiteral("Get Started"));
        m_secondary->setText(QStringLiteral("Not Now"));
        break;
    case 1: {
        m_title->setText(QStringLiteral("Choose your Stintwatch folder"));
        const QString folder = StintwatchSourceAccess::defaultSourcePath();
        m_text->setText(sourceStepText(
            HLRunningInAppSandbox(), StintwatchSourceAccess::isValidSourceDirectory(folder, nullptr), folder));
        m_primary->setText(QStringLiteral("Continue"));
        m_secondary->setText(QStringLiteral("Back"));
        if (!m_sourceMessage.isEmpty()) {
            m_status->setText(m_sourceMessage);
            m_status->show();
        }
        break;
    }
    default:
        m_title->setText(QStringLiteral("Connect Jira"));
        m_text->setText(QStringLiteral("Sign in to check your worklogs against Jira and post the ones you approve. "
                                       "History works without it, and you can connect later in Settings."));
        m_primary->setText(QStringLiteral("Connect Jira"));
        m_secondary->setText(QStringLiteral("Set Up Later"));
        break;
    }
    m_primary->setFocus();
}

void OnboardingWindowController::primary()
{
    switch (m_step) {
    case 0:
        setStep(1);
        break;
    case 1:
        if (m_sourceConnected)
            setStep(2);
        else if (chooseSourceRequested)
            chooseSourceRequested();
        break;
    default:
        // Connecting goes on in the browser; the delegate calls finish() once Jira is connected.
        if (connectJiraRequested)
            connectJiraRequested();
        break;
    }
}

void OnboardingWindowController::secondary()
{
    if (m_step == 1)
        setStep(0);
    else
        finish();
}

void OnboardingWindowController::sourceDidChange(bool valid)
{
    m_sourceConnected = valid;
    m_sourceMessage = valid ? QStringLiteral("Stintwatch folder connected.")
                            : QStringLiteral("That folder does not contain a Stintwatch database. Choose the folder "
                                             "holding Stintwatch.db.");
    render();
}

void OnboardingWindowController::finish()
{
    setCompleted(true);
    m_finished = true;
    if (didFinish)
        didFinish();
    hide();
}

void OnboardingWindowController::closeEvent(QCloseEvent *event)
{
    if (!m_finished && didFinish)
        didFinish();
    m_finished = true;
    QDialog::closeEvent(event);
}

void OnboardingWindowController::reject()
{
    // Escape or the window's close button: ended, not completed.
    if (!m_finished && didFinish)
        didFinish();
    m_finished = true;
    QDialog::reject();
}

bool OnboardingWindowController::writeSnapshot(const QString &path)
{
    return grab().save(path, "PNG");
}
