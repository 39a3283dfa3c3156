#include "app/ui/jirareviewwindowcontroller.h"

#include "app/ui/jirareviewwindow_p.h"
#include "app/ui/rowkeys.h"
#include "platform/clock.h"
#include "records/draft.h"
#include "records/issuedetails.h"
#include "records/receipt.h"
#include "records/session.h"
#include "records/worklog.h"
#include "worklogs/engine.h"
#include "worklogs/namedfailure.h"

#include <QAction>
#include <QComboBox>
#include <QDateEdit>
#include <QEvent>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QKeySequence>
#include <QLabel>
#include <QMainWindow>
#include <QMenu>
#include <QPointer>
#include <QPushButton>
#include <QScrollBar>
#include <QSettings>
#include <QShortcut>
#include <QToolButton>
#include <QVBoxLayout>

namespace
{

const QString kGeometryKey = QStringLiteral("JiraReviewWindow");

QString str(const QVariantMap &map, const QString &key)
{
    return map.value(key).toString();
}

qint64 num(const QVariantMap &map, const QString &key)
{
    return map.value(key).toLongLong();
}

QDate sessionDate(const QVariantMap &session)
{
    return QDateTime::fromMSecsSinceEpoch(num(session, SessionKey::kStartMs)).date();
}

} // namespace

JiraReviewWindowController::Private::Private(
    JiraReviewWindowController *owner, const QString &directory, const QString &credentialService)
    : q(owner)
    , store(directory)
    , client(credentialService.isEmpty() ? std::make_unique<JiraClient>()
                                         : std::make_unique<JiraClient>(credentialService))
    , cache(directory)
    , receiptStore(directory)
{
    service = std::make_unique<WorklogService>(*client, directory);
    titles = std::make_unique<IssueTitleCache>(*client, directory);
    try {
        assignments = std::make_unique<IssueAssignments>(directory);
    } catch (const NamedFailure &failure) {
        // Edits are refused while the assignments file is unreadable; the rows still show.
        status = failure.reason();
    }
    reviewDay = QDate::currentDate();
    rangeFrom = reviewDay.addDays(-6);
    rangeTo = reviewDay;
}

JiraReviewWindowController::JiraReviewWindowController(const QString &store, QObject *parent)
    : JiraReviewWindowController(store, QString(), parent)
{
}

JiraReviewWindowController::JiraReviewWindowController(
    const QString &store, const QString &credentialService, QObject *parent)
    : QObject(parent)
    , d(new Private(this, store, credentialService))
{
    d->buildWindow();
    d->titleReload.setSingleShot(true);
    d->titleReload.setInterval(100);
    QObject::connect(&d->titleReload, &QTimer::timeout, this, [this] {
        if (d->busy)
            return; // the operation's end starts the timer again
        d->reload();
    });
    d->titles->setDidChange([this] {
        d->titlesChanged = true;
        if (!d->busy)
            d->titleReload.start();
    });
    // Told on the work queue while a read waits for a rate-limited Jira; shown until the operation ends.
    QPointer<JiraReviewWindowController> self(this);
    d->client->setWaitNotice([self, this](const QString &text) {
        QMetaObject::invokeMethod(
            self, [this, text] { d->showWaitNotice(text); }, Qt::QueuedConnection);
    });
    d->updateConnectionControls();
}

JiraReviewWindowController::~JiraReviewWindowController()
{
    // Results still queued for this controller are dropped: their context object goes away with it.
    d->client->queue().drain();
    delete d->window;
    delete d;
}

void JiraReviewWindowController::Private::buildWindow()
{
    window = new QMainWindow;
    window->setWindowTitle(QStringLiteral("Worklogs"));
    window->setObjectName(QStringLiteral("JiraReviewWindow"));
    auto *central = new QWidget(window);
    auto *layout = new QVBoxLayout(central);
    layout->addLayout(buildToolbar(central));
    tree = new ReviewTreeView(central);
    model = new ReviewModel(tree);
    tree->setModel(model);
    layout->addWidget(tree, 1);
    layout->addWidget(buildStatusLine(central));
    layout->addLayout(buildFooter(central));
    window->setCentralWidget(central);
    window->resize(1040, 600);
    restoreGeometry();
    window->installEventFilter(q);

    buildColumnsMenu();
    restoreColumns();
    wirePeriodControls();
    wireCommands();
    wireTree();
    updatePeriodControls();
    updatePostButton();
}

