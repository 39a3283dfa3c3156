// Checking Jira, posting, and the Jira connection and sites of the Worklogs window. The work runs on the Jira
// client's queue; every result comes back to the main thread with the operation's serial number, and a result
// of a superseded operation is dropped.

#include "app/ui/jirareviewwindow_p.h"
#include "app/ui/rowkeys.h"
#include "jira/connectionsettings.h"
#include "platform/clock.h"
#include "platform/platformerror.h"
#include "records/comparison.h"
#include "records/draft.h"
#include "records/jiraanswer.h"
#include "records/promptresult.h"
#include "records/session.h"
#include "worklogs/engine.h"
#include "worklogs/namedfailure.h"

#include <QComboBox>
#include <QLabel>
#include <QMainWindow>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QSettings>

namespace
{

const QString kSelectedCloud = QStringLiteral("JiraSelectedCloud");
const QString kAccountsByCloud = QStringLiteral("JiraAccountsByCloud");

QString str(const QVariantMap &map, const QString &key)
{
    return map.value(key).toString();
}

qint64 num(const QVariantMap &map, const QString &key)
{
    return map.value(key).toLongLong();
}

QStringList keysOf(const QVariantMap &event)
{
    return event.value(ProgressKey::kSourceKeys).toStringList();
}

} // namespace

void JiraReviewWindowController::Private::setBusy(bool isBusy, bool isPosting)
{
    const bool postingChanged = posting != isPosting;
    busy = isBusy;
    posting = isPosting;
    tree->setSpinning(isBusy);
    if (!isBusy && titlesChanged)
        titleReload.start();
    refreshOperationKeys();
    updatePostButton();
    updateConnectionControls();
    if (postingChanged)
        emit q->postingChanged(posting);
    emit q->statusChanged();
}

void JiraReviewWindowController::Private::setRowProgress(const QStringList &keys, const QString &text, bool active)
{
    // Only the named rows change: a check of a heavy day sends several events per issue.
    for (const QString &key : keys) {
        if (text.isEmpty())
            progress.remove(key);
        else
            progress.insert(key, text);
        if (active)
            progressActive.insert(key);
        else
            progressActive.remove(key);
        const int index = rowForSource(key);
        if (index < 0)
            continue;
        QVariantMap row = model->row(index);
        if (applyProgressKeys(row))
            model->updateRow(index, row);
    }
}

void JiraReviewWindowController::Private::startCompare(bool automatic)
{
    if (busy) {
        if (!automatic)
            setStatus(QStringLiteral("Wait for the current Jira operation to finish."));
        return;
    }
    if (cloud.isEmpty() || !client->connected()) {
        if (!automatic)
            setStatus(QStringLiteral("Connect Jira to check and post these worklogs."));
        return;
    }
    const QVariantList sent = model->rows();
    if (sent.isEmpty()) {
        if (!automatic)
            setStatus(QStringLiteral("Nothing to check for this period."));
        return;
    }
    // Ticks made before the check are the intent it settles.
    // Once the user has ticked or a check has ticked for them, the ticks and unticks are choices the next
    // check keeps; before that, the check ticks what is ready.
    if (ticksChosen) {
        QHash<QString, bool> wanted;
        for (const QVariant &item : sent) {
            const QVariantMap row = item.toMap();
            wanted.insert(str(row, DraftKey::kSourceKey), row.value(DraftKey::kInclude).toBool());
        }
        intent = wanted;
    } else {
        intent.reset();
    }
    const qint64 operation = ++serial;
    progress.clear();
    progressActive.clear();
    setStatus(QStringLiteral("Checking Jira…"));
    progressText = QStringLiteral("Preparing Jira requests…");
    progressLabel->setText(progressText);
    setBusy(true, false);

    const QString site = cloud;
    const QString directory = store;
    QPointer<JiraReviewWindowController> self(q);
    rebuiltSinceCheck = false;
    touchedSinceCheck.clear();
    const std::optional<QHash<QString, bool>> wanted = intent;
    client->queue().async([this, self, operation, sent, site, directory, wanted] {
        QVariantMap result = service->compareDrafts(sent, site, [self, this, operation](const QVariantMap &event) {
            QMetaObject::invokeMethod(
                self, [self, this, operation, event] { progressEvent(operation, event); }, Qt::QueuedConnection);
        });
        // The outcome is stored, stamped and put into the rows as they were sent here, off the main thread:
        // for a heavy day that is most of the work of a check after the network.
        CheckedRows checked;
        if (!result.contains(CheckKey::kError)) {
            const QDateTime now = Clock::shared().wallNow();
            QVariantList drafts = result.value(CheckKey::kDrafts).toList();
            ComparisonCache(directory).saveDrafts(drafts, site, str(result, CheckKey::kAccount), now);
            for (QVariant &item : drafts) {
                QVariantMap draft = item.toMap();
                draft.insert(DraftKey::kComparisonAt, now);
                draft.insert(DraftKey::kComparisonCurrent, true);
                draft.insert(RowKey::kFingerprint, JRComparisonFingerprint(draft));
                item = draft;
            }
            result.insert(CheckKey::kDrafts, drafts);
            result.insert(RowKey::kCheckedAt, now);
            checked = checkedRows(sent, drafts, wanted);
        }
        QMetaObject::invokeMethod(
            self, [this, operation, result, checked] { finishCompare(operation, result, checked); },
            Qt::QueuedConnection);
    });
}

