#include "crypto.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include <stdexcept>

namespace signin
{

std::string randomToken(int bytes)
{
    std::string raw(std::size_t(bytes), '\0');
    if (RAND_bytes(reinterpret_cast<unsigned char *>(raw.data()), bytes) != 1)
        throw std::runtime_error("random source failed");
    return base64Url(raw);
}

std::string base64Url(const std::string &data)
{
    static constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    std::string out;
    out.reserve((data.size() * 4 + 2) / 3);
    std::size_t i = 0;
    for (; i + 2 < data.size(); i += 3) {
        const unsigned v = (unsigned char)data[i] << 16 | (unsigned char)data[i + 1] << 8 | (unsigned char)data[i + 2];
        out += alphabet[v >> 18 & 63];
        out += alphabet[v >> 12 & 63];
        out += alphabet[v >> 6 & 63];
        out += alphabet[v & 63];
    }
    if (i + 1 == data.size()) {
        const unsigned v = (unsigned char)data[i] << 16;
        out += alphabet[v >> 18 & 63];
        out += alphabet[v >> 12 & 63];
    } else if (i + 2 == data.size()) {
        const unsigned v = (unsigned char)data[i] << 16 | (unsigned char)data[i + 1] << 8;
        out += alphabet[v >> 18 & 63];
        out += alphabet[v >> 12 & 63];
        out += alphabet[v >> 6 & 63];
    }
    return out;
}

std::string sha256(const std::string &data)
{
    unsigned char digest[SHA256_DIGEST_LENGTH];
    unsigned int length = 0;
    EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha256(), nullptr);
    return std::string(reinterpret_cast<const char *>(digest), length);
}

std::string s256(const std::string &verifier)
{
    return base64Url(sha256(verifier));
}

bool constantTimeEquals(const std::string &a, const std::string &b)
{
    // Hashing first makes the comparison length-independent as well.
    const std::string ha = sha256(a);
    const std::string hb = sha256(b);
    return CRYPTO_memcmp(ha.data(), hb.data(), ha.size()) == 0 && a.size() == b.size();
}

std::string logTag(const std::string &secret)
{
    static constexpr char hex[] = "0123456789abcdef";
    const std::string digest = sha256("hourloom-signin-log:" + secret);
    std::string tag;
    for (int i = 0; i < 4; ++i) {
        tag += hex[(unsigned char)digest[i] >> 4];
        tag += hex[(unsigned char)digest[i] & 15];
    }
    return tag;
}

bool isBase64Url(const std::string &text, std::size_t min, std::size_t max)
{
    if (text.size() < min || text.size() > max)
        return false;
    for (const char c : text) {
        if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_'))
            return false;
    }
    return true;
}

} // namespace signin