QHBoxLayout *JiraReviewWindowController::Private::buildToolbar(QWidget *central)
{
    auto *bar = new QHBoxLayout;
    for (QWidget *widget : buildPeriodControls(central))
        bar->addWidget(widget);
    bar->addStretch(1);
    for (QWidget *widget : buildJiraControls(central))
        bar->addWidget(widget);
    return bar;
}

QList<QWidget *> JiraReviewWindowController::Private::buildPeriodControls(QWidget *central)
{
    periodBox = new QComboBox(central);
    periodBox->addItems({QStringLiteral("Day"), QStringLiteral("Last 7 Days"), QStringLiteral("Custom Range")});
    periodBox->setAccessibleName(QStringLiteral("Period"));
    periodBox->setToolTip(QStringLiteral("Period"));
    previousDay = new QToolButton(central);
    previousDay->setText(QStringLiteral("‹"));
    previousDay->setAccessibleName(QStringLiteral("Previous day"));
    previousDay->setToolTip(QStringLiteral("Previous day"));
    nextDay = new QToolButton(central);
    nextDay->setText(QStringLiteral("›"));
    nextDay->setAccessibleName(QStringLiteral("Next day"));
    nextDay->setToolTip(QStringLiteral("Next day"));
    todayButton = new QPushButton(QStringLiteral("Today"), central);
    dateEdit = new QDateEdit(reviewDay, central);
    dateEdit->setCalendarPopup(true);
    dateEdit->setAccessibleName(QStringLiteral("Review date"));
    fromLabel = new QLabel(QStringLiteral("From"), central);
    fromEdit = new QDateEdit(rangeFrom, central);
    fromEdit->setCalendarPopup(true);
    fromEdit->setAccessibleName(QStringLiteral("Range start"));
    fromLabel->setBuddy(fromEdit);
    toLabel = new QLabel(QStringLiteral("To"), central);
    toEdit = new QDateEdit(rangeTo, central);
    toEdit->setCalendarPopup(true);
    toEdit->setAccessibleName(QStringLiteral("Range end"));
    toLabel->setBuddy(toEdit);
    return {periodBox, previousDay, nextDay, todayButton, dateEdit, fromLabel, fromEdit, toLabel, toEdit};
}

QList<QWidget *> JiraReviewWindowController::Private::buildJiraControls(QWidget *central)
{
    siteBox = new QComboBox(central);
    siteBox->setAccessibleName(QStringLiteral("Jira site"));
    connectButton = new QPushButton(QStringLiteral("Connect Jira…"), central);
    checkButton = new QPushButton(QStringLiteral("Check Jira"), central);
    checkButton->setToolTip(QKeySequence(Qt::CTRL | Qt::Key_R).toString(QKeySequence::NativeText));
    return {siteBox, connectButton, checkButton};
}

QLabel *JiraReviewWindowController::Private::buildStatusLine(QWidget *central)
{
    statusLabel = new QLabel(central);
    statusLabel->setObjectName(QStringLiteral("status"));
    statusLabel->setWordWrap(true);
    statusLabel->setTextInteractionFlags(Qt::TextSelectableByMouse);
    statusLabel->setAccessibleName(QStringLiteral("Status"));
    return statusLabel;
}

QHBoxLayout *JiraReviewWindowController::Private::buildFooter(QWidget *central)
{
    auto *bottom = new QHBoxLayout;
    footerLabel = new QLabel(central);
    footerLabel->setObjectName(QStringLiteral("footer"));
    footerLabel->setAccessibleName(QStringLiteral("Totals"));
    progressLabel = new QLabel(central);
    progressLabel->setObjectName(RowKey::kProgress);
    progressLabel->setForegroundRole(QPalette::PlaceholderText);
    postButton = new QPushButton(central);
    postButton->setObjectName(QStringLiteral("post"));
    postButton->setMinimumWidth(200);
    postButton->setDefault(true);
    bottom->addWidget(footerLabel);
    bottom->addStretch(1);
    bottom->addWidget(progressLabel);
    bottom->addWidget(postButton);
    return bottom;
}

void JiraReviewWindowController::Private::restoreGeometry()
{
    QSettings settings;
    if (settings.contains(kGeometryKey))
        window->restoreGeometry(settings.value(kGeometryKey).toByteArray());
}

