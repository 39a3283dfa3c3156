#pragma once

// The Worklogs window controller's inner state, shared by its source files (window and rows, Jira operations,
// row commands).

#include "app/ui/jirareviewwindowcontroller.h"
#include "app/ui/reviewmodel.h"
#include "app/ui/reviewrules.h"
#include "app/ui/reviewview.h"
#include "jira/issuetitlecache.h"
#include "jira/jiraclient.h"
#include "records/draft.h"
#include "submission/comparisoncache.h"
#include "submission/worklogservice.h"
#include "worklogs/issueassignments.h"

#include <QDate>
#include <QDateTime>
#include <QHash>
#include <QList>
#include <QMap>
#include <QSet>
#include <QStringList>
#include <QTimer>
#include <QVariantMap>

#include <functional>
#include <memory>
#include <optional>

class QComboBox;
class QDateEdit;
class QHBoxLayout;
class QLabel;
class QMainWindow;
class QMenu;
class QPushButton;
class QToolButton;

// What a check adds to a draft, carried into the row it was made for.
inline const QStringList kComparedKeys {DraftKey::kStatus, DraftKey::kEligible, DraftKey::kExisting,
    DraftKey::kManualMatches, DraftKey::kMarker, DraftKey::kComparisonAt, DraftKey::kComparisonCurrent,
    DraftKey::kManualWorklogId};

struct JiraReviewWindowController::Private {
    enum class Period { Day, LastSevenDays, CustomRange };

    Private(JiraReviewWindowController *owner, const QString &directory, const QString &credentialService);

    // Window and rows (jirareviewwindowcontroller.cpp).
    void buildWindow();
    QHBoxLayout *buildToolbar(QWidget *central);
    QList<QWidget *> buildPeriodControls(QWidget *central);
    QList<QWidget *> buildJiraControls(QWidget *central);
    QLabel *buildStatusLine(QWidget *central);
    QHBoxLayout *buildFooter(QWidget *central);
    void restoreGeometry();
    void wirePeriodControls();
    void wireCommands();
    void wireTree();
    void buildColumnsMenu();
    void restoreColumns();
    void saveColumns() const;
    void resetColumns();
    void updatePeriodControls();
    void interval(QDateTime &from, QDateTime &to) const;
    void reload();
    bool liveUpdate(const QVariantList &fresh);
    QVariantList buildRows();
    // The period's sessions, resolved, by the day they start on; short ones are counted in `hiddenShort` when
    // hidden.
    QMap<QDate, QVariantList> sessionsByDay(
        const QDateTime &from, const QDateTime &to, const review::ReceiptIndex &receipts);
    // One day's drafts with what is known of them put back: their last check or the cached comparison, and
    // the choices made on their rows (`choices`: source key -> row before the rebuild), which apply only while
    // the day's sessions are unchanged.
    QVariantList dayRows(const QDate &day, const QVariantList &daySessions, const QHash<QString, QVariantMap> &choices);
    // Puts the draft's last check back when it still fits the draft; false when it does not.
    bool reuseComparison(QVariantMap &draft) const;
    // Carries the tick and amounts of the draft's earlier row (`kept`: source key -> row) into the draft.
    static void keepChoices(QVariantMap &draft, const QHash<QString, QVariantMap> &kept);
    void applyCachedComparisons(QVariantList &drafts, QVariantList uncached, const QHash<QString, QVariantMap> &kept);
    QVariantMap resolvedSession(const QVariantMap &session, const review::ReceiptIndex &receipts);
    void applyWindowKeys(QVariantList &rows, const review::ReceiptIndex &receipts);
    void refreshDerivedKeys();
    // The keys that follow the operation alone (whether a row may be ticked or its amount edited, its progress
    // text): starting or ending an operation changes nothing else, so this pass skips locks, titles and
    // combinations. Each returns whether the row changed.
    bool applyOperationKeys(QVariantMap &row, const QHash<QString, bool> *pending) const;
    bool applyProgressKeys(QVariantMap &row) const;
    void refreshOperationKeys();
    // The model row of a session's source key, -1 when it has none.
    int rowForSource(const QString &sourceKey);
    void restoreViewState(const QSet<QString> &selected);
    void updatePostButton();
    void setStatus(const QString &text);
    void refreshReceipts();
    void setDay(const QDate &day);
    bool history() const { return cloud.isEmpty(); }

