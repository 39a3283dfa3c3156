#pragma once

#include <string>

namespace signin
{

// `bytes` bytes from OpenSSL's CSPRNG as unpadded base64url; throws std::runtime_error when the source fails.
std::string randomToken(int bytes);
std::string base64Url(const std::string &data);
std::string sha256(const std::string &data); // raw digest
// The S256 challenge of a PKCE verifier: base64url(SHA-256(verifier)).
std::string s256(const std::string &verifier);
// Compares without an early exit, so the time taken says nothing about where two secrets differ.
bool constantTimeEquals(const std::string &a, const std::string &b);
// A short, one-way tag of a secret for logs: lets lines of one sign-in be matched without revealing it.
std::string logTag(const std::string &secret);
// Only the characters [A-Za-z0-9_-], `min` to `max` of them.
bool isBase64Url(const std::string &text, std::size_t min, std::size_t max);

} // namespace signin