void JiraReviewWindowController::Private::wirePeriodControls()
{
    QObject::connect(periodBox, &QComboBox::currentIndexChanged, q, [this](int index) {
        period = Period(index);
        updatePeriodControls();
        reload();
        q->requestAutomaticCheck();
    });
    QObject::connect(previousDay, &QToolButton::clicked, q, [this] { setDay(reviewDay.addDays(-1)); });
    QObject::connect(nextDay, &QToolButton::clicked, q, [this] { setDay(reviewDay.addDays(1)); });
    QObject::connect(todayButton, &QPushButton::clicked, q, [this] { setDay(QDate::currentDate()); });
    QObject::connect(dateEdit, &QDateEdit::dateChanged, q, [this](QDate date) { setDay(date); });
    QObject::connect(fromEdit, &QDateEdit::dateChanged, q, [this](QDate date) {
        rangeFrom = date;
        reload();
    });
    QObject::connect(toEdit, &QDateEdit::dateChanged, q, [this](QDate date) {
        rangeTo = date;
        reload();
    });
}

void JiraReviewWindowController::Private::wireCommands()
{
    QObject::connect(
        siteBox, &QComboBox::activated, q, [this](int index) { selectSite(siteBox->itemData(index).toString()); });
    QObject::connect(connectButton, &QPushButton::clicked, q, [this] { q->connectJira(); });
    QObject::connect(checkButton, &QPushButton::clicked, q, [this] { q->checkJira(); });
    QObject::connect(postButton, &QPushButton::clicked, q, [this] { q->post(); });
    auto *refresh = new QShortcut(QKeySequence(Qt::CTRL | Qt::Key_R), window);
    QObject::connect(refresh, &QShortcut::activated, q, [this] { q->checkJira(); });
}

void JiraReviewWindowController::Private::wireTree()
{
    auto *menuKey = new QShortcut(QKeySequence(Qt::SHIFT | Qt::Key_F10), tree);
    QObject::connect(menuKey, &QShortcut::activated, q, [this] {
        const QRect rect = tree->visualRect(tree->currentIndex());
        emit tree->customContextMenuRequested(rect.isValid() ? rect.center() : QPoint(8, 8));
    });
    QObject::connect(tree, &QTreeView::customContextMenuRequested, q, [this](const QPoint &point) {
        const QModelIndex index = tree->indexAt(point);
        if (!index.isValid())
            return;
        QMenu *menu = contextMenu(index, tree);
        menu->setAttribute(Qt::WA_DeleteOnClose);
        menu->popup(tree->viewport()->mapToGlobal(point));
    });
    QObject::connect(tree, &ReviewTreeView::activatedRow, q, [this](const QModelIndex &index) {
        const int row = model->rowOf(index);
        if (row >= 0)
            editRow(row, false);
    });
    QObject::connect(model, &ReviewModel::choicesChanged, q, [this] {
        ticksChosen = true;
        refreshDerivedKeys();
        updatePostButton();
    });
    QObject::connect(model, &ReviewModel::editRefused, q, [this](const QString &reason) { setStatus(reason); });
    QObject::connect(tree->header(), &QHeaderView::sectionResized, q, [this] { saveColumns(); });
    tree->header()->setContextMenuPolicy(Qt::CustomContextMenu);
    QObject::connect(tree->header(), &QHeaderView::customContextMenuRequested, q,
        [this](const QPoint &point) { columns->popup(tree->header()->mapToGlobal(point)); });
}

void JiraReviewWindowController::Private::updatePeriodControls()
{
    const bool day = period == Period::Day;
    const bool custom = period == Period::CustomRange;
    previousDay->setVisible(day);
    nextDay->setVisible(day);
    todayButton->setVisible(day);
    dateEdit->setVisible(day);
    todayButton->setEnabled(reviewDay != QDate::currentDate());
    for (QWidget *widget : std::initializer_list<QWidget *> {fromLabel, fromEdit, toLabel, toEdit})
        widget->setVisible(custom);
    const QSignalBlocker blocker(dateEdit);
    dateEdit->setDate(reviewDay);
}

void JiraReviewWindowController::Private::setDay(const QDate &day)
{
    if (!day.isValid() || day == reviewDay)
        return;
    reviewDay = day;
    showingToday = day == QDate::currentDate();
    updatePeriodControls();
    reload();
    q->requestAutomaticCheck();
}

