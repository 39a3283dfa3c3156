// Checking Jira, posting, and the Jira connection and sites of the Worklogs window. The work runs on the Jira
// client's queue; every result comes back to the main thread with the operation's serial number, and a result
// of a superseded operation is dropped.

#include "app/ui/jirareviewwindow_p.h"
#include "jira/connectionsettings.h"
#include "platform/failure.h"
#include "worklogs/engine.h"

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
    return event.value(QStringLiteral("source_keys")).toStringList();
}

} // namespace

void JiraReviewWindowController::Private::setBusy(bool isBusy, bool isPosting)
{
    const bool postingChanged = posting != isPosting;
    busy = isBusy;
    posting = isPosting;
    tree->setSpinning(isBusy);
    refreshDerivedKeys();
    updatePostButton();
    updateConnectionControls();
    if (postingChanged)
        emit q->postingChanged(posting);
    emit q->statusChanged();
}

void JiraReviewWindowController::Private::setRowProgress(const QStringList &keys, const QString &text, bool active)
{
    for (const QString &key : keys) {
        if (text.isEmpty())
            progress.remove(key);
        else
            progress.insert(key, text);
        if (active)
            progressActive.insert(key);
        else
            progressActive.remove(key);
    }
    refreshDerivedKeys();
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
            wanted.insert(str(row, QStringLiteral("source_key")), row.value(QStringLiteral("include")).toBool());
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
    QPointer<JiraReviewWindowController> self(q);
    client->queue().async([this, self, operation, sent, site] {
        const QVariantMap result
            = service->compareDrafts(sent, site, [self, this, operation](const QVariantMap &event) {
                  QMetaObject::invokeMethod(
                      self, [self, this, operation, event] { progressEvent(operation, event); }, Qt::QueuedConnection);
              });
        QMetaObject::invokeMethod(
            self, [this, operation, result, sent] { finishCompare(operation, result, sent); }, Qt::QueuedConnection);
    });
}

