#include "platform/endpoints.h"

namespace
{

QString overridden([[maybe_unused]] const char *variable, const QString &fallback)
{
#ifdef HOURLOOM_TEST_HOOKS
    const QString value = qEnvironmentVariable(variable);
    if (!value.isEmpty())
        return value;
#endif
    return fallback;
}

QString withoutTrailingSlash(QString origin)
{
    while (origin.endsWith(QLatin1Char('/')))
        origin.chop(1);
    return origin;
}

} // namespace

namespace endpoints
{

QString gatewayOrigin()
{
    return withoutTrailingSlash(overridden("HOURLOOM_TEST_GATEWAY", QStringLiteral("https://api.atlassian.com")));
}

QString authorizationHost()
{
    return overridden("HOURLOOM_TEST_AUTH_HOST", QStringLiteral("auth.atlassian.com"));
}

QString defaultBrokerOrigin()
{
    return overridden("HOURLOOM_TEST_BROKER", QStringLiteral(HOURLOOM_DEFAULT_BROKER));
}

QString rateServiceBase()
{
    return withoutTrailingSlash(overridden("HOURLOOM_TEST_RATE_BASE", QStringLiteral("https://api.frankfurter.dev")));
}

QString extraCAFile()
{
    return overridden("HOURLOOM_TEST_CA_FILE", QString());
}

} // namespace endpoints