JiraReviewWindowController::Private::CheckedRows JiraReviewWindowController::Private::checkedRows(
    const QVariantList &sent, const QVariantList &drafts, const std::optional<QHash<QString, bool>> &wanted)
{
    QHash<QString, QVariantMap> compared;
    for (const QVariant &item : drafts) {
        const QVariantMap draft = item.toMap();
        compared.insert(str(draft, DraftKey::kSourceKey), draft);
    }
    CheckedRows checked;
    checked.rows = sent;
    checked.valid = applyComparison(checked.rows, compared);
    if (!checked.valid) {
        checked.rows.clear();
        return checked;
    }
    includeEligible(checked.rows);
    checked.refused = review::settleSelectionIntent(checked.rows, wanted ? &*wanted : nullptr);
    checked.intent = wanted;
    return checked;
}

void JiraReviewWindowController::Private::includeEligible(QVariantList &rows)
{
    for (QVariant &item : rows) {
        QVariantMap row = item.toMap();
        const bool eligible = row.value(DraftKey::kEligible).toBool();
        if (row.value(DraftKey::kInclude).toBool() != eligible) {
            row.insert(DraftKey::kInclude, eligible);
            item = row;
        }
    }
}

void JiraReviewWindowController::Private::progressEvent(qint64 operation, const QVariantMap &event)
{
    if (operation != serial)
        return;
    const QString state = str(event, ProgressKey::kState);
    const bool post = str(event, ProgressKey::kPhase) == QStringLiteral("post");
    const qint64 completed = num(event, ProgressKey::kCompleted), total = num(event, ProgressKey::kTotal);
    const QString issue = str(event, ProgressKey::kIssue);
    const QString count = review::progressCount(completed, total, post);
    if (!post) {
        if (state == QStringLiteral("start")) {
            const QVariantList items = event.value(ProgressKey::kItems).toList();
            for (int i = 0; i < items.size(); ++i)
                setRowProgress(keysOf(items[i].toMap()), QStringLiteral("Waiting · %1 in queue").arg(i + 1), false);
            const qint64 drafts = model->rows().size();
            progressText = QStringLiteral("Checking %1 worklog%2 in Jira…")
                               .arg(drafts)
                               .arg(drafts == 1 ? QString() : QStringLiteral("s"));
        } else if (state == QStringLiteral("active")) {
            setRowProgress(keysOf(event), QStringLiteral("Checking…"), true);
            progressText = QStringLiteral("Fetching Jira worklogs · %1").arg(issue);
        } else if (state == QStringLiteral("page")) {
            setRowProgress(keysOf(event),
                QStringLiteral("Checking… · page %1/%2")
                    .arg(num(event, ProgressKey::kPage))
                    .arg(num(event, ProgressKey::kPages)),
                true);
            progressText = QStringLiteral("%1 · Fetching worklogs, page %2 of %3")
                               .arg(issue)
                               .arg(num(event, ProgressKey::kPage))
                               .arg(num(event, ProgressKey::kPages));
        } else if (state == QStringLiteral("complete")) {
            setRowProgress(keysOf(event), QStringLiteral("Checked"), false);
        } else if (state == QStringLiteral("failed")) {
            setRowProgress(keysOf(event), QStringLiteral("Failed"), false);
        }
    } else {
        if (state == QStringLiteral("submitting")) {
            setRowProgress(keysOf(event), QStringLiteral("Posting to Jira…"), true);
            progressText = QStringLiteral("%1 · Sending worklog to Jira").arg(issue);
        } else if (state == QStringLiteral("complete")) {
            setRowProgress(keysOf(event), QStringLiteral("Posted"), false);
        } else if (state == QStringLiteral("failed")) {
            setRowProgress(keysOf(event), QStringLiteral("Failed"), false);
        }
    }
    progressLabel->setText(progressText + QStringLiteral(" · ") + count);
}

