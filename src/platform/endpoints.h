#pragma once

#include <QString>

// The services the program talks to. Builds with HOURLOOM_TEST_HOOKS read test overrides from the
// environment so that tests and the demo can point the program at local stand-ins; release builds have
// only the constants.
//
//   HOURLOOM_TEST_GATEWAY    origin of the API gateway, e.g. "https://127.0.0.1:8443"
//   HOURLOOM_TEST_AUTH_HOST  host the authorization page must be on, e.g. "127.0.0.1"
//   HOURLOOM_TEST_BROKER     default sign-in service origin
//   HOURLOOM_TEST_RATE_BASE  base of the exchange-rate service
//   HOURLOOM_TEST_CA_FILE    an extra CA certificate (PEM) to trust, for a local stand-in's certificate
namespace endpoints
{

// "https://api.atlassian.com" unless overridden; never ends in "/".
QString gatewayOrigin();
// "auth.atlassian.com" unless overridden.
QString authorizationHost();
// The build's default sign-in service origin (may be empty) unless overridden.
QString defaultBrokerOrigin();
// "https://api.frankfurter.dev" unless overridden.
QString rateServiceBase();
// Empty unless overridden: an extra CA file the transport trusts in addition to the system's.
QString extraCAFile();

} // namespace endpoints