void JiraReviewWindowController::Private::interval(QDateTime &from, QDateTime &to) const
{
    const QDate today = QDate::currentDate();
    QDate first = reviewDay, last = reviewDay;
    if (period == Period::LastSevenDays) {
        first = today.addDays(-6);
        last = today;
    } else if (period == Period::CustomRange) {
        first = qMin(rangeFrom, rangeTo);
        last = qMax(rangeFrom, rangeTo);
    }
    from = first.startOfDay();
    to = last.addDays(1).startOfDay();
}

void JiraReviewWindowController::Private::setStatus(const QString &text)
{
    status = text;
    statusLabel->setText(text);
    emit q->statusChanged();
}

void JiraReviewWindowController::Private::refreshReceipts()
{
    const QFileInfo info(receiptStore.path());
    const QDateTime stamp = info.exists() ? info.lastModified() : QDateTime();
    if (stamp == receiptsStamp && receiptsError.isEmpty() && (stamp.isValid() || receipts.isEmpty()))
        return;
    receiptsStamp = stamp;
    try {
        receipts = receiptStore.receipts();
        receiptsError.clear();
    } catch (const NamedFailure &failure) {
        receipts.clear();
        receiptsError = failure.reason();
    }
}

QVariantMap JiraReviewWindowController::Private::resolvedSession(
    const QVariantMap &session, const review::ReceiptIndex &index)
{
    QVariantMap resolved = assignments ? assignments->resolve(session, cloud) : session;
    if (!assignments && !resolved.contains(SessionKey::kIssue))
        resolved.insert(SessionKey::kIssue, SessionKey::kUnassigned);
    if (!index.isEmpty()) {
        const QString key = JRSourceKey(session);
        for (const QVariant &item : index.receiptsFor(key)) {
            const QVariantMap receipt = item.toMap();
            if (str(receipt, ReceiptKey::kSourceKey) != key)
                continue;
            if (str(receipt, ReceiptKey::kState) == ReceiptKey::kPosted) {
                const QVariantMap payload = receipt.value(ReceiptKey::kPayload).toMap();
                QString comment = JRText(payload.value(WorklogKey::kComment));
                const qsizetype tag = comment.indexOf(QStringLiteral("\n[Hourloom:"));
                if (tag >= 0)
                    comment.truncate(tag);
                resolved.insert(SessionKey::kIssue, str(receipt, ReceiptKey::kIssue));
                resolved.insert(SessionKey::kComment, comment);
                resolved.insert(SessionKey::kJiraLoggedSeconds, num(payload, WorklogKey::kTimeSpentSeconds));
                resolved.insert(SessionKey::kJiraReceiptState, ReceiptKey::kPosted);
                resolved.insert(SessionKey::kAssignmentLocked, true);
            } else {
                resolved.insert(SessionKey::kJiraReceiptState, ReceiptKey::kPending);
            }
        }
    }
    const QString issue = str(resolved, SessionKey::kIssue);
    if (!issue.isEmpty() && issue != SessionKey::kUnassigned && str(resolved, SessionKey::kIssueTitle).isEmpty()) {
        QString title = q->titleForIssue ? q->titleForIssue(issue) : QString();
        if (title.isEmpty() && !cloud.isEmpty())
            title = titles->title(issue, cloud, true);
        if (!title.isEmpty())
            resolved.insert(SessionKey::kIssueTitle, title);
    }
    return resolved;
}

QVariantList JiraReviewWindowController::Private::buildRows()
{
    QDateTime from, to;
    interval(from, to);
    refreshReceipts();
    const review::ReceiptIndex index(receipts, cloud);
    const QMap<QDate, QVariantList> byDay = sessionsByDay(from, to, index);

    // Choices made on the rows survive a rebuild while their day's sessions are unchanged.
    QHash<QString, QVariantMap> choices;
    for (const QVariant &item : model->rows()) {
        const QVariantMap row = item.toMap();
        choices.insert(str(row, DraftKey::kSourceKey), row);
    }

    QVariantList rows;
    for (auto day = byDay.cbegin(); day != byDay.cend(); ++day)
        rows.append(dayRows(day.key(), day.value(), choices));
    applyWindowKeys(rows, index);
    return rows;
}