void JiraReviewWindowController::Private::finishCompare(
    qint64 operation, const QVariantMap &result, const CheckedRows &checked)
{
    if (operation != serial)
        return;
    progressLabel->clear();
    if (result.contains(CheckKey::kError)) {
        intent.reset();
        progress.clear();
        progressActive.clear();
        postAfterCheck = false;
        setBusy(false, false);
        const QString error = str(result, CheckKey::kError);
        setStatus(withDetail(
            error.isEmpty() ? QStringLiteral("Jira request failed.") : error, str(result, CheckKey::kDetail)));
        return;
    }
    account = str(result, CheckKey::kAccount);
    QSettings settings;
    QVariantMap accounts = settings.value(kAccountsByCloud).toMap();
    accounts.insert(cloud, account);
    settings.setValue(kAccountsByCloud, accounts);

    compared.clear();
    checkedDays.clear();
    for (const QVariant &item : result.value(CheckKey::kDrafts).toList()) {
        const QVariantMap draft = item.toMap();
        compared.insert(str(draft, DraftKey::kSourceKey), draft);
        checkedDays.insert(str(draft, DraftKey::kStarted).left(10));
    }
    comparisonAt = result.value(RowKey::kCheckedAt).toDateTime();
    const std::optional<QHash<QString, bool>> wanted = intent;
    intent.reset();
    busy = false;
    progress.clear();
    progressActive.clear();
    QVariantList rows;
    int refused = 0;
    // The rows merged on the Jira queue still hold when nothing rebuilt or changed them since they were sent.
    if (checked.valid && !rebuiltSinceCheck && touchedSinceCheck.isEmpty() && checked.intent == wanted
        && checked.rows.size() == model->rows().size()) {
        rows = checked.rows;
        refused = checked.refused;
    } else {
        rows = model->rows();
        if (rebuiltSinceCheck || !applyComparison(rows, compared)) {
            reload();
            rows = model->rows();
        }
        includeEligible(rows);
        refused = review::settleSelectionIntent(rows, wanted ? &*wanted : nullptr);
    }
    refreshReceipts();
    applyWindowKeys(rows, review::ReceiptIndex(receipts, cloud));
    model->setRows(rows);
    setBusy(false, false);
    ticksChosen = true;
    setStatus(
        refused > 0 ? review::untickedMessage(refused) : review::checkedText(comparisonAt, Clock::shared().wallNow()));
    if (postAfterCheck) {
        postAfterCheck = false;
        startPost();
    }
}

