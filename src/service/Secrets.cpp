#include "service/Secrets.h"

#include <sodium.h>

#include <stdexcept>
#include <vector>

namespace {

constexpr std::string_view idAlphabet = "23456789abcdefghjkmnpqrstuvwxyz";
constexpr std::string_view codeAlphabet = "23456789BCDFGHJKLMNPQRSTVWXZ";

std::string randomText(std::string_view alphabet, int length)
{
    std::string text;
    text.reserve(static_cast<size_t>(length));
    for (int i = 0; i < length; ++i)
        text += alphabet[randombytes_uniform(static_cast<uint32_t>(alphabet.size()))];
    return text;
}

} // namespace

namespace Secrets {

bool initialize()
{
    return sodium_init() >= 0;
}

std::string hashPassword(std::string_view password)
{
    char hash[crypto_pwhash_STRBYTES];
    // The interactive limits (64 MiB, 2 passes) keep a sign-in under a second on a small server;
    // the sign-in form is rate-limited per address on top.
    if (crypto_pwhash_str_alg(
            hash, password.data(), password.size(), crypto_pwhash_OPSLIMIT_INTERACTIVE,
            crypto_pwhash_MEMLIMIT_INTERACTIVE, crypto_pwhash_ALG_ARGON2ID13) != 0)
        throw std::runtime_error("Not enough memory to hash the password.");
    return hash;
}

bool verifyPassword(const std::string &hash, std::string_view password)
{
    return crypto_pwhash_str_verify(hash.c_str(), password.data(), password.size()) == 0;
}

std::string newToken()
{
    unsigned char bytes[32];
    randombytes_buf(bytes, sizeof bytes);
    const size_t size =
        sodium_base64_ENCODED_LEN(sizeof bytes, sodium_base64_VARIANT_URLSAFE_NO_PADDING);
    std::vector<char> text(size);
    sodium_bin2base64(text.data(), size, bytes, sizeof bytes,
                      sodium_base64_VARIANT_URLSAFE_NO_PADDING);
    return "vt_" + std::string(text.data());
}

std::string tokenHash(std::string_view token)
{
    unsigned char digest[crypto_hash_sha256_BYTES];
    crypto_hash_sha256(digest, reinterpret_cast<const unsigned char *>(token.data()), token.size());
    char hex[crypto_hash_sha256_BYTES * 2 + 1];
    sodium_bin2hex(hex, sizeof hex, digest, sizeof digest);
    return hex;
}

std::string randomId(int length)
{
    return randomText(idAlphabet, length);
}

std::string deviceCode()
{
    return randomText(codeAlphabet, 4) + "-" + randomText(codeAlphabet, 4);
}

std::string userCode()
{
    return randomText(codeAlphabet, 6);
}

std::string base64(std::string_view bytes)
{
    const size_t size = sodium_base64_ENCODED_LEN(bytes.size(), sodium_base64_VARIANT_ORIGINAL);
    std::vector<char> text(size);
    sodium_bin2base64(text.data(), size, reinterpret_cast<const unsigned char *>(bytes.data()),
                      bytes.size(), sodium_base64_VARIANT_ORIGINAL);
    return text.data();
}

} // namespace Secrets