QMap<QDate, QVariantList> JiraReviewWindowController::Private::sessionsByDay(
    const QDateTime &from, const QDateTime &to, const review::ReceiptIndex &index)
{
    const qint64 fromMs = from.toMSecsSinceEpoch(), toMs = to.toMSecsSinceEpoch();
    const bool hideShort = JRHideShortSessions();

    // Day boundaries computed once: a local-time conversion per session costs a time-zone lookup each.
    QList<qint64> dayStarts;
    QList<QDate> dayDates;
    for (QDate date = from.date(); date < to.date(); date = date.addDays(1)) {
        dayDates.append(date);
        dayStarts.append(date.startOfDay().toMSecsSinceEpoch());
    }
    QMap<QDate, QVariantList> byDay;
    hiddenShort = 0;
    for (const QVariant &item : std::as_const(sessions)) {
        const QVariantMap session = item.toMap();
        const qint64 start = num(session, SessionKey::kStartMs);
        if (start < fromMs || start >= toMs)
            continue;
        const qint64 end = num(session, SessionKey::kEndMs);
        const bool running = session.value(SessionKey::kSourceRunning).toBool();
        if (hideShort && !running && end >= start && end - start < 60000) {
            ++hiddenShort;
            continue;
        }
        const auto day = std::upper_bound(dayStarts.cbegin(), dayStarts.cend(), start) - 1;
        byDay[dayDates[day - dayStarts.cbegin()]].append(resolvedSession(session, index));
    }
    return byDay;
}

QVariantList JiraReviewWindowController::Private::dayRows(
    const QDate &day, const QVariantList &daySessions, const QHash<QString, QVariantMap> &choices)
{
    const QString dayKey = day.toString(Qt::ISODate);
    const QString signature = review::daySignature(daySessions);
    const bool unchanged = signatures.value(dayKey) == signature;
    signatures.insert(dayKey, signature);
    // The earlier choices apply only to a day whose sessions are unchanged.
    const QHash<QString, QVariantMap> kept = unchanged ? choices : QHash<QString, QVariantMap>();
    QVariantList drafts = JRBuildDrafts(daySessions, day.startOfDay());
    QVariantList uncached;
    for (QVariant &item : drafts) {
        QVariantMap draft = item.toMap();
        if (str(draft, DraftKey::kJiraReceiptState) == ReceiptKey::kPosted)
            draft.insert(DraftKey::kStatus, QStringLiteral("Submission recorded"));
        const bool applies = reuseComparison(draft);
        keepChoices(draft, kept);
        item = draft;
        if (!applies)
            uncached.append(item);
    }
    if (!uncached.isEmpty() && !account.isEmpty())
        applyCachedComparisons(drafts, std::move(uncached), kept);
    return drafts;
}

bool JiraReviewWindowController::Private::reuseComparison(QVariantMap &draft) const
{
    const QVariantMap last = compared.value(str(draft, DraftKey::kSourceKey));
    // A title that arrived after the check changes the comment the engine would send; the row keeps the comment
    // that was checked instead of losing the check.
    QVariantMap probe = draft;
    if (!last.isEmpty() && str(last, DraftKey::kIssueTitle) != str(draft, DraftKey::kIssueTitle)) {
        probe.insert(DraftKey::kIssueTitle, last.value(DraftKey::kIssueTitle));
        probe.insert(DraftKey::kComment, last.value(DraftKey::kComment));
    }
    if (last.isEmpty() || str(last, RowKey::kFingerprint) != JRComparisonFingerprint(probe))
        return false;
    draft = probe;
    for (const QString &field : kComparedKeys)
        draft.insert(field, last.value(field));
    draft.insert(DraftKey::kInclude, false);
    return true;
}

void JiraReviewWindowController::Private::keepChoices(QVariantMap &draft, const QHash<QString, QVariantMap> &kept)
{
    const auto earlier = kept.constFind(str(draft, DraftKey::kSourceKey));
    // Time that reached Jira meanwhile changes what remains: earlier amounts no longer apply.
    if (earlier == kept.cend() || earlier->value(DraftKey::kLoggedSeconds) != draft.value(DraftKey::kLoggedSeconds))
        return;
    for (const QString &field : {DraftKey::kInclude, DraftKey::kPostSeconds, DraftKey::kRemainingSeconds})
        if (earlier->contains(field))
            draft.insert(field, earlier->value(field));
}

void JiraReviewWindowController::Private::applyCachedComparisons(
    QVariantList &drafts, QVariantList uncached, const QHash<QString, QVariantMap> &kept)
{
    cache.applyToDrafts(uncached, cloud, account, Clock::shared().wallNow(), 300.0);
    QHash<QString, QVariant> applied;
    for (const QVariant &item : std::as_const(uncached))
        applied.insert(str(item.toMap(), DraftKey::kSourceKey), item);
    for (QVariant &item : drafts) {
        const QString key = str(item.toMap(), DraftKey::kSourceKey);
        if (applied.contains(key)) {
            QVariantMap draft = applied.value(key).toMap();
            if (kept.contains(key))
                draft.insert(DraftKey::kInclude, kept.value(key).value(DraftKey::kInclude));
            item = draft;
        }
    }
}