    // Jira operations (reviewoperations.cpp).
    void startCompare(bool automatic);
    // The rows of a check as they were sent, with its outcome put in, the ticks settled against the intent the
    // check started with, and how many intended ticks were refused; not valid when the outcome does not fit.
    struct CheckedRows {
        QVariantList rows;
        bool valid = false;
        int refused = 0;
        std::optional<QHash<QString, bool>> intent;
    };
    static CheckedRows checkedRows(
        const QVariantList &sent, const QVariantList &drafts, const std::optional<QHash<QString, bool>> &wanted);
    void finishCompare(qint64 operation, const QVariantMap &result, const CheckedRows &checked);
    // Puts a check's outcome (source key -> compared draft) into the rows; false when a row was not checked or
    // changed since, and only a rebuild of the period applies the outcome correctly.
    static bool applyComparison(QVariantList &rows, const QHash<QString, QVariantMap> &outcome);
    // Ticks every eligible row and unticks the others, as a check does before it settles the intent.
    static void includeEligible(QVariantList &rows);
    void startPost();
    // `done`, when set, learns the outcome even when the result is otherwise dropped as superseded.
    using PostDone = std::function<void(bool ok, const QString &error)>;
    void runPost(const QVariantList &worklogs, const QString &site, const QString &who, qint64 generation,
        WorklogService::Estimate estimate, PostDone done = {});
    void finishPost(qint64 operation, const QVariantList &posted, const QString &failure, const QString &detail,
        const PostDone &done);
    // A failure's sentence with the other side's explanation under it.
    static QString withDetail(const QString &message, const QString &detail);
    void showWaitNotice(const QString &text);
    QVariantMap promptResult(const QVariantMap &checked, const QVariantMap &ended, const QDate &day,
        const QString &site, qint64 generation) const;
    void progressEvent(qint64 operation, const QVariantMap &event);
    void setBusy(bool isBusy, bool isPosting);
    void setRowProgress(const QStringList &sourceKeys, const QString &text, bool active);
    void loadSites();
    void sitesLoaded(qint64 generation, const QVariantList &resources, const QString &error);
    void selectSite(const QString &cloudId);
    void updateConnectionControls();
    QString siteURL() const;

    // Row commands (reviewcommands.cpp).
    QMenu *contextMenu(const QModelIndex &index, QWidget *parent);
    QString refusalForEdit(const QVariantMap &row, bool reset) const;
    void editRow(int row, bool commentOnly);
    void useAutomaticAssignment(int row);
    void markAsLogged(int row);
    void ignoreForJira(int row);
    void undoExclusion(int row);
    void openInJira(int row);
    bool writeHistory(const QString &path, QString *error) const;
    void assignmentsChanged();
    // Runs one change of the assignments file; a failure is said in the status line and false returned.
    bool changeAssignments(const std::function<void()> &change);
    // Writes the session's exclusion (an empty record removes it) and forgets its last comparison.
    bool setExclusion(const QVariantMap &draft, const QVariantMap &exclusion);

    JiraReviewWindowController *q;
    QString store;
    std::unique_ptr<JiraClient> client;
    std::unique_ptr<WorklogService> service;
    std::unique_ptr<IssueTitleCache> titles;
    std::unique_ptr<IssueAssignments> assignments;
    ComparisonCache cache;
    ReceiptStore receiptStore;

    QMainWindow *window = nullptr;
    ReviewTreeView *tree = nullptr;
    ReviewModel *model = nullptr;
    QMenu *columns = nullptr;
    QComboBox *periodBox = nullptr;
    QToolButton *previousDay = nullptr;
    QToolButton *nextDay = nullptr;
    QPushButton *todayButton = nullptr;
    QDateEdit *dateEdit = nullptr;
    QDateEdit *fromEdit = nullptr;
    QDateEdit *toEdit = nullptr;
    QLabel *fromLabel = nullptr;
    QLabel *toLabel = nullptr;
    QComboBox *siteBox = nullptr;
    QPushButton *connectButton = nullptr;
    QPushButton *checkButton = nullptr;
    QPushButton *postButton = nullptr;
    QLabel *statusLabel = nullptr;
    QLabel *progressLabel = nullptr;
    QLabel *footerLabel = nullptr;

    QVariantList sessions;
    Period period = Period::Day;
    QDate reviewDay;
    bool showingToday = true;
    QDate rangeFrom;
    QDate rangeTo;

    QString cloud;
    QString account;
    QVariantList sites;
    QString connectedOrigin;
    bool authorising = false;
    bool busy = false;
    bool posting = false;
    bool postAfterCheck = false;
    bool ticksChosen = false;
    qint64 serial = 0;
    QString status;
    QString progressText;
    int hiddenShort = 0;

    // Per day (ISO date): the signature of its sessions at the last build.
    QHash<QString, QString> signatures;
    // Source key -> the last comparison of that draft (with its "fingerprint").
    QHash<QString, QVariantMap> compared;
    QSet<QString> checkedDays;
    QDateTime comparisonAt;
    std::optional<QHash<QString, bool>> intent;
    // Source key -> per-row progress text, and whether its spinner turns.
    QHash<QString, QString> progress;
    QSet<QString> progressActive;
    QSet<QString> lockedSet;
    // Source key -> row, for the live update and per-row progress; rebuilt lazily after every reload.
    QHash<QString, int> rowBySource;
    // Since the running check was sent: whether the rows were rebuilt, and the rows a live update changed.
    bool rebuiltSinceCheck = false;
    QSet<QString> touchedSinceCheck;
    // Titles that arrive rebuild the rows once per burst, and not before a running operation ends.
    bool titlesChanged = false;
    QTimer titleReload;
    QVariantMap receipts;
    QDateTime receiptsStamp;
    QString receiptsError;
};