bool JiraReviewWindowController::Private::applyComparison(
    QVariantList &rows, const QHash<QString, QVariantMap> &outcome)
{
    for (QVariant &item : rows) {
        QVariantMap row = item.toMap();
        const QString key = str(row, DraftKey::kSourceKey);
        const auto found = outcome.constFind(key);
        if (found == outcome.cend())
            return false;
        const QVariantMap &last = found.value();
        // A title that arrived during the check changes the comment the engine would send; the row keeps the
        // comment that was checked, as a rebuild does.
        QVariantMap probe = row;
        if (str(last, DraftKey::kIssueTitle) != str(row, DraftKey::kIssueTitle)) {
            probe.insert(DraftKey::kIssueTitle, last.value(DraftKey::kIssueTitle));
            probe.insert(DraftKey::kComment, last.value(DraftKey::kComment));
        }
        if (str(last, RowKey::kFingerprint) != JRComparisonFingerprint(probe))
            return false;
        row = probe;
        for (const QString &field : kComparedKeys)
            row.insert(field, last.value(field));
        item = row;
    }
    return true;
}

void JiraReviewWindowController::Private::startPost()
{
    if (busy) {
        setStatus(QStringLiteral("Wait for the current Jira operation to finish."));
        return;
    }
    if (cloud.isEmpty() || account.isEmpty()) {
        setStatus(QStringLiteral("Connect Jira and choose a site in Worklogs first."));
        return;
    }
    const QVariantList rows = model->rows();
    const review::PostStep step = review::postStep(comparisonAt, Clock::shared().wallNow(), rows);
    if (step == review::PostStep::Recheck) {
        setStatus(review::postStepText(step));
        postAfterCheck = true;
        const QString text = status;
        startCompare(false);
        if (busy)
            setStatus(text);
        else
            postAfterCheck = false;
        return;
    }
    if (step != review::PostStep::Confirm) {
        setStatus(review::postStepText(step));
        return;
    }
    const QVariantList worklogs = review::worklogsToPost(rows);
    // Read once: the confirmation says what the post will do, and the post does exactly that.
    const bool reduce = JRReduceEstimateOnPost();
    const review::Confirmation ask = review::confirmation(worklogs, siteURL(), reduce);
    bool confirmed = false;
    if (q->confirmPost) {
        confirmed = q->confirmPost(ask.title, ask.text);
    } else {
        QMessageBox box(QMessageBox::Question, ask.title, ask.title, QMessageBox::NoButton, window);
        box.setInformativeText(ask.text);
        QPushButton *yes = box.addButton(QStringLiteral("Post worklogs"), QMessageBox::AcceptRole);
        box.addButton(QStringLiteral("Cancel"), QMessageBox::RejectRole);
        box.setDefaultButton(yes);
        box.exec();
        confirmed = box.clickedButton() == yes;
    }
    if (confirmed)
        runPost(worklogs, cloud, account, client->generation(),
            reduce ? WorklogService::Estimate::Reduce : WorklogService::Estimate::Leave);
}

void JiraReviewWindowController::Private::runPost(const QVariantList &worklogs, const QString &site, const QString &who,
    qint64 generation, WorklogService::Estimate estimate, PostDone done)
{
    if (busy) {
        if (done)
            done(false, QStringLiteral("Wait for the current Jira operation to finish."));
        return;
    }
    const qint64 operation = ++serial;
    progress.clear();
    progressActive.clear();
    const qint64 count = worklogs.size();
    setStatus(QStringLiteral("Posting worklogs to Jira…"));
    progressText = QStringLiteral("Posting %1 worklog%2…").arg(count).arg(count == 1 ? QString() : QStringLiteral("s"));
    progressLabel->setText(progressText + QStringLiteral(" · ") + review::progressCount(0, count, true));
    for (const QVariant &worklog : worklogs)
        setRowProgress(JRSourceKeysForRows({worklog}), QStringLiteral("Checking before post…"), false);
    setBusy(true, true);

    QPointer<JiraReviewWindowController> self(q);
    client->queue().async([this, self, operation, worklogs, site, who, generation, estimate, done] {
        QVariantList posted;
        QString failure, detail;
        try {
            posted = service->postDrafts(
                worklogs, site, who, generation, estimate, [self, this, operation](const QVariantMap &e) {
                    QMetaObject::invokeMethod(
                        self, [self, this, operation, e] { progressEvent(operation, e); }, Qt::QueuedConnection);
                });
        } catch (const NamedFailure &error) {
            // "ConnectionChanged" and the other named failures say themselves what to do next.
            failure = error.reason().isEmpty() ? QStringLiteral("Jira request failed.") : error.reason();
            detail = error.detail();
        } catch (const std::exception &) {
            failure = QStringLiteral("Posting failed.");
        }
        QMetaObject::invokeMethod(
            self,
            [this, operation, posted, failure, detail, done] { finishPost(operation, posted, failure, detail, done); },
            Qt::QueuedConnection);
    });
}