void JiraReviewWindowController::Private::progressEvent(qint64 operation, const QVariantMap &event)
{
    if (operation != serial)
        return;
    const QString state = str(event, QStringLiteral("state"));
    const bool post = str(event, QStringLiteral("phase")) == QStringLiteral("post");
    const qint64 completed = num(event, QStringLiteral("completed")), total = num(event, QStringLiteral("total"));
    const QString issue = str(event, QStringLiteral("issue"));
    const QString count = review::progressCount(completed, total, post);
    if (!post) {
        if (state == QStringLiteral("start")) {
            const QVariantList items = event.value(QStringLiteral("items")).toList();
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
                    .arg(num(event, QStringLiteral("page")))
                    .arg(num(event, QStringLiteral("pages"))),
                true);
            progressText = QStringLiteral("%1 · Fetching worklogs, page %2 of %3")
                               .arg(issue)
                               .arg(num(event, QStringLiteral("page")))
                               .arg(num(event, QStringLiteral("pages")));
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
    qint64 operation, const QVariantMap &result, const QVariantList &sent)
{
    if (operation != serial)
        return;
    progressLabel->clear();
    if (result.contains(QStringLiteral("error"))) {
        intent.reset();
        progress.clear();
        progressActive.clear();
        postAfterCheck = false;
        setBusy(false, false);
        const QString error = str(result, QStringLiteral("error"));
        setStatus(error.isEmpty() ? QStringLiteral("Jira request failed.") : error);
        return;
    }
    const QDateTime now = QDateTime::currentDateTime();
    account = str(result, QStringLiteral("account"));
    QSettings settings;
    QVariantMap accounts = settings.value(kAccountsByCloud).toMap();
    accounts.insert(cloud, account);
    settings.setValue(kAccountsByCloud, accounts);

    QVariantList drafts = result.value(QStringLiteral("drafts")).toList();
    cache.saveDrafts(drafts, cloud, account, now);
    compared.clear();
    checkedDays.clear();
    for (const QVariant &item : std::as_const(drafts)) {
        QVariantMap draft = item.toMap();
        draft.insert(QStringLiteral("comparison_at"), now);
        draft.insert(QStringLiteral("comparison_current"), true);
        draft.insert(QStringLiteral("fingerprint"), JRComparisonFingerprint(draft));
        compared.insert(str(draft, QStringLiteral("source_key")), draft);
        checkedDays.insert(str(draft, QStringLiteral("started")).left(10));
    }
    Q_UNUSED(sent);
    comparisonAt = now;
    const std::optional<QHash<QString, bool>> wanted = intent;
    intent.reset();
    busy = false;
    reload();
    QVariantList rows = model->rows();
    for (QVariant &item : rows) {
        QVariantMap row = item.toMap();
        row.insert(QStringLiteral("include"), row.value(QStringLiteral("eligible")).toBool());
        item = row;
    }
    const int refused = review::settleSelectionIntent(rows, wanted ? &*wanted : nullptr);
    model->setRows(rows);
    progress.clear();
    progressActive.clear();
    setBusy(false, false);
    ticksChosen = true;
    setStatus(refused > 0 ? review::untickedMessage(refused) : review::checkedText(comparisonAt, now));
    if (postAfterCheck) {
        postAfterCheck = false;
        startPost();
    }
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
    const review::PostStep step = review::postStep(comparisonAt, QDateTime::currentDateTime(), rows);
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
    const review::Confirmation ask = review::confirmation(worklogs, siteURL(), JRReduceEstimateOnPost());
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
        runPost(worklogs);
}

void JiraReviewWindowController::Private::runPost(const QVariantList &worklogs)
{
    if (busy)
        return;
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

    const QString site = cloud, who = account;
    const qint64 generation = client->generation();
    QPointer<JiraReviewWindowController> self(q);
    client->queue().async([this, self, operation, worklogs, site, who, generation, count] {
        QVariantList posted;
        QString failure;
        try {
            posted
                = service->postDrafts(worklogs, site, who, generation, [self, this, operation](const QVariantMap &e) {
                      QMetaObject::invokeMethod(
                          self, [self, this, operation, e] { progressEvent(operation, e); }, Qt::QueuedConnection);
                  });
        } catch (const NamedFailure &error) {
            failure = error.reason().isEmpty() ? QStringLiteral("Jira request failed.") : error.reason();
        }
        QMetaObject::invokeMethod(
            self, [this, operation, posted, failure, count] { finishPost(operation, posted, failure, count); },
            Qt::QueuedConnection);
    });
}

void JiraReviewWindowController::Private::finishPost(
    qint64 operation, const QVariantList &posted, const QString &failure, qint64 count)
{
    if (operation != serial)
        return;
    Q_UNUSED(count);
    progressLabel->clear();
    // What was just posted stays locked even before the ledger is read again.
    for (const QVariant &item : posted)
        for (const QString &key : item.toMap().value(QStringLiteral("source_keys")).toStringList())
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
        if (str(site, QStringLiteral("id")) == cloud)
            return str(site, QStringLiteral("url"));
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
        const QStringList scopes = resource.value(QStringLiteral("scopes")).toStringList();
        if (scopes.contains(QStringLiteral("read:jira-work")) && scopes.contains(QStringLiteral("write:jira-work")))
            sites.append(resource);
    }
    siteBox->clear();
    for (const QVariant &item : std::as_const(sites)) {
        const QVariantMap site = item.toMap();
        const QString name = str(site, QStringLiteral("name")).isEmpty() ? str(site, QStringLiteral("url"))
                                                                         : str(site, QStringLiteral("name"));
        siteBox->addItem(name, str(site, QStringLiteral("id")));
    }
    if (sites.isEmpty()) {
        selectSite({});
        setStatus(QStringLiteral("No Jira sites granted the required read/write scopes."));
        return;
    }
    const QString stored = QSettings().value(kSelectedCloud).toString();
    if (sites.size() == 1) {
        selectSite(str(sites.first().toMap(), QStringLiteral("id")));
        return;
    }
    for (const QVariant &item : std::as_const(sites))
        if (str(item.toMap(), QStringLiteral("id")) == stored) {
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
        offered = offered || str(item.toMap(), QStringLiteral("id")) == cloudId;
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