void JiraReviewWindowController::Private::applyWindowKeys(QVariantList &rows, const review::ReceiptIndex &index)
{
    const QStringList keys = JRCombineKeys(rows);
    QHash<QString, QPair<int, qint64>> combine;
    for (qsizetype i = 0; i < rows.size(); ++i) {
        if (keys[i].isNull())
            continue;
        const QVariantMap row = rows[i].toMap();
        auto &entry = combine[keys[i] + QLatin1Char('|') + str(row, DraftKey::kStarted).left(10)];
        entry.first += 1;
        entry.second += JRPostSeconds(row);
    }
    const QHash<QString, bool> *pending = intent ? &*intent : nullptr;
    for (qsizetype i = 0; i < rows.size(); ++i) {
        QVariant &item = rows[i];
        QVariantMap row = item.toMap();
        row.insert(RowKey::kHistoryRow, history());
        const QString &key = keys[i];
        const auto combined = key.isNull()
            ? QPair<int, qint64>()
            : combine.value(key + QLatin1Char('|') + str(row, DraftKey::kStarted).left(10));
        if (combined.first > 1)
            row.insert(RowKey::kCombinedSeconds, JRRoundedSeconds(combined.second));
        else
            row.remove(RowKey::kCombinedSeconds);
        const review::Lock lock
            = history() ? review::Lock::None : review::lockedSession(row, cloud, account, lockedSet, index);
        row.insert(RowKey::kLocked, int(lock));
        const QString issue = str(row, DraftKey::kIssue);
        QString title = str(row, DraftKey::kIssueTitle);
        if (title.isEmpty() && !cloud.isEmpty() && !issue.isEmpty())
            title = titles->cachedTitle(issue, cloud);
        row.insert(RowKey::kDisplayTitle, title);
        if (!cloud.isEmpty() && !issue.isEmpty()) {
            const QVariantMap details = titles->cachedDetails(issue, cloud);
            for (const auto &[from, into] : {std::pair {IssueDetailsKey::kEstimateSeconds, RowKey::kJiraEstimate},
                     std::pair {IssueDetailsKey::kRemainingSeconds, RowKey::kJiraRemaining}}) {
                if (details.contains(from))
                    row.insert(into, details.value(from));
            }
        }
        applyOperationKeys(row, pending);
        item = row;
    }
}

namespace
{

// Inserts only a value that differs, so an unchanged row keeps sharing its data with the model's copy.
bool setIfChanged(QVariantMap &row, const QString &key, const QVariant &value)
{
    const auto found = std::as_const(row).constFind(key);
    if (found != row.cend() && found.value() == value)
        return false;
    row.insert(key, value);
    return true;
}

bool removeIfPresent(QVariantMap &row, const QString &key)
{
    return std::as_const(row).contains(key) && row.remove(key) > 0;
}

} // namespace

bool JiraReviewWindowController::Private::applyOperationKeys(
    QVariantMap &row, const QHash<QString, bool> *pending) const
{
    const auto lock = review::Lock(row.value(RowKey::kLocked).toInt());
    const bool canTick = review::canSelectDraft(row, busy, lock != review::Lock::None, pending);
    bool changed = setIfChanged(row, RowKey::kCanTick, canTick);
    changed
        |= setIfChanged(row, RowKey::kCanEditPost, review::toPostEditable(row, busy, lock == review::Lock::Recorded));
    if (!canTick && !pending && !busy)
        changed |= setIfChanged(row, DraftKey::kInclude, false);
    return applyProgressKeys(row) || changed;
}

bool JiraReviewWindowController::Private::applyProgressKeys(QVariantMap &row) const
{
    const QString sourceKey = str(row, DraftKey::kSourceKey);
    const auto found = progress.constFind(sourceKey);
    if (found == progress.cend())
        return removeIfPresent(row, RowKey::kProgress) | removeIfPresent(row, RowKey::kProgressActive);
    return setIfChanged(row, RowKey::kProgress, found.value())
        | setIfChanged(row, RowKey::kProgressActive, progressActive.contains(sourceKey));
}