QString JiraReviewWindowController::Private::withDetail(const QString &message, const QString &detail)
{
    return detail.isEmpty() ? message : message + QLatin1Char('\n') + detail;
}

void JiraReviewWindowController::Private::showWaitNotice(const QString &text)
{
    // Only while an operation waits: a late notice must not cover the outcome.
    if (busy && !text.isEmpty())
        setStatus(text);
}

void JiraReviewWindowController::Private::finishPost(
    qint64 operation, const QVariantList &posted, const QString &failure, const QString &detail, const PostDone &done)
{
    if (done)
        done(failure.isEmpty() && !posted.isEmpty(), withDetail(failure, detail));
    if (operation != serial)
        return;
    progressLabel->clear();
    // What was just posted stays locked even before the ledger is read again.
    for (const QVariant &item : posted)
        for (const QString &key : item.toMap().value(PostedKey::kSourceKeys).toStringList())
            lockedSet.insert(cloud + QLatin1Char('|') + key);
    compared.clear();
    comparisonAt = QDateTime();
    receiptsStamp = QDateTime();
    QHash<QString, QString> outcome = progress;
    progressActive.clear();
    setBusy(false, false);
    reload();
    QString result;
    if (posted.isEmpty() && !failure.isEmpty())
        result = failure;
    else
        result = review::postedText(posted.size(), failure);
    result = withDetail(result, failure.isEmpty() ? QString() : detail);
    // Rows keep their "Posted" or "Failed" outcome until the next operation.
    progress = outcome;
    for (auto it = progress.begin(); it != progress.end();)
        it = (it.value() == QStringLiteral("Posted") || it.value() == QStringLiteral("Failed")) ? std::next(it)
                                                                                                : progress.erase(it);
    refreshDerivedKeys();
    updatePostButton();
    setStatus(result);
}

QString JiraReviewWindowController::Private::siteURL() const
{
    for (const QVariant &item : sites) {
        const QVariantMap site = item.toMap();
        if (str(site, JiraSiteKey::kId) == cloud)
            return str(site, JiraSiteKey::kUrl);
    }
    return {};
}

void JiraReviewWindowController::Private::loadSites()
{
    const qint64 generation = client->generation();
    QPointer<JiraReviewWindowController> self(q);
    client->queue().async([this, self, generation] {
        QVariantList resources;
        QString error;
        try {
            resources = client->resources();
        } catch (const NamedFailure &failure) {
            error = failure.reason();
        }
        QMetaObject::invokeMethod(
            self, [this, generation, resources, error] { sitesLoaded(generation, resources, error); },
            Qt::QueuedConnection);
    });
}

