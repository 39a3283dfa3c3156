// A build without test hooks must ignore every HOURLOOM_TEST_* override: otherwise anyone able to set the
// environment of a user's program could send its bearer token to another gateway or make it trust another
// certificate authority. The endpoint code is compiled here exactly as a release build compiles it.
#undef HOURLOOM_TEST_HOOKS
#include "platform/endpoints.cpp"

#include <gtest/gtest.h>

namespace
{

TEST(WithoutTestHooks, IgnoresEveryEndpointOverride)
{
    const char *const overrides[] = {"HOURLOOM_TEST_GATEWAY", "HOURLOOM_TEST_BROKER", "HOURLOOM_TEST_RATE_BASE",
        "HOURLOOM_TEST_AUTH_HOST", "HOURLOOM_TEST_CA_FILE"};
    for (const char *name : overrides)
        qputenv(name, "https://127.0.0.1:1");

    EXPECT_EQ(endpoints::gatewayOrigin(), QStringLiteral("https://api.atlassian.com"));
    EXPECT_EQ(endpoints::authorizationHost(), QStringLiteral("auth.atlassian.com"));
    EXPECT_EQ(endpoints::defaultBrokerOrigin(), QStringLiteral(HOURLOOM_DEFAULT_BROKER));
    EXPECT_EQ(endpoints::rateServiceBase(), QStringLiteral("https://api.frankfurter.dev"));
    EXPECT_TRUE(endpoints::extraCAFile().isEmpty());
}

} // namespace
