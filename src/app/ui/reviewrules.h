#pragma once

// The rules of the Worklogs window that need no widgets: what a row shows in "Jira Status", whether it may be
// ticked or edited, when a session is locked by a submission, what the footer and the post button say, and
// whether a post may go ahead. Rows are the window's draft records (the engine's drafts plus the window's own
// keys: "include", "history_row", "comparison_current", "comparison_at", "combined_seconds", ...).

#include <QDateTime>
#include <QHash>
#include <QSet>
#include <QString>
#include <QVariantList>
#include <QVariantMap>

namespace review
{

// What the status symbol means; the view maps it to a themed icon.
enum class Symbol { Combined, Ready, Attention, Done, Neutral, Waiting, Checked, Failed };
enum class Tint { Accent, Attention, Secondary, Failure };

struct StatusLook {
    QString text;
    Symbol symbol = Symbol::Neutral;
    Tint tint = Tint::Secondary;
};

// A freedesktop icon name with the same meaning as the symbol.
QString iconName(Symbol symbol);

// "<1m" for 1 to 59 seconds, the duration text otherwise.
QString durationCell(qint64 seconds);

// One line per session, so a changed line (start, end, running, description, issue) invalidates the choices
// carried over for that day.
QString daySignature(const QVariantList &sessions);

// The status cell of a row. A row that posts combined with others carries "combined_seconds".
StatusLook statusLook(const QVariantMap &row);

// Per-row progress while an operation runs: "Checking…", "Posting to Jira…", ... or the outcome.
StatusLook progressLook(const QString &progress);

bool unavailable(const QVariantMap &row);
bool groupUnavailable(const QVariantList &children);

// Receipts of one site indexed by the source keys they name, directly or through their coverage.
class ReceiptIndex
{
public:
    ReceiptIndex() = default;
    ReceiptIndex(const QVariantMap &receipts, const QString &cloud);
    // The receipts (with their marker under "marker") that name `sourceKey`.
    QVariantList receiptsFor(const QString &sourceKey) const { return m_bySource.value(sourceKey); }
    bool isEmpty() const { return m_bySource.isEmpty(); }

private:
    QHash<QString, QVariantList> m_bySource;
};

enum class Lock { None, Assignment, Recorded };

// Why a row's session is locked: its assignment was frozen by a post or the window locked it, or a receipt
// on the site names it (a pending one always; a posted one when it covers the whole session or carries the
// session's own marker).
Lock lockedSession(const QVariantMap &row, const QString &cloud, const QString &account, const QSet<QString> &lockedSet,
    const ReceiptIndex &receipts);

// A pending tick intent: source key -> intended tick. Null pointer = no intent.
bool canSelectDraft(const QVariantMap &row, bool busy, bool locked, const QHash<QString, bool> *intent);
bool toPostEditable(const QVariantMap &row, bool busy, bool lockedBySubmission);

// Seconds for a "To Post" text, or -1 when it is not a positive whole number of minutes up to `remaining`.
qint64 toPostSeconds(const QString &text, qint64 remaining);
QString toPostRefusal();

// Sets each row's "include" from the intent (and eligibility; rows the intent does not name keep theirs);
// returns how many intended rows were not eligible. Without an intent, unticks every row that is not current and
// eligible and returns those.
int settleSelectionIntent(QVariantList &rows, const QHash<QString, bool> *intent);
QString untickedMessage(int count);

QString footerText(const QVariantList &rows, bool history, int hiddenShort);

// The worklogs the ticked, current, eligible rows make.
QVariantList worklogsToPost(const QVariantList &rows);

struct PostButton {
    QString title;
    QString toolTip;
    bool enabled = false;
    int count = 0;
    qint64 seconds = 0;
};
PostButton postButton(const QVariantList &rows, bool busy);

enum class PostStep { Recheck, NothingEligible, OnlyFragments, Confirm };
// Posting never proceeds on a check more than 300 seconds old.
PostStep postStep(const QDateTime &comparisonAt, const QDateTime &now, const QVariantList &rows);
QString postStepText(PostStep step);

struct Confirmation {
    QString title;
    QString text;
};
Confirmation confirmation(const QVariantList &worklogs, const QString &site, bool reduceEstimate);
QString postedText(qint64 count, const QString &detail);

// "0 of 3 issues", "2 of 3 worklogs".
QString progressCount(qint64 completed, qint64 total, bool posting);
QString checkedText(const QDateTime &at, const QDateTime &now);

} // namespace review
