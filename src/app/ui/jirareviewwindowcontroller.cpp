#include "app/ui/jirareviewwindowcontroller.h"

#include <QLabel>
#include <QMainWindow>
#include <QMenu>
#include <QPixmap>

// A placeholder window until the review window lands: it shows how many sessions it was given.
struct JiraReviewWindowController::Private {
    QString store;
    QMainWindow *window = nullptr;
    QMenu *columns = nullptr;
    QLabel *label = nullptr;
    QString status;
};

JiraReviewWindowController::JiraReviewWindowController(const QString &store, QObject *parent)
    : QObject(parent)
    , d(new Private)
{
    d->store = store;
    d->window = new QMainWindow;
    d->window->setWindowTitle(tr("Worklogs"));
    d->window->setAttribute(Qt::WA_DeleteOnClose, false);
    d->label = new QLabel(d->window);
    d->window->setCentralWidget(d->label);
    d->window->resize(900, 560);
    d->columns = new QMenu(tr("Columns"), d->window);
}

JiraReviewWindowController::~JiraReviewWindowController()
{
    delete d->window;
    delete d;
}

QMainWindow *JiraReviewWindowController::window() const { return d->window; }
QMenu *JiraReviewWindowController::columnsMenu() const { return d->columns; }

void JiraReviewWindowController::showSessions(const QVariantList &sessions)
{
    updateSessions(sessions);
    d->window->show();
    d->window->raise();
    d->window->activateWindow();
}

void JiraReviewWindowController::updateSessions(const QVariantList &sessions)
{
    d->status = tr("%n session(s)", nullptr, int(sessions.size()));
    d->label->setText(d->status);
    emit statusChanged();
}

bool JiraReviewWindowController::isOpen() const { return d->window->isVisible(); }
void JiraReviewWindowController::calendarDayChanged() { }
void JiraReviewWindowController::checkJira() { }
void JiraReviewWindowController::requestAutomaticCheck() { }
void JiraReviewWindowController::exportHistory() { }
void JiraReviewWindowController::connectJira() { }
void JiraReviewWindowController::disconnectJira() { }
void JiraReviewWindowController::connectionSettingsChanged() { }
void JiraReviewWindowController::prepareConnection() { }
bool JiraReviewWindowController::posting() const { return false; }
bool JiraReviewWindowController::busy() const { return false; }
QString JiraReviewWindowController::statusText() const { return d->status; }

bool JiraReviewWindowController::writeSnapshot(const QString &path) const
{
    return d->window->grab().save(path, "PNG");
}