void JiraReviewWindowController::Private::sitesLoaded(
    qint64 generation, const QVariantList &resources, const QString &error)
{
    if (generation != client->generation())
        return;
    if (!error.isEmpty()) {
        setStatus(error);
        return;
    }
    sites.clear();
    for (const QVariant &item : resources) {
        const QVariantMap resource = item.toMap();
        const QStringList scopes = resource.value(JiraSiteKey::kScopes).toStringList();
        if (scopes.contains(QStringLiteral("read:jira-work")) && scopes.contains(QStringLiteral("write:jira-work")))
            sites.append(resource);
    }
    siteBox->clear();
    for (const QVariant &item : std::as_const(sites)) {
        const QVariantMap site = item.toMap();
        const QString name
            = str(site, JiraSiteKey::kName).isEmpty() ? str(site, JiraSiteKey::kUrl) : str(site, JiraSiteKey::kName);
        siteBox->addItem(name, str(site, JiraSiteKey::kId));
    }
    if (sites.isEmpty()) {
        selectSite({});
        setStatus(QStringLiteral("No Jira sites granted the required read/write scopes."));
        return;
    }
    const QString stored = QSettings().value(kSelectedCloud).toString();
    if (sites.size() == 1) {
        selectSite(str(sites.first().toMap(), JiraSiteKey::kId));
        return;
    }
    for (const QVariant &item : std::as_const(sites))
        if (str(item.toMap(), JiraSiteKey::kId) == stored) {
            selectSite(stored);
            return;
        }
    selectSite({});
    setStatus(QStringLiteral("Choose a Jira site to check these worklogs."));
}

void JiraReviewWindowController::Private::selectSite(const QString &cloudId)
{
    if (cloudId == cloud && !cloudId.isEmpty())
        return;
    bool offered = cloudId.isEmpty();
    for (const QVariant &item : std::as_const(sites))
        offered = offered || str(item.toMap(), JiraSiteKey::kId) == cloudId;
    if (!offered)
        return;
    ++serial; // results for the former site are dropped
    cloud = cloudId;
    compared.clear();
    comparisonAt = QDateTime();
    account = QSettings().value(kAccountsByCloud).toMap().value(cloud).toString();
    if (!cloud.isEmpty()) {
        QSettings().setValue(kSelectedCloud, cloud);
        siteBox->setCurrentIndex(siteBox->findData(cloud));
    }
    busy = false;
    posting = false;
    updateConnectionControls();
    reload();
    if (!cloud.isEmpty()) {
        setStatus(QString());
        q->requestAutomaticCheck();
    }
    if (q->connectionDidChange)
        q->connectionDidChange();
}

void JiraReviewWindowController::Private::updateConnectionControls()
{
    const bool connected = !authorising && client->connected();
    connectButton->setVisible(!connected);
    connectButton->setEnabled(!authorising);
    siteBox->setVisible(connected && sites.size() > 1);
    siteBox->setEnabled(!busy);
    checkButton->setVisible(connected);
    checkButton->setEnabled(!busy && !cloud.isEmpty());
    periodBox->setEnabled(!busy);
}

void JiraReviewWindowController::checkJira()
{
    d->startCompare(false);
}

void JiraReviewWindowController::requestAutomaticCheck()
{
    if (JRAutoCompareOnOpen() && isOpen())
        d->startCompare(true);
}

void JiraReviewWindowController::post()
{
    d->startPost();
}

void JiraReviewWindowController::selectSite(const QString &cloud)
{
    d->selectSite(cloud);
}

void JiraReviewWindowController::connectJira()
{
    QSettings settings;
    const QString origin = ConnectionSettings(settings).effectiveOrigin();
    if (origin.isEmpty()) {
        d->setStatus(QStringLiteral("Enter the HTTPS origin of your app's configured authorization service."));
        return;
    }
    d->authorising = true;
    d->connectedOrigin = origin;
    d->updateConnectionControls();
    d->setStatus(QStringLiteral("Finish connecting Jira in your browser…"));
    QPointer<JiraReviewWindowController> self(this);
    d->client->connect(origin, [self, this](const PlatformError &error) {
        if (!self)
            return;
        d->authorising = false;
        d->updateConnectionControls();
        if (error.isError()) {
            d->setStatus(error.description);
            return;
        }
        d->setStatus(QStringLiteral("Jira connection changed. Check Jira again."));
        d->loadSites();
        if (connectionDidChange)
            connectionDidChange();
    });
}