void JiraReviewWindowController::Private::refreshOperationKeys()
{
    QVariantList rows = model->rows();
    const QHash<QString, bool> *pending = intent ? &*intent : nullptr;
    bool changed = false;
    for (QVariant &item : rows) {
        QVariantMap row = item.toMap();
        if (applyOperationKeys(row, pending)) {
            item = row;
            changed = true;
        }
    }
    if (changed)
        model->setRows(rows);
}

int JiraReviewWindowController::Private::rowForSource(const QString &sourceKey)
{
    if (rowBySource.size() != model->rows().size()) {
        rowBySource.clear();
        for (int row = 0; row < model->rows().size(); ++row)
            rowBySource.insert(str(model->row(row), DraftKey::kSourceKey), row);
    }
    return rowBySource.value(sourceKey, -1);
}

void JiraReviewWindowController::Private::refreshDerivedKeys()
{
    refreshReceipts();
    QVariantList rows = model->rows();
    applyWindowKeys(rows, review::ReceiptIndex(receipts, cloud));
    model->setRows(rows);
}

void JiraReviewWindowController::Private::reload()
{
    QSet<QString> selected;
    for (const QModelIndex &index : tree->selectionModel()->selectedRows())
        selected.insert(index.data(ReviewModel::SourceKeyRole).toString());
    const QString current = tree->currentIndex().data(ReviewModel::SourceKeyRole).toString();
    const int scroll = tree->verticalScrollBar()->value();
    titlesChanged = false;
    const bool inPlace = model->setRows(buildRows());
    rowBySource.clear();
    rebuiltSinceCheck = true;
    if (!inPlace) {
        restoreViewState(selected);
        if (!current.isEmpty())
            for (int row = 0; row < model->rows().size(); ++row)
                if (str(model->row(row), DraftKey::kSourceKey) == current)
                    tree->selectionModel()->setCurrentIndex(model->indexOfRow(row), QItemSelectionModel::NoUpdate);
        tree->verticalScrollBar()->setValue(scroll);
    }
    updatePostButton();
}

void JiraReviewWindowController::Private::restoreViewState(const QSet<QString> &selected)
{
    tree->expandAll();
    QItemSelection selection;
    for (int row = 0; row < model->rows().size(); ++row) {
        if (!selected.contains(str(model->row(row), DraftKey::kSourceKey)))
            continue;
        const QModelIndex index = model->indexOfRow(row);
        selection.select(index, index.siblingAtColumn(ReviewModel::ColumnCount - 1));
    }
    tree->selectionModel()->select(selection, QItemSelectionModel::ClearAndSelect);
}

void JiraReviewWindowController::Private::updatePostButton()
{
    const review::PostButton button = review::postButton(model->rows(), busy || history());
    postButton->setText(button.title);
    postButton->setToolTip(button.toolTip);
    postButton->setEnabled(button.enabled);
    footerLabel->setText(review::footerText(model->rows(), history(), hiddenShort));
    checkButton->setEnabled(!busy && !history());
}

void JiraReviewWindowController::Private::assignmentsChanged()
{
    reload();
    if (q->assignmentsDidChange)
        q->assignmentsDidChange();
}

QMainWindow *JiraReviewWindowController::window() const
{
    return d->window;
}

QMenu *JiraReviewWindowController::columnsMenu() const
{
    return d->columns;
}

QTreeView *JiraReviewWindowController::tree() const
{
    return d->tree;
}

JiraClient &JiraReviewWindowController::jiraClient() const
{
    return *d->client;
}

void JiraReviewWindowController::showSessions(const QVariantList &sessions)
{
    const bool wasOpen = isOpen();
    d->sessions = sessions;
    d->reload();
    d->window->show();
    d->window->raise();
    d->window->activateWindow();
    if (!wasOpen)
        requestAutomaticCheck();
}

void JiraReviewWindowController::updateSessions(const QVariantList &sessions)
{
    if (isOpen() && d->liveUpdate(sessions))
        return;
    d->sessions = sessions;
    if (isOpen())
        d->reload();
}

