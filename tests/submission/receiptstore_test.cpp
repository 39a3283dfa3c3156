#include "submission/receiptcoverage.h"
#include "submission/receiptstore.h"

#include "fsguards.h"
#include "support/testenv.h"
#include "worklogs/namedfailure.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>

#include <gtest/gtest.h>

#include <functional>

using namespace Qt::StringLiterals;

namespace
{

const QString kUnreadable = u"Submission history is unreadable. Posting is blocked to prevent duplicates."_s;
const QString kUnsaved = u"Could not save submission history. Posting stopped."_s;

QVariantMap postedReceipt()
{
    return QVariantMap {
        {u"state"_s, u"posted"_s},
        {u"issue"_s, u"ABC-12"_s},
        {u"source_key"_s, u"k1"_s},
        {u"coverage"_s, QVariantMap {{u"k1"_s, 3600}}},
        {u"cloud"_s, u"cloud-1"_s},
        {u"payload"_s, QVariantMap {{u"started"_s, u"2026-03-02T09:00:00.000+0100"_s}, {u"timeSpentSeconds"_s, 3600}}},
        {u"id"_s, u"20001"_s},
    };
}

template<typename Action> QString failureOf(Action action)
{
    try {
        action();
    } catch (const NamedFailure &failure) {
        return failure.name() + u": "_s + failure.reason();
    }
    return {};
}

} // namespace

TEST(ReceiptStore, MissingLedgerIsEmptyAndASavedLedgerReadsBackWhole)
{
    const QString dir = testenv::freshDir(u"receipts"_s);
    ReceiptStore store(dir);
    EXPECT_TRUE(store.receipts().isEmpty());

    const QVariantMap ledger {{u"m1"_s, postedReceipt()}};
    store.saveReceipts(ledger);
    EXPECT_EQ(store.receipts(), ledger);
    EXPECT_EQ(fileMode(store.path()), 0600);
    EXPECT_FALSE(fileBytes(store.path()).contains('\n')) << "the ledger is written as compact JSON";
    EXPECT_EQ(QDir(dir).entryList(QDir::Files), QStringList {u"jira-receipts.json"_s})
        << "no temporary file is left behind";
}

struct DamagedLedger {
    const char *name;
    std::function<void(const QString &path)> damage;
};

void PrintTo(const DamagedLedger &ledger, std::ostream *out)
{
    *out << ledger.name;
}

class ReceiptStoreDamaged : public ::testing::TestWithParam<DamagedLedger>
{
};

TEST_P(ReceiptStoreDamaged, BlocksAndLeavesTheFileAsItWas)
{
    const QString dir = testenv::freshDir(u"receipts"_s);
    ReceiptStore store(dir);
    GetParam().damage(store.path());
    const QByteArray before = fileBytes(store.path());
    {
        ScopedPermissionChecks permissions;
        EXPECT_EQ(failureOf([&] { store.receipts(); }), u"ReceiptError: "_s + kUnreadable);
    }
    EXPECT_EQ(fileBytes(store.path()), before);
}

namespace
{

void writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(bytes);
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Ledgers, ReceiptStoreDamaged,
    ::testing::Values(
        DamagedLedger {"InvalidJson", [](const QString &path) { writeFile(path, "{\"m1\": {\"state\": \"pos"); }},
        DamagedLedger {"JsonArray", [](const QString &path) { writeFile(path, "[{\"state\":\"posted\"}]"); }},
        DamagedLedger {"JsonScalar", [](const QString &path) { writeFile(path, "42"); }},
        DamagedLedger {"EmptyFile", [](const QString &path) { writeFile(path, ""); }},
        DamagedLedger {"Directory", [](const QString &path) { QDir().mkpath(path); }},
        // A link whose target is gone "exists" as a link: it must block, not read as an empty ledger.
        DamagedLedger {"DanglingLink", [](const QString &path) { QFile::link(path + u".gone"_s, path); }},
        DamagedLedger {"NoReadPermission",
            [](const QString &path) {
                writeFile(path, "{}");
                QFile::setPermissions(path, QFileDevice::WriteOwner);
            }}),
    [](const ::testing::TestParamInfo<DamagedLedger> &param) { return std::string(param.param.name); });

TEST(ReceiptStore, RefusedWriteKeepsTheOldLedger)
{
    const QString dir = testenv::freshDir(u"receipts"_s);
    ReceiptStore store(dir);
    store.saveReceipts({{u"m1"_s, postedReceipt()}});
    const QByteArray before = fileBytes(store.path());

    QFile::setPermissions(dir, QFileDevice::ReadOwner | QFileDevice::ExeOwner);
    QString failure;
    {
        ScopedPermissionChecks permissions;
        failure = failureOf([&] { store.saveReceipts({}); });
    }
    QFile::setPermissions(dir, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);

    EXPECT_EQ(failure, u"ReceiptError: "_s + kUnsaved);
    EXPECT_EQ(fileBytes(store.path()), before);
}

// The guard that keeps a session's time in Jira at most what it tracked, over receipts of any marker. The
// session "k" tracked one hour.
TEST(ReceiptCoverage, RefusesWhatWouldPutMoreOfASessionIntoJiraThanItTracked)
{
    const auto receipt = [](const char *state, const QVariant &coverage, const char *cloud = "c") {
        return QVariantMap {{u"state"_s, QString::fromLatin1(state)}, {u"cloud"_s, QString::fromLatin1(cloud)},
            {u"coverage"_s, coverage}, {u"source_key"_s, u"k"_s},
            {u"payload"_s, QVariantMap {{u"timeSpentSeconds"_s, 600}}}};
    };
    const auto covering = [](qint64 seconds) { return QVariantMap {{u"k"_s, seconds}}; };
    const QVariantMap hour {{u"start_ms"_s, 0}, {u"end_ms"_s, 3600000}};
    const QList<std::tuple<const char *, QVariantMap, qint64, QVariantMap, bool>> cases = {
        {"posted in full, a few seconds more", receipt("posted", covering(3600)), 20, hour, true},
        {"the rest of the hour", receipt("posted", covering(3000)), 600, hour, false},
        {"the rest within the rounding slack", receipt("posted", covering(3000)), 630, hour, false},
        {"beyond the rounding slack", receipt("posted", covering(3000)), 631, hour, true},
        {"nothing to post", receipt("posted", covering(3600)), 0, hour, false},
        {"pending, whatever it covers", receipt("pending", covering(1)), 60, hour, true},
        {"tracked time unknown", receipt("posted", covering(60)), 60, {}, true},
        {"another site's receipt", receipt("posted", covering(3600), "other"), 600, hour, false},
        {"no coverage: its own key with its payload's seconds", receipt("posted", QVariant()), 3031, hour, true},
    };
    for (const auto &[name, stored, seconds, session, refused] : cases) {
        const ReceiptCoverage coverage({{u"m"_s, stored}}, u"c"_s);
        const QVariantMap row {{u"source_key"_s, u"k"_s}, {u"post_seconds"_s, seconds}, {u"session"_s, session}};
        EXPECT_EQ(!coverage.blocking(row).isEmpty(), refused) << name;
    }
}