void JiraReviewWindowController::disconnectJira()
{
    d->client->disconnect();
    d->authorising = false;
    d->sites.clear();
    d->siteBox->clear();
    d->selectSite({});
    d->setStatus(QStringLiteral("Disconnected locally. To revoke consent, remove the app in your Atlassian "
                                "account’s connected apps."));
}

void JiraReviewWindowController::connectionSettingsChanged()
{
    QSettings settings;
    const QString origin = ConnectionSettings(settings).effectiveOrigin();
    if (origin == d->connectedOrigin)
        return;
    const bool wasConnected = d->client->connected();
    d->connectedOrigin = origin;
    if (!wasConnected)
        return;
    d->client->disconnect();
    d->sites.clear();
    d->siteBox->clear();
    d->selectSite({});
    d->setStatus(QStringLiteral("Authorization server changed. Connect in browser to reconnect Jira."));
}

void JiraReviewWindowController::prepareConnection()
{
    QSettings settings;
    d->connectedOrigin = ConnectionSettings(settings).effectiveOrigin();
    d->updateConnectionControls();
    if (d->client->connected())
        d->loadSites();
    else
        d->setStatus(QStringLiteral("Connect Jira to check and post these worklogs."));
}

bool JiraReviewWindowController::isConnected() const
{
    return !d->authorising && d->client->connected();
}

bool JiraReviewWindowController::readyForPrompt() const
{
    return isConnected() && !d->cloud.isEmpty() && !d->busy;
}

QString JiraReviewWindowController::siteName() const
{
    for (const QVariant &item : std::as_const(d->sites)) {
        const QVariantMap site = item.toMap();
        if (str(site, JiraSiteKey::kId) != d->cloud)
            continue;
        const QString name = str(site, JiraSiteKey::kName);
        return name.isEmpty() ? str(site, JiraSiteKey::kUrl) : name;
    }
    return {};
}

QVariantMap JiraReviewWindowController::resolvePromptSession(const QVariantMap &session)
{
    d->refreshReceipts();
    return d->resolvedSession(session, review::ReceiptIndex(d->receipts, d->cloud));
}

void JiraReviewWindowController::comparePromptSession(
    const QVariantMap &session, const QVariantList &daySessions, PromptCompletion completion)
{
    if (!completion)
        return;
    const auto answer = [this, completion](const QVariantMap &result) {
        QMetaObject::invokeMethod(
            this, [completion, result] { completion(result); }, Qt::QueuedConnection);
    };
    if (!readyForPrompt())
        return answer({{PromptResultKey::kError, QStringLiteral("Connect Jira to check and post these worklogs.")}});

    // The day's sessions as the window would resolve them; only the ended session's issue is compared, which
    // is all the prompt offers and all that a combined worklog of that issue needs.
    d->refreshReceipts();
    const review::ReceiptIndex index(d->receipts, d->cloud);
    const QDate day = QDateTime::fromMSecsSinceEpoch(num(session, SessionKey::kStartMs)).date();
    const QString key = JRSourceKey(session);
    QVariantList resolved;
    QVariantMap ended;
    for (const QVariant &item : daySessions) {
        const QVariantMap record = item.toMap();
        if (QDateTime::fromMSecsSinceEpoch(num(record, SessionKey::kStartMs)).date() != day)
            continue;
        const QVariantMap resolvedRecord = d->resolvedSession(record, index);
        if (JRSourceKey(record) == key) {
            if (!ended.isEmpty())
                continue;
            ended = resolvedRecord;
        }
        resolved.append(resolvedRecord);
    }
    if (ended.isEmpty()) {
        ended = d->resolvedSession(session, index);
        resolved.append(ended);
    }
    const QString issue = str(ended, SessionKey::kIssue);
    QVariantList drafts;
    for (const QVariant &item : JRBuildDrafts(resolved, day.startOfDay()))
        if (str(item.toMap(), DraftKey::kIssue) == issue)
            drafts.append(item);

    const QString site = d->cloud;
    const qint64 generation = d->client->generation();
    QPointer<JiraReviewWindowController> self(this);
    d->client->queue().async([this, self, drafts, ended, day, site, generation, completion] {
        const QVariantMap compared = d->service->compareDrafts(drafts, site);
        QMetaObject::invokeMethod(
            self,
            [this, compared, ended, day, site, generation, completion] {
                completion(d->promptResult(compared, ended, day, site, generation));
            },
            Qt::QueuedConnection);
    });
}