bool JiraReviewWindowController::Private::liveUpdate(const QVariantList &fresh)
{
    // The common tick: only running sessions grew. A running session posts alone and never changes how the
    // day's other sessions combine, so its own row is rebuilt and nothing else is touched.
    if (fresh.size() != sessions.size())
        return false;
    static const QSet<QString> growing {SessionKey::kEndMs, SessionKey::kDuration, SessionKey::kSourceSeconds};
    QList<int> changed;
    for (int i = 0; i < fresh.size(); ++i) {
        if (fresh[i] == sessions[i])
            continue;
        const QVariantMap before = sessions[i].toMap(), after = fresh[i].toMap();
        if (!before.value(SessionKey::kSourceRunning).toBool() || !after.value(SessionKey::kSourceRunning).toBool()
            || before.size() != after.size())
            return false;
        for (auto it = after.cbegin(); it != after.cend(); ++it)
            if (!growing.contains(it.key()) && before.value(it.key()) != it.value())
                return false;
        changed.append(i);
    }
    const review::ReceiptIndex none;
    bool rowsChanged = false;
    for (int i : std::as_const(changed)) {
        const QVariantMap session = fresh[i].toMap();
        const int found = rowForSource(JRSourceKey(session));
        if (found < 0)
            continue; // outside the period
        const QVariantList built = JRBuildDrafts({resolvedSession(session, none)}, sessionDate(session).startOfDay());
        if (built.size() != 1)
            return false;
        const QVariantMap draft = built.first().toMap();
        QVariantMap row = model->row(found);
        for (const QString &key : {DraftKey::kSeconds, DraftKey::kSourceMilliseconds, DraftKey::kLoggedSeconds,
                 DraftKey::kRemainingSeconds, DraftKey::kPostSeconds, DraftKey::kSession})
            row.insert(key, draft.value(key));
        if (row != model->row(found)) {
            touchedSinceCheck.insert(str(row, DraftKey::kSourceKey));
            model->updateRow(found, row);
            rowsChanged = true;
        }
    }
    sessions = fresh;
    if (rowsChanged)
        updatePostButton();
    return true;
}

bool JiraReviewWindowController::isOpen() const
{
    return d->window->isVisible();
}

void JiraReviewWindowController::setReviewDay(const QDate &day)
{
    d->period = Private::Period::Day;
    const QSignalBlocker blocker(d->periodBox);
    d->periodBox->setCurrentIndex(0);
    d->setDay(day);
    d->updatePeriodControls();
}

void JiraReviewWindowController::setRange(const QDate &from, const QDate &to)
{
    {
        const QSignalBlocker blockPeriod(d->periodBox), blockFrom(d->fromEdit), blockTo(d->toEdit);
        d->periodBox->setCurrentIndex(int(Private::Period::CustomRange));
        d->fromEdit->setDate(from);
        d->toEdit->setDate(to);
    }
    d->period = Private::Period::CustomRange;
    d->rangeFrom = from;
    d->rangeTo = to;
    d->updatePeriodControls();
    d->reload();
    requestAutomaticCheck();
}

void JiraReviewWindowController::calendarDayChanged()
{
    if (d->busy)
        return;
    if (d->showingToday && d->reviewDay != QDate::currentDate()) {
        d->reviewDay = QDate::currentDate();
        d->updatePeriodControls();
        d->reload();
    } else {
        d->updatePeriodControls();
    }
}

bool JiraReviewWindowController::posting() const
{
    return d->posting;
}

bool JiraReviewWindowController::busy() const
{
    return d->busy;
}

QString JiraReviewWindowController::statusText() const
{
    return d->status;
}

QString JiraReviewWindowController::selectedCloud() const
{
    return d->cloud;
}

QMenu *JiraReviewWindowController::contextMenu(const QModelIndex &index, QWidget *parent) const
{
    return d->contextMenu(index, parent);
}

bool JiraReviewWindowController::exportHistoryTo(const QString &path, QString *error) const
{
    return d->writeHistory(path, error);
}

bool JiraReviewWindowController::writeSnapshot(const QString &path) const
{
    d->window->ensurePolished();
    if (!d->window->isVisible())
        d->window->layout()->activate();
    return d->window->grab().save(path, "PNG");
}

bool JiraReviewWindowController::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == d->window && (event->type() == QEvent::Close || event->type() == QEvent::Hide))
        QSettings().setValue(kGeometryKey, d->window->saveGeometry());
    return QObject::eventFilter(watched, event);
}

bool JiraReviewWindowController::jiraConnected() const
{
    return d->client->connected();
}

QVariantList JiraReviewWindowController::sites() const
{
    return d->sites;
}

void JiraReviewWindowController::reloadAssignments()
{
    try {
        d->assignments = std::make_unique<IssueAssignments>(d->store);
    } catch (const NamedFailure &failure) {
        d->assignments.reset();
        d->setStatus(failure.reason());
    }
    d->reload();
}
