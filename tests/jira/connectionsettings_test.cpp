#include "jira/connectionsettings.h"

#include "support/testenv.h"

#include <QFile>
#include <QSettings>

#include <gtest/gtest.h>

#include <memory>
#include <ostream>

namespace
{

const QString kDefaultBroker = QStringLiteral("https://broker.example.org");

struct OriginCase {
    const char *text;
    const char *expected; // nullptr: refused
};

void PrintTo(const OriginCase &c, std::ostream *os)
{
    *os << '"' << c.text << '"';
}

class NormalizedOrigin : public ::testing::TestWithParam<OriginCase>
{
};

TEST_P(NormalizedOrigin, FollowsTheOriginRules)
{
    const OriginCase &c = GetParam();
    const QString result = ConnectionSettings::normalizedOrigin(QString::fromUtf8(c.text));
    if (c.expected)
        EXPECT_EQ(result, QString::fromUtf8(c.expected));
    else
        EXPECT_TRUE(result.isNull()) << qPrintable(result);
}

INSTANTIATE_TEST_SUITE_P(Origins, NormalizedOrigin,
    ::testing::Values(OriginCase {"  HTTPS://Sign-In.Example.COM:443/ \n", "https://sign-in.example.com"},
        OriginCase {"https://broker.example:8443", "https://broker.example:8443"},
        OriginCase {"https://broker.example/", "https://broker.example"},
        OriginCase {"https://broker.example/oauth", nullptr}, OriginCase {"https://broker.example:0", nullptr},
        OriginCase {"https://broker.example:65536", nullptr}, OriginCase {"https://broker.example?x=1", nullptr},
        OriginCase {"https://broker.example#top", nullptr}, OriginCase {"https://user@broker.example", nullptr},
        OriginCase {"https://user:pw@broker.example", nullptr}, OriginCase {"https://bro ker.example", nullptr},
        OriginCase {"http://broker.example", nullptr}, OriginCase {"https://", nullptr}, OriginCase {"", nullptr},
        OriginCase {"broker.example", nullptr}));

class ConnectionSettingsTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        qputenv("HOURLOOM_TEST_BROKER", kDefaultBroker.toUtf8());
        m_path = testenv::freshDir(QStringLiteral("settings")) + QStringLiteral("/Hourloom.conf");
    }
    void TearDown() override { qunsetenv("HOURLOOM_TEST_BROKER"); }

    std::unique_ptr<QSettings> store(const QVariant &oldBroker = {})
    {
        auto settings = std::make_unique<QSettings>(m_path, QSettings::IniFormat);
        if (oldBroker.isValid())
            settings->setValue(QStringLiteral("JiraBrokerOrigin"), oldBroker);
        return settings;
    }

    QString m_path;
};

TEST_F(ConnectionSettingsTest, MigratesTheOldBrokerKeyOnce)
{
    struct Case {
        QVariant old;
        bool custom;
        QString origin;
    };
    const Case cases[] = {
        {QVariant(), false, QString()},
        {QString(), false, QString()},
        {QStringLiteral("HTTPS://Broker.Example.org/"), false, kDefaultBroker},
        {QStringLiteral("https://team.example:8443"), true, QStringLiteral("https://team.example:8443")},
        // Kept visible as typed rather than silently replaced by the default.
        {QStringLiteral("not an origin"), true, QStringLiteral("not an origin")},
    };
    for (const Case &c : cases) {
        QFile::remove(m_path);
        auto defaults = store(c.old);
        ConnectionSettings settings(*defaults);
        EXPECT_EQ(settings.usesCustomServer(), c.custom) << qPrintable(c.old.toString());
        EXPECT_EQ(settings.customOrigin(), c.origin) << qPrintable(c.old.toString());
        EXPECT_EQ(settings.effectiveOrigin(), c.custom ? c.origin : kDefaultBroker);
    }

    // Once the new keys exist, a later change of the old key is not migrated again.
    QFile::remove(m_path);
    auto defaults = store(QStringLiteral("https://team.example"));
    ConnectionSettings first(*defaults);
    defaults->setValue(QStringLiteral("JiraBrokerOrigin"), kDefaultBroker);
    ConnectionSettings second(*defaults);
    EXPECT_TRUE(second.usesCustomServer());
    EXPECT_EQ(second.customOrigin(), QStringLiteral("https://team.example"));
}

TEST_F(ConnectionSettingsTest, SavesOnlyAUsableCustomOrigin)
{
    auto defaults = store();
    ConnectionSettings settings(*defaults);

    EXPECT_FALSE(settings.saveCustom(true, QStringLiteral("https://team.example/path")));
    EXPECT_FALSE(settings.usesCustomServer());
    EXPECT_EQ(settings.customOrigin(), QString());

    EXPECT_TRUE(settings.saveCustom(true, QStringLiteral(" https://Team.Example:443/ ")));
    EXPECT_TRUE(settings.usesCustomServer());
    EXPECT_EQ(settings.customOrigin(), QStringLiteral("https://team.example"));
    EXPECT_EQ(defaults->value(QStringLiteral("JiraBrokerOrigin")).toString(), QStringLiteral("https://team.example"));

    // Choosing the default keeps whatever was typed, unchanged, for the next time the field is shown.
    EXPECT_TRUE(settings.saveCustom(false, QStringLiteral("half typed/")));
    EXPECT_FALSE(settings.usesCustomServer());
    EXPECT_EQ(settings.customOrigin(), QStringLiteral("half typed/"));
    EXPECT_EQ(settings.effectiveOrigin(), kDefaultBroker);
    EXPECT_EQ(defaults->value(QStringLiteral("JiraBrokerOrigin")).toString(), kDefaultBroker);
}

} // namespace