QVariantMap JiraReviewWindowController::Private::promptResult(const QVariantMap &checked, const QVariantMap &ended,
    const QDate &day, const QString &site, qint64 generation) const
{
    QVariantMap result {{PromptResultKey::kSession, ended}, {PromptResultKey::kDate, day.toString(Qt::ISODate)},
        {PromptResultKey::kCloud, site}, {PromptResultKey::kGeneration, generation}};
    if (checked.contains(CheckKey::kError)) {
        result.insert(PromptResultKey::kError, checked.value(CheckKey::kError));
        if (checked.contains(CheckKey::kDetail))
            result.insert(PromptResultKey::kDetail, checked.value(CheckKey::kDetail));
        return result;
    }
    const QString key = JRSourceKey(ended);
    const QVariantList drafts = checked.value(CheckKey::kDrafts).toList();
    QVariantList eligible;
    for (const QVariant &item : drafts) {
        QVariantMap draft = item.toMap();
        if (!draft.value(DraftKey::kEligible).toBool())
            continue;
        draft.insert(DraftKey::kInclude, true);
        eligible.append(draft);
    }
    QVariantMap post;
    for (const QVariant &item : JRWorklogsToPost(eligible)) {
        const QVariantMap worklog = item.toMap();
        QStringList keys = worklog.value(DraftKey::kSourceKeys).toStringList();
        if (keys.isEmpty())
            keys.append(str(worklog, DraftKey::kSourceKey));
        if (keys.contains(key))
            post = worklog;
    }
    const bool endedEligible = !post.isEmpty() && JRPostSeconds(post) > 0;
    result.insert(PromptResultKey::kAccount, checked.value(CheckKey::kAccount));
    result.insert(PromptResultKey::kDrafts, drafts);
    result.insert(PromptResultKey::kEligible, eligible);
    result.insert(PromptResultKey::kEndedEligible, endedEligible);
    if (endedEligible) {
        result.insert(PromptResultKey::kPost, post);
        result.insert(PromptResultKey::kManualMatches, post.value(DraftKey::kManualMatches).toList());
    }
    return result;
}

void JiraReviewWindowController::postPrompt(const QVariantMap &result, PromptPostCompletion completion)
{
    const auto refuse = [this, completion](const QString &error) {
        if (completion)
            QMetaObject::invokeMethod(
                this, [completion, error] { completion(false, error); }, Qt::QueuedConnection);
    };
    const QVariantMap worklog = result.value(PromptResultKey::kPost).toMap();
    if (worklog.isEmpty() || result.contains(PromptResultKey::kError))
        return refuse(QStringLiteral("Nothing to post."));
    if (d->busy)
        return refuse(QStringLiteral("Wait for the current Jira operation to finish."));
    // The post belongs to the comparison the user saw: another site, or a sign-in since, refuses it.
    const QString site = str(result, PromptResultKey::kCloud);
    if (site.isEmpty() || site != d->cloud || !isConnected())
        return refuse(QStringLiteral("Jira connection changed. Check Jira again."));
    const auto estimate = JRReduceEstimateOnPost() ? WorklogService::Estimate::Reduce : WorklogService::Estimate::Leave;
    d->runPost({worklog}, site, str(result, PromptResultKey::kAccount), num(result, PromptResultKey::kGeneration),
        estimate, [completion](bool ok, const QString &error) {
            if (completion)
                completion(ok, error);
        });
}
